#pragma once

#include <QByteArray>
#include <QObject>

class EmulatedDevice;

// One service behind an ADB stream of the emulated device ("shell:", "exec:", "sync:").
// It talks to the host only through its device, which owns it.
class DeviceService : public QObject
{
    Q_OBJECT

public:
    DeviceService(EmulatedDevice* device, quint32 localId);
    ~DeviceService() override;

    virtual void start() = 0;
    // A host write; the service calls acknowledge() once it has taken it.
    virtual void receive(const QByteArray& data) = 0;
    // The stream has room again after congested() was true.
    virtual void resume() { }
    // The host closed the stream: stop, send nothing more.
    virtual void stop() = 0;

protected:
    void send(const QByteArray& data);
    bool congested() const;
    void acknowledge();
    // Closes the stream after what was sent; the device deletes the service later.
    void finish();

    EmulatedDevice* m_device;
    const quint32 m_localId;
    bool m_finished = false;
};
