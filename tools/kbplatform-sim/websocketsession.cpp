#include "websocketsession.h"

#include "deviceconnection.h"
#include "faultinjector.h"
#include "linkmodel.h"
#include "requestlog.h"
#include "websocketconnection.h"

#include "adbprotocol/AdbPacket.h"
#include "network/websocketframe.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTimer>

namespace {

QString jsonText(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

constexpr qint64 OVERSIZED_LENGTH = 512LL * 1024 * 1024;

// The bytes of a misbehaving cloud, produced chunk by chunk as the socket drains.
std::function<QByteArray()> rawStream(SessionHost::CloudFault::Mode mode)
{
    using Mode = SessionHost::CloudFault::Mode;
    const QByteArray filler(WebSocketConnection::RAW_CHUNK, 'k');
    switch (mode) {
    case Mode::OversizedFrame:
        return [filler, sent = qint64(-1)]() mutable {
            if (sent < 0) {
                sent = 0;
                return WebSocketFrame::encodeHeader(WebSocketFrame::Binary, OVERSIZED_LENGTH);
            }
            const qint64 size = qMin<qint64>(filler.size(), OVERSIZED_LENGTH - sent);
            sent += size;
            return filler.left(size);
        };
    case Mode::EndlessFragments:
        return [filler, first = true]() mutable {
            const auto opCode
                = std::exchange(first, false) ? WebSocketFrame::Binary : WebSocketFrame::Continuation;
            return WebSocketFrame::encode(opCode, filler, false);
        };
    case Mode::Garbage:
        return [first = true]() mutable {
            QByteArray bytes(WebSocketConnection::RAW_CHUNK, Qt::Uninitialized);
            QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(bytes.data()),
                                                  bytes.size() / qsizetype(sizeof(quint32)));
            // RSV bits and a reserved opcode: whatever follows, the first header is invalid.
            if (std::exchange(first, false))
                bytes[0] = char(0x73);
            return bytes;
        };
    default:
        return {};
    }
}

} // namespace

WebSocketSession::WebSocketSession(WebSocketConnection* socket, SessionHost* host, FaultInjector* faults,
                                   RequestLog* log, qint64 logIndex, QObject* parent)
    : QObject(parent)
    , m_socket(socket)
    , m_host(host)
    , m_faults(faults)
    , m_log(log)
    , m_logIndex(logIndex)
    , m_handshakeTimer(new QTimer(this))
{
    m_socket->setParent(this);
    connect(m_socket, &WebSocketConnection::textMessageReceived, this,
            &WebSocketSession::onTextMessageReceived);
    connect(m_socket, &WebSocketConnection::binaryMessageReceived, this,
            &WebSocketSession::onBinaryMessageReceived);
    connect(m_socket, &WebSocketConnection::disconnected, this, &WebSocketSession::onDisconnected);
    connect(m_socket, &WebSocketConnection::bytesWritten, this, &WebSocketSession::updateCongestion);
    m_handshakeTimer->setSingleShot(true);
    connect(m_handshakeTimer, &QTimer::timeout, this,
            [this] { closeSocket(1008, QStringLiteral("No authentication message received")); });
    m_handshakeTimer->start(int(HANDSHAKE_TIMEOUT_MS));
}

WebSocketSession::~WebSocketSession() = default;

void WebSocketSession::onTextMessageReceived(const QString& message)
{
    if (m_state != State::Handshake) {
        qWarning() << "instance" << m_host->uuid() << ": ignoring a text message after the handshake";
        return;
    }
    m_log->appendMessage(m_logIndex, message);
    authenticate(message);
}

