#pragma once

#include <QByteArray>
#include <QTcpSocket>

// The local ADB server's connection: reads in 4 KiB chunks handed on without copying.
class TcpSocket : public QTcpSocket
{
    Q_OBJECT
public:
    static constexpr qint64 READ_CHUNK_SIZE = 4096;

    explicit TcpSocket(QObject* parent = nullptr);
    ~TcpSocket() override;

    // One buffered write; short or failed writes are logged, not retried.
    void sendData(const QByteArray& data);
    // Aborts the connection and deletes the socket: at once, or, when called from inside its own
    // dataReceived (a receiver's nested event loop), as soon as that handling has unwound.
    void dispose();

public Q_SLOTS:
    void onReadyRead();

Q_SIGNALS:
    // One chunk read. The bytes are a view of a reused buffer, valid only during the emission:
    // receivers copy what they keep.
    void dataReceived(const QByteArray& data);

private:
    bool m_reading = false;
    bool m_disposed = false;
};
