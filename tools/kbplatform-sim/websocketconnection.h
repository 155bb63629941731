#pragma once

#include "network/websocketframe.h"

#include <QByteArrayList>
#include <QObject>

#include <functional>

class QTcpSocket;
class QTimer;

// The server's end of one WebSocket after the HTTP upgrade, over a QTcpSocket (or QSslSocket).
// Unlike QWebSocket it can stop reading (so TCP pushes back on the client), read at a set rate,
// hold what it sends, and put arbitrary bytes on the wire: what a misbehaving cloud needs.
// Pings are answered with pongs; an incoming frame or message over the limit closes with 1009, an
// unmasked or otherwise malformed frame with 1002.
class WebSocketConnection : public QObject
{
    Q_OBJECT

public:
    // Chunks the raw stream is written in, and the unsent bytes it keeps at most.
    static constexpr qint64 RAW_CHUNK = 64 * 1024;
    static constexpr qint64 RAW_BACKLOG = 1024 * 1024;
    static constexpr int CLOSE_TIMEOUT_MS = 3000;

    // Takes the socket (whose upgrade answer is already written) as its child.
    WebSocketConnection(QTcpSocket* socket, QObject* parent);
    ~WebSocketConnection() override;

    void sendTextMessage(const QString& message);
    void sendBinaryMessage(const QByteArray& message);
    // Sends a close frame and ends the TCP connection once the client answers (or after a while).
    void close(int code, const QString& reason);
    void abort();

    // Bytes sent but not yet on the wire, including those held while sending is paused.
    qint64 bytesToWrite() const;
    // While paused nothing more is read from the socket: its buffers fill and TCP slows the client.
    void setReadPaused(bool paused);
    // Reads at most this many bytes per second; 0: as fast as they come.
    void setReadRate(qint64 bytesPerSecond);
    // While paused, frames (pongs included) are held, not written.
    void setSendPaused(bool paused);
    // From now on the connection writes only what `next` returns, chunk by chunk as the socket
    // drains, until it returns an empty array; incoming frames are read and dropped.
    void streamRaw(std::function<QByteArray()> next);
    bool isStreamingRaw() const { return bool(m_raw); }

    int closeCode() const { return m_closeCode; }
    QString closeReason() const { return m_closeReason; }

Q_SIGNALS:
    void textMessageReceived(const QString& message);
    void binaryMessageReceived(const QByteArray& message);
    void bytesWritten(); // some of bytesToWrite() went out
    void disconnected(); // the TCP connection ended; emitted once

private Q_SLOTS:
    void readAvailable();
    void onBytesWritten();
    void onDisconnected();
    void refill();

private:
    void send(WebSocketFrame::OpCode opCode, const QByteArray& payload);
    void handle(WebSocketFrame frame);
    void writeFrame(const QByteArray& frame);
    void updateReadBuffer();

    QTcpSocket* m_socket;
    // rfc6455 5.1: a client masks every frame; the reader also bounds frames and messages.
    WebSocketFrameReader m_reader { WebSocketFrameReader::Masking::Masked };
    QByteArray m_message; // the fragments of the data message under way
    QTimer* m_throttle;
    QTimer* m_closeTimer;
    qint64 m_rate = 0;
    qint64 m_allowance = 0;
    bool m_readPaused = false;
    bool m_sendPaused = false;
    QByteArrayList m_held;
    qint64 m_heldBytes = 0;
    std::function<QByteArray()> m_raw;
    bool m_closeSent = false;
    bool m_reading = false;
    bool m_disconnected = false;
    int m_closeCode = 0;
    QString m_closeReason;
};
