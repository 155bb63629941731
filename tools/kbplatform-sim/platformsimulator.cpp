#include "platformsimulator.h"

#include "faultinjector.h"
#include "platformhttpserver.h"
#include "platformtcpserver.h"
#include "requestlog.h"
#include "siminstance.h"
#include "websocketconnection.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QUrl>
#include <QUuid>

namespace {

QString randomSecret()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

// A JSON string or number as it appears inside a document.
QByteArray jsonValue(const QJsonValue& value)
{
    QByteArray text = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    return text.mid(1, text.size() - 2);
}

} // namespace

PlatformSimulator::PlatformSimulator(const SimConfig& config, QObject* parent)
    : QObject(parent)
    , m_config(config)
    , m_faults(new FaultInjector(this))
    , m_log(new RequestLog(this))
    , m_server(new PlatformHttpServer(this))
{
    if (m_config.apiToken.isEmpty())
        m_config.apiToken = QStringLiteral("kbsim-api-") + randomSecret();
    if (m_config.password.isEmpty())
        m_config.password = randomSecret();
}

PlatformSimulator::~PlatformSimulator()
{
    // Devices (and the shells they run) go before their sandboxes are removed.
    qDeleteAll(m_instances);
}

bool PlatformSimulator::start(QString* error)
{
    if (!m_supportDir.isValid()) {
        *error = QStringLiteral("cannot create a temporary directory: %1").arg(m_supportDir.errorString());
        return false;
    }
    QString sandboxRoot = m_config.sandboxDir;
    if (sandboxRoot.isEmpty()) {
        m_tempSandbox
            = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/kbplatform-sim-XXXXXX"));
        if (!m_tempSandbox->isValid()) {
            *error
                = QStringLiteral("cannot create a temporary sandbox: %1").arg(m_tempSandbox->errorString());
            return false;
        }
        sandboxRoot = m_tempSandbox->path();
    }
    if (!QDir().mkpath(sandboxRoot)) {
        *error = QStringLiteral("cannot create the sandbox directory %1").arg(sandboxRoot);
        return false;
    }
    sandboxRoot = QDir(sandboxRoot).absolutePath();

    if (!m_config.tlsCert.isEmpty()) {
        QFile certFile(m_config.tlsCert);
        QFile keyFile(m_config.tlsKey);
        if (!certFile.open(QIODevice::ReadOnly) || !keyFile.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("cannot read the TLS certificate or key");
            return false;
        }
        const QSslCertificate certificate(&certFile, QSsl::Pem);
        const QByteArray keyBytes = keyFile.readAll();
        QSslKey key(keyBytes, QSsl::Rsa, QSsl::Pem);
        if (key.isNull())
            key = QSslKey(keyBytes, QSsl::Ec, QSsl::Pem);
        if (certificate.isNull() || key.isNull()) {
            *error = QStringLiteral("invalid TLS certificate or key (PEM expected)");
            return false;
        }
        QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
        ssl.setLocalCertificate(certificate);
        ssl.setPrivateKey(key);
        ssl.setPeerVerifyMode(QSslSocket::VerifyNone);
        m_listener = new PlatformTcpServer(this);
        m_listener->setSslConfiguration(ssl);
        m_tls = true;
    }
    if (!m_listener)
        m_listener = new PlatformTcpServer(this);
    connect(m_listener, &PlatformTcpServer::webSocketRequested, this,
            &PlatformSimulator::onWebSocketRequested);

    QHostAddress address;
    if (m_config.listenHost == QLatin1String("localhost"))
        address = QHostAddress(QHostAddress::LocalHost);
    else if (!address.setAddress(m_config.listenHost)) {
        *error = QStringLiteral("--listen expects an IP address or localhost, got \"%1\"")
                     .arg(m_config.listenHost);
        return false;
    }
    if (!m_listener->listen(address, m_config.listenPort)) {
        *error = QStringLiteral("cannot listen on %1:%2").arg(m_config.listenHost).arg(m_config.listenPort);
        return false;
    }
    m_port = m_listener->serverPort();
    m_server->bind(m_listener);

    for (int i = 0; i < m_config.instances; ++i) {
        SimInstance::Settings settings;
        settings.uuid = i < m_config.uuids.size() ? m_config.uuids.at(i)
                                                  : QUuid::createUuid().toString(QUuid::WithoutBraces);
        settings.sandboxDir = sandboxRoot + QLatin1Char('/') + settings.uuid;
        settings.supportDir = m_supportDir.path() + QLatin1Char('/') + settings.uuid;
        settings.deviceHost = m_config.deviceHost;
        settings.devicePort = m_config.devicePort;
        settings.rttMs = m_config.rttMs;
        settings.deviceDialect = m_config.deviceDialect;
        settings.bandwidthKbps = m_config.bandwidthKbps;
        auto* instance = new SimInstance(settings, m_faults, m_log, this);
        m_instances.append(instance);
        if (!instance->start(address, error)
            || !DeviceProfile::writeTools(settings.supportDir + QStringLiteral("/bin"), error))
            return false;
    }
    return true;
}

