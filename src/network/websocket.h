#pragma once

#include "abstractwebsocket.h"
#include "websocketframe.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QStringDecoder>
#include <QTimer>

#include <chrono>

class QSslSocket;

// An RFC 6455 client over a QSslSocket (plain for ws://, encrypted for wss://), through the
// socket's HTTP (CONNECT) or SOCKS5 proxy when one is set.
//
// Unlike QWebSocket it can stop reading: the TCP socket keeps a bounded read buffer and is not
// read while setReadingPaused(true), so the peer's writes back up in the kernel and then at the
// peer. What it holds is bounded too: an incoming frame or message over the size limit is
// refused with close code 1009 before its payload is awaited.
//
// It watches the peer: after the idle time without incoming data it pings, and when nothing
// arrives within the pong time either it gives up on the connection. The watch rests while
// reading is paused, when silence is of our own making.
//
// Errors are reported as QWebSocket reports them: error() and errorString() are set, the state
// returns to UnconnectedState with disconnected(); errorOccured is never emitted.
class WebSocket : public AbstractWebSocket
{
    Q_OBJECT
public:
    static constexpr qint64 READ_BUFFER_SIZE = 256 * 1024;
    static constexpr std::chrono::milliseconds DEFAULT_IDLE_TIME { 15000 };
    static constexpr std::chrono::milliseconds DEFAULT_PONG_TIME { 15000 };

    WebSocket(const QString& origin, QWebSocketProtocol::Version version, QObject* parent);
    ~WebSocket() override;

    // Default 16 MiB for a frame and for a message.
    void setIncomingSizeLimit(qint64 bytes);
    qint64 incomingSizeLimit() const { return m_incomingSizeLimit; }
    // Defaults DEFAULT_IDLE_TIME and DEFAULT_PONG_TIME; applies from the next incoming data.
    void setLivenessTimes(std::chrono::milliseconds idle, std::chrono::milliseconds pong);
    // Incoming bytes held in memory: the TCP socket's read buffer, frames parsed and not yet
    // delivered, and the message being assembled.
    qint64 bufferedIncomingSize() const;

    void abort() override;
    QWebSocketProtocol::CloseCode closeCode() const override;
    QString closeReason() const override;
    QAbstractSocket::SocketError error() const override;
    QString errorString() const override;
    bool flush() override;
    void ignoreSslErrors(const QList<QSslError>& errors) override;
    bool isValid() const override;
    QHostAddress localAddress() const override;
    quint16 localPort() const override;
    const QMaskGenerator* maskGenerator() const override;
    QString origin() const override;
    QAbstractSocket::PauseModes pauseMode() const override;
    QHostAddress peerAddress() const override;
    QString peerName() const override;
    quint16 peerPort() const override;
    QNetworkProxy proxy() const override;
    qint64 readBufferSize() const override;
    QUrl requestUrl() const override;
    QString resourceName() const override;
    void resume() override;
    qint64 sendBinaryMessage(const QByteArray& data) override;
    qint64 sendTextMessage(const QString& message) override;
    void setMaskGenerator(const QMaskGenerator* maskGenerator) override;
    void setPauseMode(QAbstractSocket::PauseModes pauseMode) override;
    void setProxy(const QNetworkProxy& networkProxy) override;
    void setReadBufferSize(qint64 size) override;
    void setSslConfiguration(const QSslConfiguration& sslConfiguration) override;
    QSslConfiguration sslConfiguration() const override;
    QAbstractSocket::SocketState state() const override;
    QWebSocketProtocol::Version version() const override;

    qint64 bytesToWrite() const override;
    void setReadingPaused(bool paused) override;
    bool isReadingPaused() const override;

public Q_SLOTS:
    void close(QWebSocketProtocol::CloseCode closeCode = QWebSocketProtocol::CloseCodeNormal,
               const QString& reason = QString()) override;
    void ignoreSslErrors() override;
    void open(const QUrl& url) override;
    void ping(const QByteArray& payload = QByteArray()) override;

private Q_SLOTS:
    void onSocketConnected();
    void onSocketEncrypted();
    void onSocketReadyRead();
    void onSocketStateChanged(QAbstractSocket::SocketState socketState);
    void onSocketError(QAbstractSocket::SocketError socketError);
    void onIdleTimeout();
    void onPongTimeout();

private:
    void createSocket();
    void sendHandshake();
    bool readHandshake();
    void failHandshake(const QString& text);
    void processIncoming();
    bool deliverFrame(const WebSocketFrame& frame);
    // Sends a Close with code and reason, then drops the connection: rfc6455 7.1.7.
    void failConnection(QWebSocketProtocol::CloseCode code, const QString& reason);
    qint64 sendFrame(WebSocketFrame::OpCode opCode, const QByteArray& payload);
    void setState(QAbstractSocket::SocketState state);
    void onIncomingData();
    void finishDisconnect();

    QString m_origin;
    QWebSocketProtocol::Version m_version;
    QNetworkProxy m_proxy;
    QSslConfiguration m_sslConfiguration;
    bool m_hasSslConfiguration = false;
    const QMaskGenerator* m_maskGenerator = nullptr;
    QAbstractSocket::PauseModes m_pauseMode = QAbstractSocket::PauseNever;
    QUrl m_requestUrl;

    QSslSocket* m_socket = nullptr; // child, replaced on every open()
    QAbstractSocket::SocketState m_state = QAbstractSocket::UnconnectedState;
    QAbstractSocket::SocketError m_error = QAbstractSocket::UnknownSocketError;
    QString m_errorString;
    // Held as a number: peers may send application codes (4000-4999) that the enumeration does
    // not name, and an enumeration variable may not hold them.
    quint16 m_closeCode = QWebSocketProtocol::CloseCodeNormal;
    QString m_closeReason;
    bool m_closeSent = false;
    bool m_failed = false; // the connection is being dropped: deliver nothing more
    QList<QSslError> m_ignoredSslErrors;

    QByteArray m_key;
    QByteArray m_handshakeBuffer;
    bool m_handshakeDone = false;

    qint64 m_incomingSizeLimit = WebSocketFrameReader::DEFAULT_MAX_FRAME_SIZE;
    WebSocketFrameReader m_reader;
    QByteArray m_message;
    QStringDecoder m_textDecoder;
    QString m_textMessage;
    bool m_readingPaused = false;
    bool m_processing = false;

    std::chrono::milliseconds m_idleTime = DEFAULT_IDLE_TIME;
    std::chrono::milliseconds m_pongTime = DEFAULT_PONG_TIME;
    QTimer m_idleTimer;
    QTimer m_pongTimer;
    QTimer m_closeTimer;
    QElapsedTimer m_pingTimer;
    QElapsedTimer m_lastIncoming;
};
