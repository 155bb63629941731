#include "websocket.h"

#include "networkmanager.h"

#include <QCryptographicHash>
#include <QMaskGenerator>
#include <QRandomGenerator>
#include <QSslSocket>

namespace {

constexpr qsizetype MAX_HANDSHAKE_RESPONSE = 16 * 1024;
constexpr int CLOSE_GRACE_MS = 5000;
constexpr int FAIL_GRACE_MS = 1000;
// rfc6455 1.3: appended to the key before hashing, to prove the server speaks WebSocket.
const QByteArray ACCEPT_GUID = QByteArrayLiteral("258EAFA5-E914-47DA-95CA-C5AB0DC85B11");

// Header names are case-insensitive (RFC 7230 3.2); repeated headers join with ", ".
QByteArray headerValue(const QList<QByteArray>& lines, const QByteArray& name)
{
    QByteArray value;
    for (const QByteArray& line : lines) {
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0 || line.left(colon).trimmed().toLower() != name)
            continue;
        if (!value.isEmpty())
            value += ", ";
        value += line.mid(colon + 1).trimmed();
    }
    return value;
}

bool hasToken(const QByteArray& value, const QByteArray& token)
{
    const QList<QByteArray> parts = value.split(',');
    for (const QByteArray& part : parts) {
        if (part.trimmed().toLower() == token)
            return true;
    }
    return false;
}

} // namespace

WebSocket::WebSocket(const QString& origin, QWebSocketProtocol::Version version, QObject* parent)
    : AbstractWebSocket(parent)
    , m_origin(origin)
    , m_version(version)
    , m_reader(WebSocketFrameReader::Masking::Unmasked)
    , m_textDecoder(QStringDecoder::Utf8)
{
    m_idleTimer.setSingleShot(true);
    m_pongTimer.setSingleShot(true);
    m_closeTimer.setSingleShot(true);
    connect(&m_idleTimer, &QTimer::timeout, this, &WebSocket::onIdleTimeout);
    connect(&m_pongTimer, &QTimer::timeout, this, &WebSocket::onPongTimeout);
    connect(&m_closeTimer, &QTimer::timeout, this, &WebSocket::abort);
}

WebSocket::~WebSocket()
{
    // The socket's own destructor aborts it; its signals must not reach a half-destroyed this.
    if (m_socket) {
        m_socket->disconnect(this);
        // A peer told it is going away need not wait for a dead connection to time out.
        if (m_state == QAbstractSocket::ConnectedState
            && m_socket->state() == QAbstractSocket::ConnectedState) {
            m_socket->write(WebSocketFrame::encodeMasked(
                WebSocketFrame::Close,
                WebSocketFrame::closePayload(QWebSocketProtocol::CloseCodeGoingAway, QString()),
                QRandomGenerator::global()->generate()));
            m_socket->flush();
        }
        delete m_socket;
    }
}

void WebSocket::setIncomingSizeLimit(qint64 bytes)
{
    m_incomingSizeLimit = bytes;
    m_reader = WebSocketFrameReader(WebSocketFrameReader::Masking::Unmasked, bytes, bytes);
}

void WebSocket::setLivenessTimes(std::chrono::milliseconds idle, std::chrono::milliseconds pong)
{
    m_idleTime = idle;
    m_pongTime = pong;
}

qint64 WebSocket::bufferedIncomingSize() const
{
    return (m_socket ? m_socket->bytesAvailable() : 0) + m_reader.bufferedSize() + m_message.size()
        + m_handshakeBuffer.size();
}

