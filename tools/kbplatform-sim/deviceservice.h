#pragma once

#include <QByteArray>
#include <QObject>

class DeviceStreams;

// One service behind an ADB stream of the emulated device ("shell:", "exec:", "sync:").
// It talks to the host only through its stream; whoever created it owns it.
class DeviceService : public QObject
{
    Q_OBJECT

public:
    DeviceService(DeviceStreams* streams, quint32 localId, QObject* parent);
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

    DeviceStreams* m_streams;
    const quint32 m_localId;
    bool m_finished = false;
};
