#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <functional>

class DeviceService;

// What a service of the emulated device sees of the ADB connection that carries it: streams,
// named by the device's local id. Services reach the host through this alone, so that they
// know nothing of the device that created them.
class DeviceStreams
{
public:
    // Queues data for the host; the connection cuts it into WRTEs as flow control allows.
    virtual void streamSend(quint32 localId, const QByteArray& data) = 0;
    // Enough is queued: the service stops producing until its resume().
    virtual bool streamCongested(quint32 localId) const = 0;
    // The service has taken one host write: the host may send the next.
    virtual void streamAcknowledge(quint32 localId) = 0;
    // Closes the stream after what was queued.
    virtual void streamFinish(quint32 localId) = 0;
    // Opens a stream to the host for destination, served by what create makes for its id;
    // the service starts once the host accepts, and is stopped if it refuses. 0 when offline.
    virtual quint32 streamOpen(const QByteArray& destination,
                               const std::function<DeviceService*(quint32 localId)>& create)
        = 0;

protected:
    ~DeviceStreams() = default;
};
