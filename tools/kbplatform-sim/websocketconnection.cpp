#include "websocketconnection.h"

#include <QElapsedTimer>
#include <QTcpSocket>
#include <QtEndian>
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
    while (!m_readPaused && !m_disconnected && !m_reader.hasFailed() && m_socket->bytesAvailable() > 0) {
        qint64 budget = READ_CHUNK;
        if (m_rate > 0) {
            if (m_allowance <= 0)
                break;
            budget = qMin(budget, m_allowance);
        }
        const QByteArray chunk = m_socket->read(budget);
        if (m_rate > 0)
            m_allowance -= chunk.size();
        m_reader.feed(chunk);
        while (m_reader.hasEvent() && !m_disconnected)
            handle(m_reader.takeEvent());
        if (m_reader.hasFailed()) {
            qWarning().noquote() << QStringLiteral("WebSocket from %1: %2, closing with %3")
                                        .arg(m_socket->peerAddress().toString(), m_reader.errorString())
                                        .arg(m_reader.failCode());
            close(m_reader.failCode(), m_reader.errorString());
        }
    }
    m_reading = false;
}

void WebSocketConnection::handle(const WebSocketFrameReader::Event& event)
{
    using Opcode = WebSocketFrameReader::Opcode;
    if (m_raw || m_closeSent) {
        // Past our close frame, or inside a raw stream, only the client's close matters.
        if (event.opcode == Opcode::Close)
            m_socket->disconnectFromHost();
        return;
    }
    switch (event.opcode) {
    case Opcode::Text:
        Q_EMIT textMessageReceived(QString::fromUtf8(event.payload));
        break;
    case Opcode::Binary:
        Q_EMIT binaryMessageReceived(event.payload);
        break;
    case Opcode::Ping:
        send(Opcode::Pong, event.payload); // RFC 6455 5.5.3: the pong echoes the ping's data
        break;
    case Opcode::Close:
        m_closeCode = event.payload.size() >= 2
            ? qFromBigEndian<quint16>(reinterpret_cast<const uchar*>(event.payload.constData()))
            : 1005;
        m_closeReason = QString::fromUtf8(event.payload.mid(2));
        // RFC 6455 5.5.1: answer with a close echoing the code; the server then ends TCP.
        setSendPaused(false);
        send(Opcode::Close, event.payload.left(2));
        m_closeSent = true;
        m_socket->disconnectFromHost();
        break;
    case Opcode::Pong:
    case Opcode::Continuation:
        break;
    }
}

void WebSocketConnection::sendTextMessage(const QString& message)
{
    send(WebSocketFrameReader::Opcode::Text, message.toUtf8());
}

void WebSocketConnection::sendBinaryMessage(const QByteArray& message)
{
    send(WebSocketFrameReader::Opcode::Binary, message);
}

void WebSocketConnection::send(WebSocketFrameReader::Opcode opcode, const QByteArray& payload)
{
    if (m_disconnected || m_raw || m_closeSent)
        return;
    const QByteArray frame = encodeWebSocketFrame(opcode, payload);
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
    send(WebSocketFrameReader::Opcode::Close, webSocketClosePayload(code, reason));
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
