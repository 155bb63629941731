#pragma once

#include "abstractwebsocket.h"

class QWebSocket;

// AbstractWebSocket over a QWebSocket: every operation forwards, every signal is re-emitted,
// nothing is added.
class WebSocket : public AbstractWebSocket
{
    Q_OBJECT
public:
    WebSocket(const QString& origin, QWebSocketProtocol::Version version, QObject* parent);
    ~WebSocket() override;

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

public Q_SLOTS:
    void close(QWebSocketProtocol::CloseCode closeCode = QWebSocketProtocol::CloseCodeNormal,
               const QString& reason = QString()) override;
    void ignoreSslErrors() override;
    void open(const QUrl& url) override;
    void ping(const QByteArray& payload = QByteArray()) override;

private:
    QWebSocket* m_socket; // child
};