void WebSocketSession::authenticate(const QString& message)
{
    m_handshakeTimer->stop();
    if (const auto refusal = m_faults->takeAuthRefusal(m_host->uuid())) {
        const QString reason
            = refusal->reason.isEmpty() ? QStringLiteral("Authentication refused") : refusal->reason;
        if (refusal->closeOnly)
            closeSocket(refusal->code, reason);
        else
            refuse(reason);
        return;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(message.toUtf8(), &parseError);
    if (!document.isObject()) {
        refuse(QStringLiteral("Authentication message is not a JSON object"));
        return;
    }
    const QJsonObject object = document.object();
    if (object.value(QStringLiteral("type")).toString() != QLatin1String("token")) {
        refuse(QStringLiteral("Unsupported authentication type"));
        return;
    }
    if (!m_host->isAccessTokenValid(object.value(QStringLiteral("token")).toString())) {
        refuse(QStringLiteral("Invalid access token"));
        return;
    }
    const QJsonValue version = object.value(QStringLiteral("adbTunnelVersion"));
    if (version.isUndefined()) {
        m_version = 1;
    } else if (version.isDouble() && (version.toDouble() == 1 || version.toDouble() == 2)) {
        m_version = version.toInt();
    } else {
        refuse(QStringLiteral("Unsupported adbTunnelVersion"));
        return;
    }

    m_state = State::Relaying;
    m_link = new LinkModel(this);
    setLink(m_host->rttMs(), m_host->bandwidthKbps());
    connect(m_link->uplink(), &LinkLane::delivered, this, &WebSocketSession::onUplinkDelivered);
    connect(m_link->downlink(), &LinkLane::delivered, this, &WebSocketSession::onDownlinkDelivered);
    connect(m_link->downlink(), &LinkLane::drained, this, &WebSocketSession::updateCongestion);
    connect(m_link->uplink(), &LinkLane::drained, this, &WebSocketSession::updateUplink);
    if (m_version == 2)
        m_mirror.emplace();
    m_device = m_host->createDevice(this);
    connect(m_device, &DeviceConnection::received, this, &WebSocketSession::onDeviceReceived);
    connect(m_device, &DeviceConnection::closed, this, &WebSocketSession::onDeviceClosed);
    connect(m_device, &DeviceConnection::backlogDrained, this, &WebSocketSession::updateUplink);
    qInfo().noquote() << QStringLiteral("instance %1: WebSocket authenticated, tunnel version %2")
                             .arg(m_host->uuid())
                             .arg(m_version);
    m_socket->sendTextMessage(jsonText({ { QStringLiteral("connection"), QStringLiteral("SUCCESS") } }));
    if (const auto pending = m_host->takePendingClose())
        scheduleClose(*pending);
    if (m_host->cloudFault().mode != SessionHost::CloudFault::Mode::None)
        applyCloudFault(m_host->cloudFault());
}

void WebSocketSession::refuse(const QString& message)
{
    qInfo().noquote()
        << QStringLiteral("instance %1: WebSocket authentication refused: %2").arg(m_host->uuid(), message);
    m_socket->sendTextMessage(jsonText({ { QStringLiteral("connection"), QStringLiteral("FAILED") },
                                         { QStringLiteral("error"), message } }));
    closeSocket(1008, message);
}

void WebSocketSession::onBinaryMessageReceived(const QByteArray& message)
{
    if (m_state == State::Handshake) {
        closeSocket(1002, QStringLiteral("ADB data before authentication"));
        return;
    }
    if (m_state != State::Relaying)
        return;
    m_link->uplink()->send(message);
    countBytes(message.size());
    updateUplink();
}

void WebSocketSession::onUplinkDelivered(const QByteArray& chunk)
{
    if (m_state != State::Relaying)
        return;
    if (!m_mirror) {
        m_device->write(chunk);
    } else {
        m_mirror->feedFromDaemon(chunk);
        flushMirror();
    }
    updateUplink();
}

void WebSocketSession::onDeviceReceived(const QByteArray& bytes)
{
    if (m_state != State::Relaying)
        return;
    if (m_mirror) {
        m_mirror->feedFromDevice(bytes);
        flushMirror();
        return;
    }
    m_deviceReader.append(bytes);
    if (m_deviceReader.isCorrupted()) {
        closeSocket(1011, QStringLiteral("The device sent an invalid ADB message"));
        return;
    }
    while (m_deviceReader.packetAvailable())
        m_link->downlink()->send(m_deviceReader.read().toByteArray());
    updateCongestion();
}

void WebSocketSession::flushMirror()
{
    // The device may answer from inside write(); the outermost call keeps draining.
    if (m_flushing)
        return;
    m_flushing = true;
    while (m_state == State::Relaying) {
        if (m_mirror->hasFailed()) {
            closeSocket(1002, m_mirror->errorString());
            break;
        }
        const QByteArrayList toDaemon = m_mirror->takeToDaemon();
        for (const QByteArray& message : toDaemon)
            m_link->downlink()->send(message);
        const QByteArrayList toDevice = m_mirror->takeToDevice();
        for (const QByteArray& message : toDevice) {
            if (m_state == State::Relaying)
                m_device->write(message);
        }
        if (toDaemon.isEmpty() && toDevice.isEmpty())
            break;
        updateCongestion();
    }
    m_flushing = false;
    updateUplink();
}

void WebSocketSession::onDownlinkDelivered(const QByteArray& chunk)
{
    if (m_state != State::Relaying)
        return;
    m_socket->sendBinaryMessage(chunk);
    countBytes(chunk.size());
    updateCongestion();
}

void WebSocketSession::updateCongestion()
{
    if (!m_mirror || m_state != State::Relaying)
        return;
    const qint64 backlog = m_link->downlink()->queuedBytes() + m_socket->bytesToWrite();
    if (!m_mirror->isCongested() && backlog > CONGESTED) {
        m_mirror->setCongested(true);
    } else if (m_mirror->isCongested() && backlog < CONGESTED / 4) {
        m_mirror->setCongested(false);
        flushMirror();
    }
}

qint64 WebSocketSession::uplinkBacklog() const
{
    return m_link->uplink()->queuedBytes() + (m_mirror ? m_mirror->queuedBytes() : 0)
        + (m_device ? m_device->backlog() : 0);
}

void WebSocketSession::updateUplink()
{
    if (m_state != State::Relaying)
        return;
    const qint64 backlog = uplinkBacklog();
    if (!m_uplinkPaused && backlog > UPLINK_HIGH)
        m_uplinkPaused = true;
    else if (m_uplinkPaused && backlog < UPLINK_LOW)
        m_uplinkPaused = false;
    else
        return;
    m_socket->setReadPaused(m_uplinkPaused || m_stalled);
}

void WebSocketSession::applyCloudFault(const SessionHost::CloudFault& fault)
{
    using Mode = SessionHost::CloudFault::Mode;
    if (m_state != State::Relaying)
        return;
    qInfo().noquote() << QStringLiteral("instance %1: cloud fault %2").arg(m_host->uuid(), fault.modeName());
    switch (fault.mode) {
    case Mode::None:
    case Mode::ReadThrottle:
    case Mode::Stall:
        m_stalled = fault.mode == Mode::Stall;
        m_socket->setReadRate(fault.mode == Mode::ReadThrottle ? fault.bytesPerSecond : 0);
        m_socket->setSendPaused(m_stalled);
        m_socket->setReadPaused(m_uplinkPaused || m_stalled);
        break;
    case Mode::OversizedFrame:
    case Mode::EndlessFragments:
    case Mode::Garbage:
        // Nothing relays any more: a frame without end stands in the way of every other one.
        m_state = State::Misbehaving;
        if (m_device)
            m_device->close();
        m_socket->setReadRate(0);
        m_socket->setReadPaused(false);
        m_socket->streamRaw(rawStream(fault.mode));
        break;
    }
}

void WebSocketSession::setLink(int rttMs, qint64 bandwidthKbps)
{
    if (!m_link)
        return;
    m_link->setRttMs(rttMs);
    m_link->setBandwidthKbps(bandwidthKbps);
}

void WebSocketSession::scheduleClose(const SessionHost::CloseRequest& request)
{
    if (m_state != State::Relaying)
        return;
    m_close = request;
    m_closeAtBytes = m_bytes + request.afterBytes;
    countBytes(0);
}

void WebSocketSession::countBytes(qint64 bytes)
{
    m_bytes += bytes;
    if (m_close && m_bytes >= m_closeAtBytes) {
        const SessionHost::CloseRequest request = *std::exchange(m_close, std::nullopt);
        qInfo().noquote() << QStringLiteral("instance %1: closing the WebSocket after %2 bytes (fault)")
                                 .arg(m_host->uuid())
                                 .arg(m_bytes);
        closeSocket(request.code, request.reason, request.abort);
    }
}

void WebSocketSession::closeSocket(int code, const QString& reason, bool abort)
{
    if (m_state == State::Closing)
        return;
    m_state = State::Closing;
    m_handshakeTimer->stop();
    if (m_device)
        m_device->close();
    if (abort)
        m_socket->abort();
    else
        m_socket->close(code, reason);
}

void WebSocketSession::onDeviceClosed(const QString& reason)
{
    if (m_state != State::Relaying)
        return;
    qInfo().noquote()
        << QStringLiteral("instance %1: device connection ended: %2").arg(m_host->uuid(), reason);
    closeSocket(1011, QStringLiteral("Device connection ended"));
}

void WebSocketSession::onDisconnected()
{
    if (m_state == State::Relaying)
        qInfo().noquote()
            << QStringLiteral("instance %1: WebSocket closed by the daemon").arg(m_host->uuid());
    m_state = State::Closing;
    m_handshakeTimer->stop();
    if (m_device)
        m_device->close();
    deleteLater();
}