void WebSocket::createSocket()
{
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
        m_socket->deleteLater();
    }
    m_socket = new QSslSocket(this);
    // Bounded, so that a paused socket leaves the rest in the kernel and TCP slows the peer.
    m_socket->setReadBufferSize(READ_BUFFER_SIZE);
    m_socket->setProxy(m_proxy);
    m_socket->setPauseMode(m_pauseMode);
    if (m_hasSslConfiguration)
        m_socket->setSslConfiguration(m_sslConfiguration);
    if (!m_ignoredSslErrors.isEmpty())
        m_socket->ignoreSslErrors(m_ignoredSslErrors);

    connect(m_socket, &QSslSocket::connected, this, &WebSocket::onSocketConnected);
    connect(m_socket, &QSslSocket::encrypted, this, &WebSocket::onSocketEncrypted);
    connect(m_socket, &QSslSocket::readyRead, this, &WebSocket::onSocketReadyRead);
    connect(m_socket, &QSslSocket::stateChanged, this, &WebSocket::onSocketStateChanged);
    connect(m_socket, &QSslSocket::errorOccurred, this, &WebSocket::onSocketError);
    connect(m_socket, &QSslSocket::bytesWritten, this, &AbstractWebSocket::bytesWritten);
    connect(m_socket, &QSslSocket::readChannelFinished, this, &AbstractWebSocket::readChannelFinished);
    // Both are answered synchronously by their handlers, while the socket waits.
    connect(m_socket, &QSslSocket::sslErrors, this, &AbstractWebSocket::sslErrors);
    connect(m_socket, &QSslSocket::proxyAuthenticationRequired, this,
            &AbstractWebSocket::proxyAuthenticationRequired);
}

void WebSocket::open(const QUrl& url)
{
    createSocket();
    m_requestUrl = url;
    m_error = QAbstractSocket::UnknownSocketError;
    m_errorString.clear();
    m_closeCode = QWebSocketProtocol::CloseCodeNormal;
    m_closeReason.clear();
    m_closeSent = false;
    m_failed = false;
    m_handshakeDone = false;
    m_handshakeBuffer.clear();
    m_reader.clear();
    m_message.clear();
    m_textMessage.clear();
    m_textDecoder = QStringDecoder(QStringDecoder::Utf8);
    m_readingPaused = false;
    setState(QAbstractSocket::ConnectingState);

    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.host().isEmpty()
        || (scheme != QLatin1String("ws") && scheme != QLatin1String("wss"))) {
        m_error = QAbstractSocket::UnsupportedSocketOperationError;
        m_errorString = QStringLiteral("Invalid WebSocket URL: %1").arg(url.toString());
        qWarning().noquote() << "WebSocket:" << m_errorString;
        // Later, so that whoever called open() hears the end as it would hear a refusal.
        QMetaObject::invokeMethod(this, &WebSocket::finishDisconnect, Qt::QueuedConnection);
        return;
    }
    if (scheme == QLatin1String("wss"))
        m_socket->connectToHostEncrypted(url.host(), quint16(url.port(443)));
    else
        m_socket->connectToHost(url.host(), quint16(url.port(80)));
}

void WebSocket::onSocketConnected()
{
    // ADB messages are small and answered one by one: Nagle would hold each behind a delayed ACK.
    // Set here, once the socket exists, so that it reaches the proxy's connection too.
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (m_requestUrl.scheme().toLower() == QLatin1String("ws"))
        sendHandshake();
}

void WebSocket::onSocketEncrypted()
{
    sendHandshake();
}

void WebSocket::sendHandshake()
{
    quint32 nonce[4];
    QRandomGenerator::global()->fillRange(nonce);
    m_key = QByteArray(reinterpret_cast<const char*>(nonce), sizeof nonce).toBase64();

    QString host = m_requestUrl.host(QUrl::FullyEncoded);
    if (host.contains(QLatin1Char(':')))
        host = QLatin1Char('[') + host + QLatin1Char(']');
    if (m_requestUrl.port() != -1)
        host += QLatin1Char(':') + QString::number(m_requestUrl.port());

    QByteArray request = "GET " + resourceName().toUtf8() + " HTTP/1.1\r\n";
    request += "Host: " + host.toUtf8() + "\r\n";
    request += "Upgrade: websocket\r\n";
    request += "Connection: Upgrade\r\n";
    request += "Sec-WebSocket-Key: " + m_key + "\r\n";
    request += "Sec-WebSocket-Version: " + QByteArray::number(int(m_version)) + "\r\n";
    if (!m_origin.isEmpty())
        request += "Origin: " + m_origin.toUtf8() + "\r\n";
    request += "User-Agent: " + NetworkManager::getUserAgent().toUtf8() + "\r\n";
    request += "\r\n";
    m_socket->write(request);
}

