#include "web_socket_tcp_bridge.h"

#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/AdbTunnelLogger.h"
#include "adbprotocol/ConnectBanner.h"
#include "adbtunnelversion.h"
#include "network/abstractwebsocket.h"
#include "tcp_socket.h"
#include "utils/loghandler.h"

#include <QDebug>
#include <QMetaEnum>

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
    // Connected after the server's own admission slot, so the admitted client is known here.
    connect(&m_tcpServer, &QTcpServer::newConnection, this, &WebSocketTcpBridge::onTcpClientAdmitted);
    connect(&m_tcpServer, &TcpServer::socketDisconnected, this, &WebSocketTcpBridge::onTcpClientGone);
    connect(&m_tcpServer, &TcpServer::socketDisconnected, this, &WebSocketTcpBridge::tcpSocketDisconnected);
    if (webSocket) {
        connect(webSocket, &AbstractWebSocket::binaryFrameReceived, this,
                &WebSocketTcpBridge::onWebsocketDataReceived);
        connect(webSocket, &AbstractWebSocket::disconnected, this,
                &WebSocketTcpBridge::onWebSocketDisconnected);
        connect(webSocket, &AbstractWebSocket::bytesWritten, this, &WebSocketTcpBridge::updateTcpReading);
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
    m_webSocketReadingPaused = false;
    m_tcpReadingPaused = false;
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

void WebSocketTcpBridge::onTcpClientAdmitted()
{
    TcpSocket* client = m_tcpServer.client();
    if (!client || client == m_client)
        return; // a refused second connection
    resetSessions();
    m_client = client;
    connect(client, &QIODevice::bytesWritten, this, &WebSocketTcpBridge::updateWebSocketReading);
    client->setReadingPaused(m_tcpReadingPaused);
    updateWebSocketReading();
}

void WebSocketTcpBridge::onTcpClientGone()
{
    // A partial message of the old connection must not prefix the next client's stream.
    m_tcpReader.clear();
    m_delayedAckRemovedFrom = 0;
    resetSessions();
}

void WebSocketTcpBridge::resetSessions()
{
    if (m_sessions.isEmpty())
        return;
    qCDebug(tunnelCategory) << "ADB TUNNEL connection of the ADB server ended, dropping" << m_sessions.size()
                            << "sessions";
    for (AdbSession* session : std::as_const(m_sessions)) {
        session->disconnect(this);
        session->disconnect(&m_tcpServer);
        session->discardQueue();
        session->deleteLater();
    }
    m_sessions.clear();
    m_queuedForAdbServer = 0;
    updateWebSocketReading();
}

qint64 WebSocketTcpBridge::heldForAdbServer() const
{
    qint64 held = m_queuedForAdbServer;
    if (m_client && m_client->state() == QAbstractSocket::ConnectedState)
        held += m_client->bytesToWrite();
    return held;
}

void WebSocketTcpBridge::enqueueForAdbServer(AdbSession* session, const QByteArray& message)
{
    // The queue may release at once (to the socket) and run empty, deleting the session later.
    const qsizetype before = session->queuedBytes();
    session->enqueue(message);
    m_queuedForAdbServer += session->queuedBytes() - before;
}

void WebSocketTcpBridge::okayFromAdbServer(AdbSession* session)
{
    const qsizetype before = session->queuedBytes();
    session->onOkayReceived();
    m_queuedForAdbServer += session->queuedBytes() - before;
}

void WebSocketTcpBridge::updateWebSocketReading()
{
    if (!m_webSocket)
        return;
    const qint64 held = heldForAdbServer();
    if (!m_webSocketReadingPaused && held > HIGH_WATERMARK) {
        qCDebug(tunnelCategory) << "ADB TUNNEL" << held
                                << "bytes wait for the ADB server, pausing the device";
        m_webSocketReadingPaused = true;
        m_webSocket->setReadingPaused(true);
    } else if (m_webSocketReadingPaused && held < LOW_WATERMARK) {
        qCDebug(tunnelCategory) << "ADB TUNNEL" << held
                                << "bytes wait for the ADB server, resuming the device";
        m_webSocketReadingPaused = false;
        m_webSocket->setReadingPaused(false);
    }
}

void WebSocketTcpBridge::updateTcpReading()
{
    if (!m_webSocket)
        return;
    const qint64 pending = m_webSocket->bytesToWrite();
    if (!m_tcpReadingPaused && pending > HIGH_WATERMARK) {
        qCDebug(tunnelCategory) << "ADB TUNNEL" << pending
                                << "bytes wait for the device, pausing the ADB server";
        m_tcpReadingPaused = true;
    } else if (m_tcpReadingPaused && pending < LOW_WATERMARK) {
        qCDebug(tunnelCategory) << "ADB TUNNEL" << pending
                                << "bytes wait for the device, resuming the ADB server";
        m_tcpReadingPaused = false;
    } else {
        return;
    }
    if (m_client)
        m_client->setReadingPaused(m_tcpReadingPaused);
}

void WebSocketTcpBridge::onTcpDataReceived(const QByteArray& data)
{
    LogHandler::LogPrefixer prefixer(m_logPrefix);
    if (!m_webSocket) {
        qWarning() << "Null mWebSocket";
        return;
    }
    m_tcpReader.append(data);
    // A message may end the connection (a corrupt stream) and with it, through the tunnel, the bridge.
    const QPointer<WebSocketTcpBridge> self(this);
    while (m_tcpReader.packetAvailable()) {
        AdbPacket packet = m_tcpReader.read();
        processTcpPacket(&packet);
        if (!self)
            return;
    }
    // Its OKAYs may have released held-back writes.
    updateWebSocketReading();
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
    updateWebSocketReading();
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
        m_queuedForAdbServer -= previous->queuedBytes();
        previous->discardQueue();
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
    if (m_sessions.value(key) != session)
        return; // replaced by a later OPEN, or dropped with its connection
    m_sessions.remove(key);
    qCDebug(tunnelCategory).noquote() << "ADB SESSIONS" << keysText(m_sessions.keys());
    m_queuedForAdbServer -= session->queuedBytes();
    session->discardQueue();
    // Deferred: we may be inside one of the session's own signals.
    session->disconnect(this);
    session->disconnect(&m_tcpServer);
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
        // The ADB server starts its transport over: none of the streams it knew survives.
        resetSessions();
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
            okayFromAdbServer(session);
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
        // The ADB server discards writes for a stream it closed: holding them is waste.
        m_queuedForAdbServer -= session->queuedBytes();
        session->discardQueue();
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
        m_tcpServer.sendData(bytes);
        if (command == AdbPacket::CLSE) {
            session->closeFromDevice();
            deleteSessionIfPossible(session);
        }
        return;
    }

    if (session->isClosedFromServer()) {
        // Nothing more is released on a stream the ADB server closed; its CLSE answer goes on.
        if (command == AdbPacket::WRTE) {
            qCDebug(tunnelCategory) << "ADB TUNNEL stream closed by the ADB server, write not held";
            return;
        }
        session->closeFromDevice();
        m_tcpServer.sendData(bytes);
        deleteSessionIfPossible(session);
        return;
    }

    // The instance already counts these writes as acknowledged, so none may be dropped; they
    // drain at the pace of the ADB server's OKAYs, and the watermark stops reading the device
    // while too much waits.
    qCDebug(tunnelCategory) << "ADB TUNNEL enable retain mode";
    session->enableRetainMode();
    if (command == AdbPacket::CLSE)
        session->closeFromDevice();
    // A queued CLSE reaches the ADB server after the writes queued before it.
    enqueueForAdbServer(session, bytes);
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
    // No waiting for the frame to leave: the watermark bounds what the socket buffers, and
    // the event loop writes it out, several messages at a time.
    updateTcpReading();
}
