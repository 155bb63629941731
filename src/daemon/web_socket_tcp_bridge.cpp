#include "web_socket_tcp_bridge.h"

#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/AdbTunnelLogger.h"
#include "adbprotocol/ConnectBanner.h"
#include "adbtunnelversion.h"
#include "network/abstractwebsocket.h"
#include "tcp_socket.h"
#include "utils/loghandler.h"

#include <QDebug>
#include <QEventLoop>
#include <QMetaEnum>
#include <QTimer>

namespace {

const QString FROM_ADB_SERVER = QStringLiteral("ADB SERVER => TUNNEL SOFT");
const QString TO_DEVICE = QStringLiteral("TUNNEL SOFT => TUNNEL CLOUD");
const QString FROM_DEVICE = QStringLiteral("TUNNEL SOFT <= TUNNEL CLOUD");

// With delayed_ack, OPEN and OKAY carry a receive window and one OKAY may cover several WRTEs;
// the OKAY forged in retain mode has no window, so neither end may switch it on.
const QByteArrayView DELAYED_ACK = "delayed_ack";

// Keys are logged as "std::pair(5, 0)", lists as "QList(std::pair(5, 0), std::pair(12, 1))".
QString keyText(const AdbSession::Key& key)
{
    return QStringLiteral("std::pair(%1, %2)").arg(key.first).arg(key.second);
}

QString keysText(const QList<AdbSession::Key>& keys)
{
    QStringList texts;
    texts.reserve(keys.size());
    for (const AdbSession::Key& key : keys)
        texts.append(keyText(key));
    return QLatin1String("QList(") + texts.join(QLatin1String(", ")) + QLatin1Char(')');
}

} // namespace

WebSocketTcpBridge::WebSocketTcpBridge(AbstractWebSocket* webSocket, const QString& uuid, QObject* parent)
    : QObject(parent)
    , m_uuid(uuid)
    , m_logPrefix(QStringLiteral("[UUID:%1]").arg(uuid))
    , m_webSocket(webSocket)
    , m_tcpServer(this)
{
    qRegisterMetaType<WebSocketTcpBridge::State>("State");
    qRegisterMetaType<WebSocketTcpBridge::State>("WebSocketTcpBridge::State");

    connect(&m_tcpServer, &TcpServer::dataReceived, this, &WebSocketTcpBridge::onTcpDataReceived);
    connect(&m_tcpServer, &TcpServer::socketDisconnected, this, &WebSocketTcpBridge::onTcpClientGone);
    connect(&m_tcpServer, &TcpServer::socketDisconnected, this, &WebSocketTcpBridge::tcpSocketDisconnected);
    if (webSocket) {
        connect(webSocket, &AbstractWebSocket::binaryFrameReceived, this,
                &WebSocketTcpBridge::onWebsocketDataReceived);
        connect(webSocket, &AbstractWebSocket::disconnected, this,
                &WebSocketTcpBridge::onWebSocketDisconnected);
    }
}

WebSocketTcpBridge::~WebSocketTcpBridge()
{
    stop();
    // Sessions have no parent; nothing else refers to them once the bridge is gone.
    qDeleteAll(m_sessions);
}

quint16 WebSocketTcpBridge::getTcpPort() const
{
    return m_tcpServer.serverPort();
}

void WebSocketTcpBridge::start(quint16 port)
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    if (m_state != IDLE) {
        qWarning() << "Bridge already started.";
        return;
    }
    setState(WAITING);
    if (!m_webSocket)
        qFatal("Bridge started without a web socket.");
    if (m_webSocket->state() != QAbstractSocket::ConnectedState) {
        qWarning() << "webSocket not in connected state.";
        stop(WebSocketError);
        return;
    }
    if (!m_tcpServer.listen(QHostAddress::Any, port)) {
        qWarning().noquote() << "Tcp server cannot listen" << port << ":" << m_tcpServer.errorString();
        stop(TcpServerError);
        return;
    }
    setState(RUNNING);
}

void WebSocketTcpBridge::stop()
{
    stop(NoError);
}

