#include "adbtunnel.h"

#include "androidtools/adbclient.h"
#include "network/abstractcredentialsprovider.h"
#include "network/abstractwebsocket.h"
#include "network/networkprovider.h"
#include "network/platformapitokenwebserviceclient.h"
#include "network/platformwebserviceclient.h"
#include "utils/envvars.h"
#include "utils/loghandler.h"

#include <QDebug>
#include <QMetaObject>
#include <QThread>

namespace {
const char* const DEFAULT_PLATFORM_BASE_URL = "https://api.kestrelbox.cloud";
const QLatin1String ADB_TUNNEL_HOST("localhost");
} // namespace

#define INSTANCE_LOG_PREFIX LogHandler::LogPrefixer prefixer(QStringLiteral("[UUID:%1]").arg(m_info->id))

QUrl getPlatformBaseUrl()
{
    return QUrl(EnvVars::getString("KB_PLATFORM_BASE_URL", QString::fromLatin1(DEFAULT_PLATFORM_BASE_URL)));
}

void AdbTunnel::AdbClientDeleter::operator()(AdbClient* client) const
{
    client->deleteLater();
}

AdbTunnel::AdbTunnel(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
                     AdbTunnelInfo* info, QObject* parent, AdbTunnelParts parts)
    : AbstractAdbTunnel(parent)
    , m_info(info)
    , m_networkProvider(networkProvider)
    , m_credentialsProvider(credentialsProvider)
    , m_adbThread(new QThread(this))
    , m_parts(std::move(parts))
{
    m_adbThread->setObjectName(QStringLiteral("adb-%1").arg(info->id));
    const QString prefix = QStringLiteral("[UUID:%1]").arg(info->id);
    connect(m_adbThread, &QThread::started, m_adbThread, [prefix] { LogHandler::setPrefix(prefix); },
            Qt::DirectConnection);
}

AdbTunnel::~AdbTunnel()
{
    INSTANCE_LOG_PREFIX;
    qDebug() << "Disconnecting...";
    if (m_adbClient) {
        if (m_adbThread->isRunning()) {
            // Detach the serial before this thread goes: the local ADB server would otherwise
            // keep an offline device around.
            QMetaObject::invokeMethod(m_adbClient.get(), &AdbClient::disconnectFromAdb,
                                      Qt::BlockingQueuedConnection);
        }
    }
    m_adbThread->quit();
    m_adbThread->wait();
    // The thread is gone, so deleteLater would never be delivered: delete directly.
    delete m_adbClient.release();
}

QString AdbTunnel::getDeviceId() const
{
    return m_info->id;
}

QString AdbTunnel::getDeviceSerial() const
{
    return m_info->serial;
}

void AdbTunnel::doWork()
{
    INSTANCE_LOG_PREFIX;
    qDebug() << "Worker thread";

    m_webSocket
        = m_parts.makeWebSocket ? m_parts.makeWebSocket(this) : m_networkProvider->createWebSocket(this);
    connect(m_webSocket, &AbstractWebSocket::disconnected, this, &AdbTunnel::onWebSocketDisconnected);
    connect(m_webSocket, &AbstractWebSocket::errorOccured, this, &AdbTunnel::onWebSocketError);

    m_authenticator = m_parts.makeAuthenticator ? m_parts.makeAuthenticator(m_webSocket, m_info->id, this)
                                                : makeAuthenticator();
    connect(m_authenticator, &PlatformAuthenticator::authenticated, this,
            &AdbTunnel::onAuthenticationSuccess);
    connect(m_authenticator, &PlatformAuthenticator::error, this, &AdbTunnel::onAuthenticationError);

    m_bridge = new WebSocketTcpBridge(m_webSocket, m_info->id, this);
    connect(m_bridge, &WebSocketTcpBridge::stateChanged, this, &AdbTunnel::onBridgeStateChanged);
    connect(m_bridge, &WebSocketTcpBridge::tcpSocketDisconnected, this, &AdbTunnel::connectToAdbTunnel);

    m_authenticator->connectWebSocket();
}

PlatformAuthenticator* AdbTunnel::makeAuthenticator()
{
    WebServiceClient* client = nullptr;
    if (m_credentialsProvider->hasApiToken()) {
        qDebug() << "Using authentication through API Token";
        client = new PlatformApiTokenWebServiceClient(getPlatformBaseUrl(), m_credentialsProvider,
                                                      m_networkProvider->getNetworkAccessManager(), this);
    } else {
        qDebug() << "Using authentication through credentials";
        client = new PlatformWebServiceClient(getPlatformBaseUrl(), m_credentialsProvider,
                                              m_networkProvider->getNetworkAccessManager(), this);
    }
    // Owned by the tunnel so that every attempt's authenticator goes with its attempt.
    return new PlatformAuthenticator(m_webSocket, m_info->id, client, this);
}