bool WebSocket::readHandshake()
{
    m_handshakeBuffer += m_socket->read(MAX_HANDSHAKE_RESPONSE + 4 - m_handshakeBuffer.size());
    const qsizetype end = m_handshakeBuffer.indexOf("\r\n\r\n");
    if (end < 0) {
        if (m_handshakeBuffer.size() > MAX_HANDSHAKE_RESPONSE)
            failHandshake(QStringLiteral("The WebSocket handshake response is longer than %1 bytes")
                              .arg(MAX_HANDSHAKE_RESPONSE));
        return false;
    }
    const QList<QByteArray> lines = m_handshakeBuffer.left(end).split('\n');
    const QByteArray statusLine = lines.value(0).trimmed();
    const QList<QByteArray> status = statusLine.split(' ');
    if (status.size() < 2 || !status.at(0).startsWith("HTTP/")) {
        failHandshake(QStringLiteral("The WebSocket server answered with no HTTP status line"));
        return false;
    }
    if (status.at(1) != "101") {
        failHandshake(QStringLiteral("The WebSocket server answered the handshake with \"%1\"")
                          .arg(QString::fromUtf8(statusLine.mid(status.at(0).size() + 1))));
        return false;
    }
    const QByteArray expectedAccept
        = QCryptographicHash::hash(m_key + ACCEPT_GUID, QCryptographicHash::Sha1).toBase64();
    if (headerValue(lines, "upgrade").toLower() != "websocket"
        || !hasToken(headerValue(lines, "connection"), "upgrade")) {
        failHandshake(QStringLiteral("The WebSocket server did not upgrade the connection"));
        return false;
    }
    if (headerValue(lines, "sec-websocket-accept") != expectedAccept) {
        failHandshake(QStringLiteral("The WebSocket server answered with a wrong Sec-WebSocket-Accept"));
        return false;
    }
    // rfc6455 4.1: extensions or a subprotocol that were not asked for fail the connection.
    if (!headerValue(lines, "sec-websocket-extensions").isEmpty()
        || !headerValue(lines, "sec-websocket-protocol").isEmpty()) {
        failHandshake(QStringLiteral("The WebSocket server chose an extension or subprotocol not offered"));
        return false;
    }

    const QByteArray rest = m_handshakeBuffer.mid(end + 4);
    m_handshakeBuffer.clear();
    m_handshakeDone = true;
    m_reader.append(rest);
    setState(QAbstractSocket::ConnectedState);
    m_lastIncoming.start();
    m_idleTimer.start(m_idleTime);
    Q_EMIT connected();
    return true;
}

void WebSocket::failHandshake(const QString& text)
{
    // As QWebSocket does: a refused upgrade reads as a refused connection.
    m_error = QAbstractSocket::ConnectionRefusedError;
    m_errorString = text;
    qWarning().noquote() << "WebSocket:" << text;
    m_socket->abort();
    finishDisconnect();
}

void WebSocket::onSocketReadyRead()
{
    if (!m_handshakeDone && !readHandshake())
        return;
    processIncoming();
}

void WebSocket::processIncoming()
{
    // Signals emitted below may pause, resume, close or reopen us; one loop at a time.
    if (m_processing)
        return;
    m_processing = true;
    QSslSocket* const socket = m_socket;
    while (m_handshakeDone && !m_failed && socket == m_socket) {
        while (!m_readingPaused && !m_failed && m_reader.frameAvailable() && socket == m_socket) {
            if (!deliverFrame(m_reader.read()))
                break;
        }
        if (m_readingPaused || m_failed || socket != m_socket || m_reader.frameAvailable())
            break;
        if (m_reader.hasError()) {
            failConnection(m_reader.errorCloseCode(), m_reader.errorString());
            break;
        }
        const qint64 available = m_socket->bytesAvailable();
        if (available <= 0)
            break;
        m_reader.append(m_socket->read(qMin(available, READ_BUFFER_SIZE)));
        onIncomingData();
    }
    m_processing = false;
}

