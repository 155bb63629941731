#pragma once

#include "deviceservice.h"

class QTcpSocket;

// A TCP connection on the simulator's host relayed to an ADB stream, both ways: "tcp:<port>"
// (`adb forward`) and each connection to a reverse forward's listener (`adb reverse`). Each side
// is read only as fast as the other takes it.
class SocketRelayService : public DeviceService
{
    Q_OBJECT

public:
    // Takes the socket, connected.
    SocketRelayService(DeviceStreams* streams, quint32 localId, QTcpSocket* socket, QObject* parent);
    ~SocketRelayService() override;

    void start() override;
    void receive(const QByteArray& data) override;
    void resume() override;
    void stop() override;

private Q_SLOTS:
    void drain();
    void onBytesWritten();
    void onDisconnected();

private:
    QTcpSocket* m_socket;
    int m_unacknowledged = 0;
    bool m_started = false;
    bool m_peerClosed = false;
};
