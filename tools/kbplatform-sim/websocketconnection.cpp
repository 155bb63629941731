#include "websocketconnection.h"

#include <QElapsedTimer>
#include <QTcpSocket>
#include <QTimer>

namespace {

constexpr qint64 READ_CHUNK = 256 * 1024;
constexpr int THROTTLE_TICK_MS = 10;

} // namespace

WebSocketConnection::WebSocketConnection(QTcpSocket* socket, QObject* parent)
    : QObject(parent)
    , m_socket(socket)
    , m_throttle(new QTimer(this))
    , m_closeTimer(new QTimer(this))
{
    m_socket->setParent(this);
    // Every frame carries ADB messages: with Nagle a small one waits for a delayed ACK.
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    updateReadBuffer();
    connect(m_socket, &QTcpSocket::readyRead, this, &WebSocketConnection::readAvailable);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &WebSocketConnection::onBytesWritten);
    connect(m_socket, &QTcpSocket::disconnected, this, &WebSocketConnection::onDisconnected);
    m_throttle->setInterval(THROTTLE_TICK_MS);
    connect(m_throttle, &QTimer::timeout, this, [this] {
        // Credit for one tick, capped at a tenth of a second so an idle spell does not buy a burst.
        m_allowance = qMin(m_allowance + qMax<qint64>(1, m_rate * THROTTLE_TICK_MS / 1000),
                           qMax<qint64>(1, m_rate / 10));
        readAvailable();
    });
    m_closeTimer->setSingleShot(true);
    m_closeTimer->setInterval(CLOSE_TIMEOUT_MS);
    connect(m_closeTimer, &QTimer::timeout, this, &WebSocketConnection::abort);
    // Bytes that came with the upgrade request are already buffered: no readyRead for them.
    QTimer::singleShot(0, this, &WebSocketConnection::readAvailable);
}

WebSocketConnection::~WebSocketConnection() = default;

void WebSocketConnection::updateReadBuffer()
{
    // A bounded buffer is what lets a paused or throttled reader push back through TCP.
    m_socket->setReadBufferSize(m_rate > 0 ? qBound<qint64>(4096, m_rate / 10, READ_CHUNK) : READ_CHUNK);
}

void WebSocketConnection::setReadPaused(bool paused)
{
    m_readPaused = paused;
    if (!paused)
        readAvailable();
}

void WebSocketConnection::setReadRate(qint64 bytesPerSecond)
{
    m_rate = qMax<qint64>(0, bytesPerSecond);
    m_allowance = 0;
    updateReadBuffer();
    if (m_rate > 0)
        m_throttle->start();
    else
        m_throttle->stop();
    readAvailable();
}

void WebSocketConnection::readAvailable()
{
    if (m_reading || m_disconnected)
        return;
    m_reading = true;
    while (!m_readPaused && !m_disconnected && !m_reader.hasError() && m_socket->bytesAvailable() > 0) {
        qint64 budget = READ_CHUNK;
        if (m_rate > 0) {
            if (m_allowance <= 0)
                break;
            budget = qMin(budget, m_allowance);
        }
        const QByteArray chunk = m_socket->read(budget);
        if (m_rate > 0)
            m_allowance -= chunk.size();
        m_reader.append(chunk);
        while (m_reader.frameAvailable() && !m_disconnected)
            handle(m_reader.read());
        if (m_reader.hasError()) {
            const int code = m_reader.errorCloseCode();
            qWarning().noquote() << QStringLiteral("WebSocket from %1: %2, closing with %3")
                                        .arg(m_socket->peerAddress().toString(), m_reader.errorString())
                                        .arg(code);
            m_message.clear();
            close(code, m_reader.errorString());
        }
    }
    m_reading = false;
}