bool WebSocket::deliverFrame(const WebSocketFrame& frame)
{
    switch (frame.opCode) {
    case WebSocketFrame::Ping:
        // rfc6455 5.5.2: answered with a pong carrying the same payload.
        if (m_state == QAbstractSocket::ConnectedState)
            sendFrame(WebSocketFrame::Pong, frame.payload);
        return true;
    case WebSocketFrame::Pong:
        Q_EMIT pong(quint64(m_pingTimer.isValid() ? m_pingTimer.elapsed() : 0), frame.payload);
        return true;
    case WebSocketFrame::Close:
        if (!m_closeSent) {
            m_closeCode = frame.closeCodeValue();
            m_closeReason = frame.closeReason();
            // rfc6455 5.5.1: echo the status code, then the TCP connection may go.
            const QByteArray reply = frame.payload.size() >= 2 ? frame.payload.left(2) : QByteArray();
            if (m_socket->state() == QAbstractSocket::ConnectedState)
                m_socket->write(WebSocketFrame::encodeMasked(WebSocketFrame::Close, reply,
                                                             QRandomGenerator::global()->generate()));
            m_closeSent = true;
            setState(QAbstractSocket::ClosingState);
            Q_EMIT aboutToClose();
        }
        m_failed = true;
        m_idleTimer.stop();
        m_pongTimer.stop();
        m_socket->disconnectFromHost();
        if (m_socket && m_socket->state() != QAbstractSocket::UnconnectedState)
            m_closeTimer.start(FAIL_GRACE_MS);
        return false;
    case WebSocketFrame::Text:
    case WebSocketFrame::Binary:
    case WebSocketFrame::Continuation:
        break;
    }
    if (frame.messageOpCode == WebSocketFrame::Binary) {
        Q_EMIT binaryFrameReceived(frame.payload, frame.isFinal);
        if (!frame.isFinal) {
            m_message += frame.payload;
        } else if (m_message.isEmpty()) {
            Q_EMIT binaryMessageReceived(frame.payload);
        } else {
            m_message += frame.payload;
            const QByteArray message = std::move(m_message);
            m_message.clear();
            Q_EMIT binaryMessageReceived(message);
        }
        return true;
    }
    const QString text = m_textDecoder.decode(frame.payload);
    if (m_textDecoder.hasError()) {
        failConnection(QWebSocketProtocol::CloseCodeWrongDatatype,
                       QStringLiteral("Invalid UTF-8 in a text message"));
        return false;
    }
    Q_EMIT textFrameReceived(text, frame.isFinal);
    m_textMessage += text;
    if (frame.isFinal) {
        const QString message = std::move(m_textMessage);
        m_textMessage.clear();
        m_textDecoder.resetState();
        Q_EMIT textMessageReceived(message);
    }
    return true;
}

void WebSocket::failConnection(QWebSocketProtocol::CloseCode code, const QString& reason)
{
    qWarning().noquote() << "WebSocket:" << reason << "- closing with code" << int(code);
    m_failed = true;
    m_closeCode = code;
    m_closeReason = reason;
    m_errorString = reason;
    m_idleTimer.stop();
    m_pongTimer.stop();
    if (!m_socket)
        return;
    if (m_state == QAbstractSocket::ConnectedState && !m_closeSent) {
        if (m_socket->state() == QAbstractSocket::ConnectedState)
            m_socket->write(WebSocketFrame::encodeMasked(WebSocketFrame::Close,
                                                         WebSocketFrame::closePayload(code, reason),
                                                         QRandomGenerator::global()->generate()));
        m_closeSent = true;
        setState(QAbstractSocket::ClosingState);
        Q_EMIT aboutToClose();
    }
    // A peer that no longer reads would keep disconnectFromHost() waiting for the close frame.
    m_closeTimer.start(FAIL_GRACE_MS);
    m_socket->disconnectFromHost();
}

void WebSocket::onIncomingData()
{
    m_lastIncoming.start();
    if (m_pongTimer.isActive()) {
        m_pongTimer.stop();
        m_idleTimer.start(m_idleTime);
    }
}

void WebSocket::onIdleTimeout()
{
    if (m_readingPaused || m_state != QAbstractSocket::ConnectedState)
        return;
    // Restarting the timer on every read would cost more than this check.
    const auto silent = std::chrono::milliseconds(m_lastIncoming.elapsed());
    if (silent < m_idleTime) {
        m_idleTimer.start(m_idleTime - silent);
        return;
    }
    ping(QByteArray());
    m_pongTimer.start(m_pongTime);
}