void WebSocketTcpBridge::stop(Error error)
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    m_tcpServer.stop();
    m_tcpReader.clear();
    // The socket is not ours; only stop listening to it, so a later close of it does not
    // rewrite the error we stopped with.
    if (m_webSocket)
        m_webSocket->disconnect(this);
    m_webSocket.clear();
    m_lastError = error;
    setState(IDLE);
}

void WebSocketTcpBridge::setState(State state)
{
    qDebug().noquote() << "Update bridge state to"
                       << QLatin1String(QMetaEnum::fromType<State>().valueToKey(state));
    m_state = state;
    Q_EMIT stateChanged(state);
}

void WebSocketTcpBridge::onWebSocketDisconnected()
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    qDebug() << "Web socket disconnected.";
    // Listeners of this IDLE still see the previous error; the tunnel relies on that order.
    setState(IDLE);
    m_lastError = WebSocketError;
}

void WebSocketTcpBridge::onTcpClientGone()
{
    // A partial message of the old connection must not prefix the next client's stream.
    m_tcpReader.clear();
    m_delayedAckRemovedFrom = 0;
}

void WebSocketTcpBridge::onTcpDataReceived(const QByteArray& data)
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    if (!m_webSocket) {
        qWarning() << "Null mWebSocket";
        return;
    }
    m_tcpReader.append(data);
    // Sending waits in a nested event loop, which may re-enter here or destroy the bridge.
    const QPointer<WebSocketTcpBridge> self(this);
    while (m_tcpReader.packetAvailable()) {
        AdbPacket packet = m_tcpReader.read();
        processTcpPacket(&packet);
        if (!self)
            return;
    }
    if (m_tcpReader.isCorrupted()) {
        qWarning() << "ADB TUNNEL Invalid message from ADB Server: announced length"
                   << m_tcpReader.corruptLength() << "exceeds" << PacketReader::MAX_PAYLOAD
                   << "bytes, dropping the connection";
        m_tcpReader.clear();
        if (TcpSocket* client = m_tcpServer.client())
            client->abort();
    }
}

void WebSocketTcpBridge::onWebsocketDataReceived(const QByteArray& message)
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    if (m_webSocketReader.isCorrupted())
        return;
    m_webSocketReader.append(message);
    const QPointer<WebSocketTcpBridge> self(this);
    while (m_webSocketReader.packetAvailable()) {
        AdbPacket packet = m_webSocketReader.read();
        processWebSocketPacket(&packet);
        if (!self)
            return;
    }
    if (m_webSocketReader.isCorrupted()) {
        // There is no resynchronising inside the stream: drop the connection and let the
        // tunnel reconnect.
        qWarning() << "ADB TUNNEL Invalid message from device: announced length"
                   << m_webSocketReader.corruptLength() << "exceeds" << PacketReader::MAX_PAYLOAD
                   << "bytes, closing the web socket";
        if (m_webSocket)
            m_webSocket->abort();
    }
}

AdbSession* WebSocketTcpBridge::retrieveSession(unsigned serverSideId, unsigned deviceSideId) const
{
    if (AdbSession* session = m_sessions.value({ serverSideId, quint32(AdbSession::Server) }))
        return session;
    if (AdbSession* session = m_sessions.value({ deviceSideId, quint32(AdbSession::Device) }))
        return session;
    qCDebug(tunnelCategory) << "ADB TUNNEL no session created by adb server or adb daemon found"
                            << deviceSideId;
    return nullptr;
}

void WebSocketTcpBridge::createSession(unsigned id, AdbSession::Origin origin)
{
    auto* session = new AdbSession(id, origin, nullptr);
    session->print(QStringLiteral("CREATION"));
    const AdbSession::Key key = session->getUniqueKey();
    if (AdbSession* previous = m_sessions.value(key)) {
        // The opener reused a live id, so it has given up the old stream. Dropping the old
        // session keeps a peer repeating OPEN from piling up objects.
        qWarning().noquote() << "ADB TUNNEL duplicate OPEN, replacing session" << keyText(key);
        previous->disconnect(this);
        previous->disconnect(&m_tcpServer);
        previous->deleteLater();
    }
    m_sessions.insert(key, session);
    connect(session, &AdbSession::sessionClosed, this, &WebSocketTcpBridge::deleteSessionIfPossible);
    connect(session, &AdbSession::messageReady, &m_tcpServer, &TcpServer::sendData);
}

