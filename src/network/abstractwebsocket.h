#pragma once

#include <QAbstractSocket>
#include <QAuthenticator>
#include <QHostAddress>
#include <QList>
#include <QNetworkProxy>
#include <QObject>
#include <QSslConfiguration>
#include <QSslError>
#include <QString>
#include <QUrl>
#include <QWebSocketProtocol>

class QMaskGenerator;

// The WebSocket as the tunnel, the authenticator and the bridge see it, so that they can run
// against a test double. WebSocket is the production implementation, an RFC 6455 client of our own.
class AbstractWebSocket : public QObject
{
    Q_OBJECT
public:
    explicit AbstractWebSocket(QObject* parent = nullptr);
    ~AbstractWebSocket() override;

    virtual void abort() = 0;
    virtual QWebSocketProtocol::CloseCode closeCode() const = 0;
    virtual QString closeReason() const = 0;
    virtual QAbstractSocket::SocketError error() const = 0;
    virtual QString errorString() const = 0;
    virtual bool flush() = 0;
    virtual void ignoreSslErrors(const QList<QSslError>& errors) = 0;
    virtual bool isValid() const = 0;
    virtual QHostAddress localAddress() const = 0;
    virtual quint16 localPort() const = 0;
    virtual const QMaskGenerator* maskGenerator() const = 0;
    virtual QString origin() const = 0;
    virtual QAbstractSocket::PauseModes pauseMode() const = 0;
    virtual QHostAddress peerAddress() const = 0;
    virtual QString peerName() const = 0;
    virtual quint16 peerPort() const = 0;
    virtual QNetworkProxy proxy() const = 0;
    virtual qint64 readBufferSize() const = 0;
    virtual QUrl requestUrl() const = 0;
    virtual QString resourceName() const = 0;
    virtual void resume() = 0;
    virtual qint64 sendBinaryMessage(const QByteArray& data) = 0;
    virtual qint64 sendTextMessage(const QString& message) = 0;
    virtual void setMaskGenerator(const QMaskGenerator* maskGenerator) = 0;
    virtual void setPauseMode(QAbstractSocket::PauseModes pauseMode) = 0;
    virtual void setProxy(const QNetworkProxy& networkProxy) = 0;
    virtual void setReadBufferSize(qint64 size) = 0;
    virtual void setSslConfiguration(const QSslConfiguration& sslConfiguration) = 0;
    virtual QSslConfiguration sslConfiguration() const = 0;
    virtual QAbstractSocket::SocketState state() const = 0;
    virtual QWebSocketProtocol::Version version() const = 0;

    // Bytes given to send*Message() that have not reached the network yet (frame overhead
    // included); bytesWritten() reports their progress.
    virtual qint64 bytesToWrite() const;
    // While paused, nothing more is read from the network, so that TCP's own backpressure reaches
    // the peer, and no message signal fires; resuming delivers what was held back, in order.
    // Implementations that cannot stop reading ignore it and stay unpaused.
    virtual void setReadingPaused(bool paused);
    virtual bool isReadingPaused() const;

public Q_SLOTS:
    virtual void close(QWebSocketProtocol::CloseCode closeCode = QWebSocketProtocol::CloseCodeNormal,
                       const QString& reason = QString())
        = 0;
    virtual void ignoreSslErrors() = 0;
    virtual void open(const QUrl& url) = 0;
    virtual void ping(const QByteArray& payload = QByteArray()) = 0;

Q_SIGNALS:
    void aboutToClose(); // the socket is about to close
    void binaryFrameReceived(const QByteArray& frame, bool isLastFrame); // one binary frame
    void binaryMessageReceived(const QByteArray& message); // one whole binary message
    void bytesWritten(qint64 bytes); // frame bytes written to the network
    void connected(); // the handshake succeeded
    void disconnected(); // the connection ended, normally or by an error
    // Reserved for implementations that report errors this way; WebSocket never emits it.
    void errorOccured(QAbstractSocket::SocketError error);
    void pong(quint64 elapsedTime, const QByteArray& payload); // answer to ping()
    void proxyAuthenticationRequired(const QNetworkProxy& proxy, QAuthenticator* authenticator);
    void readChannelFinished(); // the peer closed its side
    void sslErrors(const QList<QSslError>& errors); // TLS errors during the handshake, answered synchronously
    void stateChanged(QAbstractSocket::SocketState state); // every state change
    void textFrameReceived(const QString& frame, bool isLastFrame); // one text frame
    void textMessageReceived(const QString& message); // one whole text message
};
