#include "websocket.h"

#include <QWebSocket>

WebSocket::WebSocket(const QString& origin, QWebSocketProtocol::Version version, QObject* parent)
    : AbstractWebSocket(parent)
    , m_socket(new QWebSocket(origin, version, this))
{
    connect(m_socket, &QWebSocket::aboutToClose, this, &AbstractWebSocket::aboutToClose);
    connect(m_socket, &QWebSocket::binaryFrameReceived, this, &AbstractWebSocket::binaryFrameReceived);
    connect(m_socket, &QWebSocket::binaryMessageReceived, this, &AbstractWebSocket::binaryMessageReceived);
    connect(m_socket, &QWebSocket::bytesWritten, this, &AbstractWebSocket::bytesWritten);
    connect(m_socket, &QWebSocket::connected, this, &AbstractWebSocket::connected);
    connect(m_socket, &QWebSocket::disconnected, this, &AbstractWebSocket::disconnected);
    // Deliberately not re-emitted as errorOccured: every error also ends in stateChanged and
    // disconnected, which is what users react to; they read error()/errorString() then.
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    connect(m_socket, &QWebSocket::errorOccurred, this, &WebSocket::error);
#else
    connect(m_socket, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, &WebSocket::error);
#endif
    connect(m_socket, &QWebSocket::pong, this, &AbstractWebSocket::pong);
    connect(m_socket, &QWebSocket::proxyAuthenticationRequired, this,
            &AbstractWebSocket::proxyAuthenticationRequired);
    connect(m_socket, &QWebSocket::readChannelFinished, this, &AbstractWebSocket::readChannelFinished);
    connect(m_socket, &QWebSocket::sslErrors, this, &AbstractWebSocket::sslErrors);
    connect(m_socket, &QWebSocket::stateChanged, this, &AbstractWebSocket::stateChanged);
    connect(m_socket, &QWebSocket::textFrameReceived, this, &AbstractWebSocket::textFrameReceived);
    connect(m_socket, &QWebSocket::textMessageReceived, this, &AbstractWebSocket::textMessageReceived);
}

WebSocket::~WebSocket() = default;

void WebSocket::abort()
{
    m_socket->abort();
}

QWebSocketProtocol::CloseCode WebSocket::closeCode() const
{
    return m_socket->closeCode();
}

QString WebSocket::closeReason() const
{
    return m_socket->closeReason();
}

QAbstractSocket::SocketError WebSocket::error() const
{
    return m_socket->error();
}

QString WebSocket::errorString() const
{
    return m_socket->errorString();
}

bool WebSocket::flush()
{
    return m_socket->flush();
}

void WebSocket::ignoreSslErrors(const QList<QSslError>& errors)
{
    m_socket->ignoreSslErrors(errors);
}

bool WebSocket::isValid() const
{
    return m_socket->isValid();
}

QHostAddress WebSocket::localAddress() const
{
    return m_socket->localAddress();
}

quint16 WebSocket::localPort() const
{
    return m_socket->localPort();
}

const QMaskGenerator* WebSocket::maskGenerator() const
{
    return m_socket->maskGenerator();
}

QString WebSocket::origin() const
{
    return m_socket->origin();
}

QAbstractSocket::PauseModes WebSocket::pauseMode() const
{
    return m_socket->pauseMode();
}

QHostAddress WebSocket::peerAddress() const
{
    return m_socket->peerAddress();
}

QString WebSocket::peerName() const
{
    return m_socket->peerName();
}

quint16 WebSocket::peerPort() const
{
    return m_socket->peerPort();
}

QNetworkProxy WebSocket::proxy() const
{
    return m_socket->proxy();
}

qint64 WebSocket::readBufferSize() const
{
    return m_socket->readBufferSize();
}

QUrl WebSocket::requestUrl() const
{
    return m_socket->requestUrl();
}

QString WebSocket::resourceName() const
{
    return m_socket->resourceName();
}

void WebSocket::resume()
{
    m_socket->resume();
}

qint64 WebSocket::sendBinaryMessage(const QByteArray& data)
{
    return m_socket->sendBinaryMessage(data);
}

qint64 WebSocket::sendTextMessage(const QString& message)
{
    return m_socket->sendTextMessage(message);
}

void WebSocket::setMaskGenerator(const QMaskGenerator* maskGenerator)
{
    m_socket->setMaskGenerator(maskGenerator);
}

void WebSocket::setPauseMode(QAbstractSocket::PauseModes pauseMode)
{
    m_socket->setPauseMode(pauseMode);
}

void WebSocket::setProxy(const QNetworkProxy& networkProxy)
{
    m_socket->setProxy(networkProxy);
}

void WebSocket::setReadBufferSize(qint64 size)
{
    m_socket->setReadBufferSize(size);
}

void WebSocket::setSslConfiguration(const QSslConfiguration& sslConfiguration)
{
    m_socket->setSslConfiguration(sslConfiguration);
}

QSslConfiguration WebSocket::sslConfiguration() const
{
    return m_socket->sslConfiguration();
}

QAbstractSocket::SocketState WebSocket::state() const
{
    return m_socket->state();
}

QWebSocketProtocol::Version WebSocket::version() const
{
    return m_socket->version();
}

void WebSocket::close(QWebSocketProtocol::CloseCode closeCode, const QString& reason)
{
    m_socket->close(closeCode, reason);
}

void WebSocket::ignoreSslErrors()
{
    m_socket->ignoreSslErrors();
}

void WebSocket::open(const QUrl& url)
{
    m_socket->open(url);
}

void WebSocket::ping(const QByteArray& payload)
{
    m_socket->ping(payload);
}