void AdbTunnel::onAuthenticationSuccess()
{
    m_bridge->start(m_info->port);
}

void AdbTunnel::onAuthenticationError(PlatformAuthenticator::Error authError, const QString& message)
{
    INSTANCE_LOG_PREFIX;
    qWarning().noquote() << QStringLiteral("Authentication error: %1 (%2)")
                                .arg(PlatformAuthenticator::errorCodeToString(authError), message);
    QString reason
        = QStringLiteral("%1: %2").arg(PlatformAuthenticator::errorCodeToString(authError), message);
    // The platform only answers "unauthorized": say what is actually missing.
    if (m_credentialsProvider && !m_credentialsProvider->hasApiToken()
        && !m_credentialsProvider->hasCredentials()) {
        reason = QStringLiteral("No credentials: auth.json has neither \"api_token\" nor \"email\" and "
                                "\"password\", and KESTRELBOX_API_TOKEN is not set (%1)")
                     .arg(reason);
    }
    fail(authError == PlatformAuthenticator::WebSocketError ? DisconnectionError : AuthenticationError,
         reason);
}

void AdbTunnel::onWebSocketDisconnected()
{
    disconnect(m_webSocket, &AbstractWebSocket::disconnected, this, &AdbTunnel::onWebSocketDisconnected);
    fail(DisconnectionError, QStringLiteral("The instance's WebSocket closed"));
}

void AdbTunnel::onWebSocketError()
{
    INSTANCE_LOG_PREFIX;
    qWarning() << "WebSocket error:" << m_webSocket->errorString() << m_webSocket->error();
}

void AdbTunnel::onBridgeStateChanged(WebSocketTcpBridge::State state)
{
    if (state == WebSocketTcpBridge::IDLE) {
        if (m_bridge->getLastError() == WebSocketTcpBridge::TcpServerError)
            fail(BridgeBusyPortError, QStringLiteral("port %1 is busy").arg(m_info->port));
        return;
    }
    if (state == WebSocketTcpBridge::RUNNING) {
        const quint16 port = m_bridge->getTcpPort();
        {
            QMutexLocker locker(&AdbTunnelInfo::mutex());
            m_info->serial = QStringLiteral("%1:%2").arg(ADB_TUNNEL_HOST).arg(port);
            m_info->port = port;
        }
        connectToAdbTunnel();
    }
}

void AdbTunnel::connectToAdbTunnel()
{
    INSTANCE_LOG_PREFIX;
    const quint16 port = m_bridge->getTcpPort();
    const QString serial = QStringLiteral("%1:%2").arg(ADB_TUNNEL_HOST).arg(port);
    qDebug().noquote() << "Connect local ADB to" << serial;
    if (port == 0) {
        fail(BridgeBusyPortError, QStringLiteral("no local port to listen on"));
        return;
    }

    m_adbClient.reset(m_parts.makeAdbClient ? m_parts.makeAdbClient(serial) : new AdbClient(serial));
    if (!m_adbThread->isRunning())
        m_adbThread->start();
    connect(m_adbClient.get(), &AdbClient::connectSuccess, this, &AdbTunnel::onAdbconnectSuccess);
    connect(m_adbClient.get(), &AdbClient::connectError, this, &AdbTunnel::onAdbconnectError);
    m_adbClient->moveToThread(m_adbThread);
    if (!QMetaObject::invokeMethod(m_adbClient.get(), &AdbClient::connectToAdb, Qt::QueuedConnection)) {
        qWarning() << "AdbTunnel::connectToAdbTunnel : Unable to invoke ADB connection function";
        onAdbconnectError(QStringLiteral("adb connect could not be started"));
    }
}

void AdbTunnel::onAdbconnectSuccess()
{
    Q_EMIT success();
}

void AdbTunnel::onAdbconnectError(const QString& reason)
{
    fail(AdbError, reason);
}

void AdbTunnel::fail(Error failure, const QString& reason)
{
    {
        QMutexLocker locker(&AdbTunnelInfo::mutex());
        m_info->lastError = reason;
    }
    Q_EMIT error(failure);
}
