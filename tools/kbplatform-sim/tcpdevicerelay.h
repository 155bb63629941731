#pragma once

#include "deviceconnection.h"

class QTcpSocket;

// A real ADB daemon reachable over TCP (an emulator's adbd, say), used instead of the emulated
// device. Bytes written before the connection is up wait in the socket's buffer.
class TcpDeviceRelay : public DeviceConnection
{
    Q_OBJECT

public:
    TcpDeviceRelay(const QString& host, quint16 port, QObject* parent);
    ~TcpDeviceRelay() override;

    void write(const QByteArray& bytes) override;
    void close() override;
    qint64 backlog() const override;

private Q_SLOTS:
    void onReadyRead();
    void onDisconnected();
    void onBytesWritten();

private:
    void finish(const QString& reason);

    QTcpSocket* m_socket;
    bool m_closed = false;
    bool m_congested = false;
};