QString PlatformSimulator::advertisedHost() const
{
    // Listening on every address: clients reach it through loopback.
    if (m_config.listenHost == QLatin1String("0.0.0.0"))
        return QStringLiteral("127.0.0.1");
    if (m_config.listenHost == QLatin1String("::"))
        return QStringLiteral("::1");
    return m_config.listenHost;
}

QString PlatformSimulator::baseUrl() const
{
    QUrl url;
    url.setScheme(m_tls ? QStringLiteral("https") : QStringLiteral("http"));
    url.setHost(advertisedHost());
    url.setPort(m_port);
    return url.toString();
}

QString PlatformSimulator::adbUrl(const SimInstance* instance) const
{
    QUrl url;
    url.setScheme(m_tls ? QStringLiteral("wss") : QStringLiteral("ws"));
    url.setHost(advertisedHost());
    url.setPort(m_port);
    url.setPath(QStringLiteral("/v1/instances/%1/adb").arg(instance->uuid()));
    return url.toString();
}

QByteArray PlatformSimulator::readyLine() const
{
    // Written by hand to keep the documented key order.
    QByteArray line = "{\"base_url\":" + jsonValue(baseUrl())
        + ",\"api_token\":" + jsonValue(m_config.apiToken) + ",\"email\":" + jsonValue(m_config.email)
        + ",\"password\":" + jsonValue(m_config.password) + ",\"instances\":[";
    for (qsizetype i = 0; i < m_instances.size(); ++i) {
        const SimInstance* instance = m_instances.at(i);
        if (i > 0)
            line += ',';
        line += "{\"uuid\":" + jsonValue(instance->uuid()) + ",\"adb_url\":" + jsonValue(adbUrl(instance))
            + ",\"device_port\":" + QByteArray::number(instance->devicePort()) + '}';
    }
    return line + "]}";
}

SimInstance* PlatformSimulator::instance(const QString& uuid) const
{
    for (SimInstance* instance : m_instances) {
        if (instance->uuid() == uuid)
            return instance;
    }
    return nullptr;
}

QString PlatformSimulator::login(const QString& email, const QString& password)
{
    if (email != m_config.email || password != m_config.password)
        return QString();
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        if ((it->second.isValid() && it->second <= now) || m_sessions.size() >= MAX_SESSIONS)
            it = m_sessions.erase(it);
        else
            ++it;
    }
    const QString token = QStringLiteral("kbsim-jwt-") + randomSecret();
    m_sessions.emplace(token, m_config.sessionTtlMs > 0 ? now.addMSecs(m_config.sessionTtlMs) : QDateTime());
    return token;
}

PlatformSimulator::Authorization PlatformSimulator::authorize(const QByteArray& apiToken,
                                                              const QByteArray& authorizationHeader)
{
    if (!apiToken.isEmpty())
        return apiToken == m_config.apiToken.toUtf8() ? Authorization::Granted : Authorization::Invalid;
    if (authorizationHeader.isEmpty())
        return Authorization::Missing;
    if (!authorizationHeader.startsWith("Bearer "))
        return Authorization::Invalid;
    const auto it = m_sessions.find(QString::fromUtf8(authorizationHeader.mid(7)));
    if (it == m_sessions.end())
        return Authorization::Invalid;
    if (!it->second.isValid() || it->second > QDateTime::currentDateTimeUtc())
        return Authorization::Granted;
    return Authorization::Expired;
}

void PlatformSimulator::expireSessions()
{
    const QDateTime past = QDateTime::currentDateTimeUtc().addSecs(-1);
    for (auto& [token, expiry] : m_sessions)
        expiry = past;
}

void PlatformSimulator::onWebSocketRequested(QTcpSocket* socket, const HttpHead& head)
{
    const QUrl url(QString::fromLatin1(head.target));
    const QString path = url.path();
    const qint64 logIndex
        = m_log->record(QString::fromLatin1(head.method), path, url.query(), head.headers, {});
    const QByteArray key = head.value("sec-websocket-key");
    // RFC 6455 4.2.1: a GET with a 16-byte nonce, version 13; anything else is refused.
    if (head.method != "GET" || QByteArray::fromBase64(key).size() != 16
        || head.value("sec-websocket-version") != "13") {
        socket->write("HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n"
                      "Connection: close\r\n\r\n");
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        socket->disconnectFromHost();
        return;
    }
    const QByteArray accept
        = QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11", QCryptographicHash::Sha1)
              .toBase64();
    socket->write("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                  "Sec-WebSocket-Accept: "
                  + accept + "\r\n\r\n");
    auto* connection = new WebSocketConnection(socket, nullptr);

    const QStringList parts = path.split(QLatin1Char('/'));
    // "/v1/instances/<uuid>/adb"
    SimInstance* target = parts.size() == 5 && parts.at(1) == QLatin1String("v1")
            && parts.at(2) == QLatin1String("instances") && parts.at(4) == QLatin1String("adb")
        ? instance(parts.at(3))
        : nullptr;
    if (!target) {
        connection->setParent(this);
        connect(connection, &WebSocketConnection::disconnected, connection, &QObject::deleteLater);
        connection->close(1008, QStringLiteral("Unknown instance"));
        return;
    }
    target->acceptWebSocket(connection, logIndex);
}