void WebSocket::onPongTimeout()
{
    if (m_readingPaused || m_state != QAbstractSocket::ConnectedState)
        return;
    failConnection(QWebSocketProtocol::CloseCodeGoingAway,
                   QStringLiteral("No data from the peer for %1 ms, not even an answer to a ping")
                       .arg(m_lastIncoming.elapsed()));
}

void WebSocket::onSocketStateChanged(QAbstractSocket::SocketState socketState)
{
    if (socketState != QAbstractSocket::UnconnectedState)
        return;
    // What the peer sent before closing is still in the socket's buffer: deliver it first.
    if (!m_readingPaused)
        processIncoming();
    finishDisconnect();
}

void WebSocket::onSocketError(QAbstractSocket::SocketError socketError)
{
    // The first error is the cause; a close that it provokes must not replace it.
    if (m_error == QAbstractSocket::UnknownSocketError && m_errorString.isEmpty()) {
        m_error = socketError;
        m_errorString = m_socket->errorString();
    }
}

void WebSocket::finishDisconnect()
{
    m_idleTimer.stop();
    m_pongTimer.stop();
    m_closeTimer.stop();
    if (m_state == QAbstractSocket::UnconnectedState)
        return;
    setState(QAbstractSocket::UnconnectedState);
    Q_EMIT disconnected();
}

void WebSocket::setState(QAbstractSocket::SocketState state)
{
    if (m_state == state)
        return;
    m_state = state;
    Q_EMIT stateChanged(state);
}

qint64 WebSocket::sendFrame(WebSocketFrame::OpCode opCode, const QByteArray& payload)
{
    if (!m_socket || m_state != QAbstractSocket::ConnectedState
        || m_socket->state() != QAbstractSocket::ConnectedState)
        return 0;
    // rfc6455 5.3: a fresh, unpredictable key per frame.
    const quint32 key = m_maskGenerator ? const_cast<QMaskGenerator*>(m_maskGenerator)->nextMask()
                                        : QRandomGenerator::global()->generate();
    if (m_socket->write(WebSocketFrame::encodeMasked(opCode, payload, key)) < 0)
        return -1;
    return payload.size();
}

qint64 WebSocket::sendBinaryMessage(const QByteArray& data)
{
    return sendFrame(WebSocketFrame::Binary, data);
}

qint64 WebSocket::sendTextMessage(const QString& message)
{
    return sendFrame(WebSocketFrame::Text, message.toUtf8());
}

void WebSocket::ping(const QByteArray& payload)
{
    if (m_state != QAbstractSocket::ConnectedState)
        return;
    m_pingTimer.start();
    sendFrame(WebSocketFrame::Ping, payload.left(125));
}

void WebSocket::close(QWebSocketProtocol::CloseCode closeCode, const QString& reason)
{
    if (m_state == QAbstractSocket::UnconnectedState)
        return;
    if (m_state != QAbstractSocket::ConnectedState) {
        if (m_state != QAbstractSocket::ClosingState)
            abort();
        return;
    }
    m_closeCode = closeCode;
    m_closeReason = reason;
    sendFrame(WebSocketFrame::Close, WebSocketFrame::closePayload(closeCode, reason));
    m_closeSent = true;
    m_idleTimer.stop();
    m_pongTimer.stop();
    setState(QAbstractSocket::ClosingState);
    Q_EMIT aboutToClose();
    // rfc6455 7.1.1: the server closes the TCP connection after answering; wait for that a while.
    m_closeTimer.start(CLOSE_GRACE_MS);
}

void WebSocket::abort()
{
    if (m_socket)
        m_socket->abort();
    finishDisconnect();
}

void WebSocket::setReadingPaused(bool paused)
{
    if (m_readingPaused == paused)
        return;
    m_readingPaused = paused;
    if (paused) {
        m_idleTimer.stop();
        m_pongTimer.stop();
        return;
    }
    if (m_state == QAbstractSocket::ConnectedState) {
        m_lastIncoming.start();
        m_idleTimer.start(m_idleTime);
    }
    // Later: resuming is often decided inside a handler of one of our own signals.
    QMetaObject::invokeMethod(this, &WebSocket::processIncoming, Qt::QueuedConnection);
}

