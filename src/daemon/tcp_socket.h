#pragma once

#include <QByteArray>
#include <QTcpSocket>

// The local ADB server's connection: reads in 4 KiB chunks handed on without copying.
class TcpSocket : public QTcpSocket
{
    Q_OBJECT
public:
    static constexpr qint64 READ_CHUNK_SIZE = 4096;
    // Qt's own buffer in front of the chunked reads; bounded so that a pause reaches the peer.
    static constexpr qint64 READ_BUFFER_SIZE = 1024 * 1024;

    explicit TcpSocket(QObject* parent = nullptr);
    ~TcpSocket() override;

    // One buffered write; short or failed writes are logged, not retried.
    void sendData(const QByteArray& data);
    // Aborts the connection and deletes the socket: at once, or, when called from inside its own
    // dataReceived (a receiver's nested event loop), as soon as that handling has unwound.
    void dispose();
    // While paused nothing is read: the socket's bounded read buffer fills, then the kernel's,
    // and TCP slows the ADB server down. Resuming reads what waited.
    void setReadingPaused(bool paused);
    bool isReadingPaused() const { return m_readingPaused; }

public Q_SLOTS:
    void onReadyRead();

Q_SIGNALS:
    // One chunk read. The bytes are a view of a reused buffer, valid only during the emission:
    // receivers copy what they keep.
    void dataReceived(const QByteArray& data);

private:
    bool m_reading = false;
    bool m_disposed = false;
    bool m_readingPaused = false;
};
