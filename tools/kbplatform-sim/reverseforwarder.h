#pragma once

#include <QByteArray>
#include <QObject>

#include <map>

class DeviceStreams;
class QTcpServer;

// The reverse forwards of one ADB connection (`adb reverse`): for each, a listener on the
// simulator's loopback plays the device's port, and every connection to it becomes a stream
// the device opens to the host's local end. They end with the connection, as on a device.
class ReverseForwarder : public QObject
{
    Q_OBJECT

public:
    // Services of the forwarded connections are made children of serviceParent.
    ReverseForwarder(DeviceStreams* streams, QObject* serviceParent);
    ~ReverseForwarder() override;

    // Answers the request after "reverse:" as adbd does: "forward:[norebind:]tcp:PORT;LOCAL",
    // "killforward:tcp:PORT", "killforward-all", "list-forward". The answer is the stream's
    // whole content.
    QByteArray handle(const QByteArray& request);

private:
    struct Listener
    {
        QTcpServer* server;
        QByteArray local;
    };

    QByteArray forward(const QByteArray& spec);
    void onNewConnection(QTcpServer* server);

    DeviceStreams* m_streams;
    QObject* m_serviceParent;
    std::map<QByteArray, Listener> m_listeners; // by the device's end, "tcp:PORT" as bound
};