bool WebSocket::isReadingPaused() const
{
    return m_readingPaused;
}

qint64 WebSocket::bytesToWrite() const
{
    // Under TLS, bytes already encrypted wait in the socket below and are counted apart.
    return m_socket ? m_socket->bytesToWrite() + m_socket->encryptedBytesToWrite() : 0;
}

QWebSocketProtocol::CloseCode WebSocket::closeCode() const
{
    return static_cast<QWebSocketProtocol::CloseCode>(m_closeCode);
}

QString WebSocket::closeReason() const
{
    return m_closeReason;
}

QAbstractSocket::SocketError WebSocket::error() const
{
    return m_error;
}

QString WebSocket::errorString() const
{
    return m_errorString.isEmpty() ? QStringLiteral("Unknown error") : m_errorString;
}

bool WebSocket::flush()
{
    return m_socket && m_socket->flush();
}

void WebSocket::ignoreSslErrors(const QList<QSslError>& errors)
{
    m_ignoredSslErrors = errors;
    if (m_socket)
        m_socket->ignoreSslErrors(errors);
}

void WebSocket::ignoreSslErrors()
{
    if (m_socket)
        m_socket->ignoreSslErrors();
}

bool WebSocket::isValid() const
{
    return m_socket && m_socket->isValid() && m_state == QAbstractSocket::ConnectedState;
}

QHostAddress WebSocket::localAddress() const
{
    return m_socket ? m_socket->localAddress() : QHostAddress();
}

quint16 WebSocket::localPort() const
{
    return m_socket ? m_socket->localPort() : 0;
}

const QMaskGenerator* WebSocket::maskGenerator() const
{
    return m_maskGenerator;
}

QString WebSocket::origin() const
{
    return m_origin;
}

QAbstractSocket::PauseModes WebSocket::pauseMode() const
{
    return m_pauseMode;
}

QHostAddress WebSocket::peerAddress() const
{
    return m_socket ? m_socket->peerAddress() : QHostAddress();
}

QString WebSocket::peerName() const
{
    return m_socket ? m_socket->peerName() : QString();
}

quint16 WebSocket::peerPort() const
{
    return m_socket ? m_socket->peerPort() : 0;
}

QNetworkProxy WebSocket::proxy() const
{
    return m_proxy;
}

qint64 WebSocket::readBufferSize() const
{
    return m_socket ? m_socket->readBufferSize() : READ_BUFFER_SIZE;
}

QUrl WebSocket::requestUrl() const
{
    return m_requestUrl;
}

QString WebSocket::resourceName() const
{
    QString resource = m_requestUrl.path(QUrl::FullyEncoded);
    if (resource.isEmpty())
        resource = QStringLiteral("/");
    if (m_requestUrl.hasQuery())
        resource += QLatin1Char('?') + m_requestUrl.query(QUrl::FullyEncoded);
    return resource;
}

void WebSocket::resume()
{
    if (m_socket)
        m_socket->resume();
}

void WebSocket::setMaskGenerator(const QMaskGenerator* maskGenerator)
{
    m_maskGenerator = maskGenerator;
}

void WebSocket::setPauseMode(QAbstractSocket::PauseModes pauseMode)
{
    m_pauseMode = pauseMode;
    if (m_socket)
        m_socket->setPauseMode(pauseMode);
}

void WebSocket::setProxy(const QNetworkProxy& networkProxy)
{
    m_proxy = networkProxy;
}

void WebSocket::setReadBufferSize(qint64 size)
{
    // 0 would let the socket read without end, and pausing would no longer hold anything back.
    if (m_socket && size > 0)
        m_socket->setReadBufferSize(size);
}

void WebSocket::setSslConfiguration(const QSslConfiguration& sslConfiguration)
{
    m_sslConfiguration = sslConfiguration;
    m_hasSslConfiguration = true;
}

QSslConfiguration WebSocket::sslConfiguration() const
{
    return m_socket ? m_socket->sslConfiguration() : m_sslConfiguration;
}

QAbstractSocket::SocketState WebSocket::state() const
{
    return m_state;
}

QWebSocketProtocol::Version WebSocket::version() const
{
    return m_version;
}