void WebSocketTcpBridge::deleteSessionIfPossible(AdbSession* session)
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    session->print(QStringLiteral("DELETION"));
    if (!session->isClosed()) {
        qCDebug(tunnelCategory) << "ADB TUNNEL session is not closed => no deletion";
        return;
    }
    const AdbSession::Key key = session->getUniqueKey();
    if (m_sessions.value(key) == session)
        m_sessions.remove(key);
    qCDebug(tunnelCategory).noquote() << "ADB SESSIONS" << keysText(m_sessions.keys());
    // Deferred: we may be inside one of the session's own signals.
    session->disconnect(this);
    session->deleteLater();
}

QByteArray WebSocketTcpBridge::withoutDelayedAck(AdbPacket* connect, Sender sender)
{
    if (AdbTunnelVersion::isMegaFastEnabled() && ConnectBanner::removeFeature(connect, DELAYED_ACK))
        m_delayedAckRemovedFrom |= sender;
    // The device's CNXN ends the handshake: one line for both banners.
    if (sender == FromDevice && m_delayedAckRemovedFrom) {
        QStringList senders;
        if (m_delayedAckRemovedFrom & FromServer)
            senders.append(QStringLiteral("ADB server"));
        if (m_delayedAckRemovedFrom & FromDevice)
            senders.append(QStringLiteral("device"));
        qDebug().noquote() << "Retain mode: removed feature" << DELAYED_ACK.toByteArray()
                           << "from the CNXN of:" << senders.join(QLatin1String(", "));
        m_delayedAckRemovedFrom = 0;
    }
    return connect->toByteArray();
}

void WebSocketTcpBridge::sendBackOkayToAdbServer(const AdbPacket& message)
{
    // ADB protocol.txt: the receiver of WRTE answers OKAY(its local id, the sender's id).
    const AdbPacket okay(AdbPacket::OKAY, message.arg1(), message.arg0(), QByteArray());
    m_tcpServer.sendData(okay.toByteArray());
}

void WebSocketTcpBridge::processTcpPacket(AdbPacket* packet)
{
    const QByteArray bytes = packet->toByteArray();
    AdbTunnelLogger::printAdbMessage(bytes, FROM_ADB_SERVER);
    const quint32 command = packet->command();
    const quint32 arg0 = packet->arg0();
    const quint32 arg1 = packet->arg1();

    if (command == AdbPacket::CNXN) {
        qCDebug(tunnelCategory) << "ADB TUNNEL CNXN message -> forward to websocket";
        sendMessageToDevice(withoutDelayedAck(packet, FromServer));
        return;
    }
    if (command == AdbPacket::OPEN) {
        qCDebug(tunnelCategory) << "ADB TUNNEL OPEN message -> create session";
        createSession(arg0, AdbSession::Server);
        sendMessageToDevice(bytes);
        return;
    }

    AdbSession* session = retrieveSession(arg0, arg1);
    if (!session) {
        qWarning() << "ADB TUNNEL Incoming message from ADB Server. No session found, serverId" << arg0
                   << "daemonId" << arg1;
        sendMessageToDevice(bytes);
        return;
    }

    switch (command) {
    case AdbPacket::OKAY:
        qCDebug(tunnelCategory) << "ADB TUNNEL OKAY message received";
        if (session->isRetainModeEnabled()) {
            // This acknowledges a write we released; the device got its OKAY from us already.
            qCDebug(tunnelCategory) << "ADB TUNNEL retain mode enabled => onOkayReceived";
            session->onOkayReceived();
            return;
        }
        break;
    case AdbPacket::WRTE:
        if (AdbTunnelVersion::isMegaFastEnabled()) {
            qCDebug(tunnelCategory) << "ADB TUNNEL WRITE message => enable retain mode => send OKAY back";
            session->enableRetainMode();
            sendBackOkayToAdbServer(*packet);
        }
        break;
    case AdbPacket::CLSE:
        qCDebug(tunnelCategory).noquote()
            << "ADB TUNNEL CLOSE message => delete session" << keyText(session->getUniqueKey());
        session->closeFromServer();
        deleteSessionIfPossible(session);
        break;
    default:
        break;
    }
    sendMessageToDevice(bytes);
}