void WebSocketConnection::handle(WebSocketFrame frame)
{
    if (m_raw || m_closeSent) {
        // Past our close frame, or inside a raw stream, only the client's close matters.
        m_message.clear();
        if (frame.opCode == WebSocketFrame::Close)
            m_socket->disconnectFromHost();
        return;
    }
    if (!frame.isControl()) {
        // The reader has already refused a message over its limit, so what is held here stays
        // bounded; an unfragmented message is passed on without a copy.
        if (!frame.isFinal || !m_message.isEmpty()) {
            m_message.append(frame.payload);
            if (!frame.isFinal)
                return;
            frame.payload = std::exchange(m_message, QByteArray());
        }
        if (frame.messageOpCode == WebSocketFrame::Text)
            Q_EMIT textMessageReceived(QString::fromUtf8(frame.payload));
        else
            Q_EMIT binaryMessageReceived(frame.payload);
        return;
    }
    switch (frame.opCode) {
    case WebSocketFrame::Ping:
        send(WebSocketFrame::Pong, frame.payload); // RFC 6455 5.5.3: the pong echoes the ping's data
        break;
    case WebSocketFrame::Close:
        // RFC 6455 7.1.5: a close without a status code counts as 1005.
        m_closeCode = frame.payload.size() >= 2 ? int(frame.closeCodeValue())
                                                : int(QWebSocketProtocol::CloseCodeMissingStatusCode);
        m_closeReason = frame.closeReason();
        // RFC 6455 5.5.1: answer with a close echoing the code; the server then ends TCP.
        setSendPaused(false);
        send(WebSocketFrame::Close, frame.payload.left(2));
        m_closeSent = true;
        m_socket->disconnectFromHost();
        break;
    default: // pongs: the simulator sends no pings of its own
        break;
    }
}

void WebSocketConnection::sendTextMessage(const QString& message)
{
    send(WebSocketFrame::Text, message.toUtf8());
}

void WebSocketConnection::sendBinaryMessage(const QByteArray& message)
{
    send(WebSocketFrame::Binary, message);
}

void WebSocketConnection::send(WebSocketFrame::OpCode opCode, const QByteArray& payload)
{
    if (m_disconnected || m_raw || m_closeSent)
        return;
    const QByteArray frame = WebSocketFrame::encode(opCode, payload);
    if (m_sendPaused) {
        m_held.append(frame);
        m_heldBytes += frame.size();
        return;
    }
    m_socket->write(frame);
}

void WebSocketConnection::setSendPaused(bool paused)
{
    m_sendPaused = paused;
    if (paused)
        return;
    const QByteArrayList held = std::exchange(m_held, {});
    m_heldBytes = 0;
    for (const QByteArray& frame : held)
        m_socket->write(frame);
}

qint64 WebSocketConnection::bytesToWrite() const
{
    return m_socket->bytesToWrite() + m_heldBytes;
}

void WebSocketConnection::close(int code, const QString& reason)
{
    if (m_disconnected || m_closeSent)
        return;
    m_closeCode = code;
    m_closeReason = reason;
    if (m_raw) {
        abort();
        return;
    }
    setSendPaused(false);
    send(WebSocketFrame::Close, WebSocketFrame::closePayload(QWebSocketProtocol::CloseCode(code), reason));
    m_closeSent = true;
    m_closeTimer->start();
}

void WebSocketConnection::abort()
{
    m_socket->abort();
    onDisconnected();
}

void WebSocketConnection::streamRaw(std::function<QByteArray()> next)
{
    if (m_disconnected || m_closeSent)
        return;
    m_held.clear();
    m_heldBytes = 0;
    m_sendPaused = false;
    m_raw = std::move(next);
    refill();
}

void WebSocketConnection::refill()
{
    // Written as the socket drains, so a stream of any length costs RAW_BACKLOG of memory.
    while (m_raw && !m_disconnected && m_socket->bytesToWrite() < RAW_BACKLOG) {
        const QByteArray chunk = m_raw();
        if (chunk.isEmpty()) {
            m_raw = [] { return QByteArray(); };
            break;
        }
        m_socket->write(chunk);
    }
}

void WebSocketConnection::onBytesWritten()
{
    if (m_raw)
        refill();
    Q_EMIT bytesWritten();
}

void WebSocketConnection::onDisconnected()
{
    if (m_disconnected)
        return;
    m_disconnected = true;
    m_throttle->stop();
    m_closeTimer->stop();
    Q_EMIT disconnected();
}