void WebSocketTcpBridge::processWebSocketPacket(AdbPacket* packet)
{
    const QByteArray bytes = packet->toByteArray();
    AdbTunnelLogger::printAdbMessage(bytes, FROM_DEVICE);
    const quint32 command = packet->command();
    const quint32 arg0 = packet->arg0();
    const quint32 arg1 = packet->arg1();

    if (command == AdbPacket::OPEN) {
        qCDebug(tunnelCategory) << "ADB TUNNEL OPEN message -> create session, daemonId" << arg0;
        createSession(arg0, AdbSession::Device);
        m_tcpServer.sendData(bytes);
        return;
    }
    if (command == AdbPacket::CNXN) {
        m_tcpServer.sendData(withoutDelayedAck(packet, FromDevice));
        return;
    }
    if (command != AdbPacket::WRTE && command != AdbPacket::CLSE) {
        m_tcpServer.sendData(bytes);
        return;
    }

    AdbSession* session = retrieveSession(arg1, arg0);
    if (!session) {
        qWarning() << "ADB TUNNEL Incoming message from device. No session found, serverId" << arg1
                   << "daemonId" << arg0;
        m_tcpServer.sendData(bytes);
        return;
    }

    if (!AdbTunnelVersion::isMegaFastEnabled()) {
        if (command == AdbPacket::CLSE)
            session->closeFromDevice();
        m_tcpServer.sendData(bytes);
        return;
    }

    // The instance already counts these writes as acknowledged, so dropping one would corrupt
    // the stream. The queue drains at the pace of the ADB server's OKAYs; a device that keeps
    // writing past the bound costs the whole connection instead, and the tunnel reconnects.
    qCDebug(tunnelCategory) << "ADB TUNNEL enable retain mode";
    session->enableRetainMode();
    if (command == AdbPacket::CLSE)
        session->closeFromDevice();
    // A queued CLSE reaches the ADB server after the writes queued before it.
    session->enqueue(bytes);
    if (session->queuedBytes() > MAX_QUEUED_BYTES_PER_STREAM
        || session->queuedMessages() > MAX_QUEUED_MESSAGES_PER_STREAM) {
        qWarning() << "ADB TUNNEL device overran the queue of stream" << session->getUniqueKey() << ":"
                   << session->queuedMessages() << "messages," << session->queuedBytes()
                   << "bytes awaiting the ADB server, closing the web socket";
        m_webSocketReader.clear();
        if (m_webSocket)
            m_webSocket->abort();
    }
}

void WebSocketTcpBridge::sendMessageToDevice(const QByteArray& bytes)
{
    AdbTunnelLogger::printAdbMessage(bytes, TO_DEVICE);
    if (!m_webSocket) {
        qWarning() << "Null mWebSocket";
        return;
    }
    const qint64 sent = m_webSocket->sendBinaryMessage(bytes);
    if (sent < 0)
        qWarning() << m_webSocket->error() << m_webSocket->errorString();
    else if (sent < bytes.size())
        qWarning() << "Write" << sent << "bytes instead of" << bytes.size() << "in web socket.";
    waitForWebSocketDataToBeSent();
}

bool WebSocketTcpBridge::isWebSocketStillFlushing()
{
    return m_webSocket && m_webSocket->state() == QAbstractSocket::ConnectedState && m_webSocket->flush();
}

void WebSocketTcpBridge::waitForWebSocketDataToBeSent()
{
    // Push each message onto the network before reading the next. With a real socket the first
    // flush writes the frame and the second finds nothing left, so both are tried at once and
    // the 1 ms polling loop only runs while the socket keeps making progress.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!isWebSocketStillFlushing())
            return;
    }
    QEventLoop loop;
    QTimer timer;
    timer.setInterval(1);
    // The loop may run the bridge's own deferred deletion.
    const QPointer<WebSocketTcpBridge> self(this);
    connect(&timer, &QTimer::timeout, &loop, [self, &loop] {
        if (!self || !self->isWebSocketStillFlushing())
            loop.quit();
    });
    timer.start();
    loop.exec();
}
