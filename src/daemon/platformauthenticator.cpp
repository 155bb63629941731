#include "platformauthenticator.h"

#include "adbtunnelversion.h"
#include "network/abstractwebsocket.h"
#include "network/endpoints.h"
#include "network/webserviceclient.h"
#include "network/webservicejob.h"
#include "network/webserviceresult.h"
#include "utils/loghandler.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

namespace {
const QLatin1String INSTANCE_ACCESS_TOKEN_INSTANCE_KEY("instance_uuid");
const QLatin1String INSTANCE_ACCESS_TOKEN_TOKEN_KEY("access_token");
const QLatin1String WEBSOCKET_URL_KEY("adb_url");
const QLatin1String WEBSOCKET_TYPE_KEY("type");
const QLatin1String WEBSOCKET_TYPE_TOKEN("token");
const QLatin1String ADB_TUNNEL_VERSION_KEY("adbTunnelVersion");
const QLatin1String WEBSOCKET_CONNECTION_KEY("connection");
const QLatin1String WEBSOCKET_SUCCESS("SUCCESS");
} // namespace

#define INSTANCE_LOG_PREFIX LogHandler::LogPrefixer prefixer(QStringLiteral("[UUID:%1]").arg(m_instanceId))

PlatformAuthenticator::PlatformAuthenticator(AbstractWebSocket* webSocket, const QString& instanceId,
                                             WebServiceClient* webServiceClient, QObject* parent)
    : QObject(parent)
    , m_webSocket(webSocket)
    , m_instanceId(instanceId)
    , m_webServiceClient(webServiceClient)
{
    qRegisterMetaType<PlatformAuthenticator::Error>();
}

PlatformAuthenticator::~PlatformAuthenticator() = default;

QString PlatformAuthenticator::errorCodeToString(PlatformAuthenticator::Error error)
{
    switch (error) {
    case RequestFailed:
        return QStringLiteral("Platform request failed");
    case InvalidResponse:
        return QStringLiteral("Invalid platform response");
    case WebSocketError:
        return QStringLiteral("WebSocket error");
    case AuthenticationFailed:
        return QStringLiteral("Platform authentication failed");
    case GenericError:
        break;
    }
    return QStringLiteral("Generic error");
}

void PlatformAuthenticator::connectWebSocket()
{
    // The tunnel connected its own handlers first; this order decides who reports a drop.
    connect(m_webSocket, &AbstractWebSocket::errorOccured, this, &PlatformAuthenticator::onWebSocketError);
    connect(m_webSocket, &AbstractWebSocket::connected, this, &PlatformAuthenticator::authenticate);
    connect(m_webSocket, &AbstractWebSocket::disconnected, this,
            &PlatformAuthenticator::onWebSocketDisconnected);
    connect(m_webSocket, &AbstractWebSocket::textMessageReceived, this,
            &PlatformAuthenticator::onTextMessageReceived);
    retrieveInstanceAccessToken();
}

void PlatformAuthenticator::retrieveInstanceAccessToken()
{
    const QJsonObject body { { INSTANCE_ACCESS_TOKEN_INSTANCE_KEY, m_instanceId } };
    WebServiceJob* job
        = m_webServiceClient->post(Endpoints::PLATFORM_INSTANCE_ACCESS_TOKEN, QJsonDocument(body));
    connect(job, &WebServiceJob::finished, this, &PlatformAuthenticator::onInstanceAccessTokenReceived);
}

void PlatformAuthenticator::onInstanceAccessTokenReceived(const WebServiceResult& result)
{
    m_accessToken = extractInstanceAccessTokenFromReply(result);
    if (!m_accessToken.isEmpty())
        retrieveInstanceDetails();
}

QString PlatformAuthenticator::extractInstanceAccessTokenFromReply(const WebServiceResult& result)
{
    INSTANCE_LOG_PREFIX;
    if (result.getError() != 0) {
        qWarning().noquote() << "Failed to retrieve instance access token:" << result.getErrorString();
        Q_EMIT error(RequestFailed, result.getErrorString());
        return {};
    }
    const QJsonObject content = result.getContentAsJson().object();
    if (content.isEmpty()) {
        const QString message = QStringLiteral("Empty instance access token reply");
        qWarning().noquote() << message;
        Q_EMIT error(InvalidResponse, message);
        return {};
    }
    const QJsonValue token = content.value(INSTANCE_ACCESS_TOKEN_TOKEN_KEY);
    // A token that is not a string (or an empty one) can never authenticate.
    if (token.isUndefined() || token.isNull() || token.toString().isEmpty()) {
        const QString message = QStringLiteral("No access_token in instance access token reply");
        qWarning().noquote() << message;
        Q_EMIT error(InvalidResponse, message);
        return {};
    }
    return token.toString();
}

void PlatformAuthenticator::retrieveInstanceDetails()
{
    WebServiceJob* job = m_webServiceClient->get(QString(Endpoints::CLOUD_DEVICE_GET).arg(m_instanceId));
    connect(job, &WebServiceJob::finished, this, &PlatformAuthenticator::onInstanceDetailsReceived);
}

void PlatformAuthenticator::onInstanceDetailsReceived(const WebServiceResult& result)
{
    const QString uri = getAdbTunnelUriFromInstanceDetails(result);
    if (!uri.isEmpty())
        m_webSocket->open(QUrl(uri));
}

QString PlatformAuthenticator::getAdbTunnelUriFromInstanceDetails(const WebServiceResult& result)
{
    INSTANCE_LOG_PREFIX;
    if (result.getError() != 0) {
        qWarning().noquote() << "Failed to retrieve instance details:" << result.getErrorString();
        Q_EMIT error(RequestFailed, result.getErrorString());
        return {};
    }
    const QJsonObject content = result.getContentAsJson().object();
    if (content.isEmpty()) {
        const QString message = QStringLiteral("Empty instance details");
        qWarning().noquote() << message;
        Q_EMIT error(InvalidResponse, message);
        return {};
    }
    const QJsonValue url = content.value(WEBSOCKET_URL_KEY);
    if (url.isUndefined() || url.isNull() || url.toString().isEmpty()) {
        const QString message = QStringLiteral("No websocket url in instance details");
        qWarning().noquote() << message;
        Q_EMIT error(InvalidResponse, message);
        return {};
    }
    qDebug().noquote() << "WebSocket URI:" << url.toString();
    return url.toString();
}

void PlatformAuthenticator::authenticate()
{
    const QJsonObject message {
        { WEBSOCKET_TYPE_KEY, WEBSOCKET_TYPE_TOKEN },
        { WEBSOCKET_TYPE_TOKEN, m_accessToken },
        { ADB_TUNNEL_VERSION_KEY, AdbTunnelVersion::getVersion() },
    };
    m_webSocket->sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Indented)));
}

void PlatformAuthenticator::onTextMessageReceived(const QString& message)
{
    INSTANCE_LOG_PREFIX;
    const QJsonObject object = QJsonDocument::fromJson(message.toUtf8()).object();
    if (object.isEmpty())
        qWarning() << "Received message is not a valid JSON object";
    if (object.value(WEBSOCKET_CONNECTION_KEY).toString() == WEBSOCKET_SUCCESS) {
        releaseWebSocket();
        Q_EMIT authenticated();
        return;
    }
    authenticationError(AuthenticationFailed,
                        QStringLiteral("No successful authentication response received"));
}

void PlatformAuthenticator::authenticationError(PlatformAuthenticator::Error errorCode,
                                                const QString& message)
{
    releaseWebSocket();
    Q_EMIT error(errorCode, message);
}

void PlatformAuthenticator::onWebSocketError(QAbstractSocket::SocketError socketError)
{
    releaseWebSocket();
    Q_EMIT error(WebSocketError, QStringLiteral("Websocket error occured: %1").arg(int(socketError)));
}

void PlatformAuthenticator::onWebSocketDisconnected()
{
    INSTANCE_LOG_PREFIX;
    qDebug().noquote() << "WebSocket disconnected:"
                       << QString::number(int(m_webSocket->closeCode())) + QStringLiteral(", ")
            + m_webSocket->closeReason();
    if (m_webSocket->closeCode() == QWebSocketProtocol::CloseCodeProtocolError)
        authenticationError(GenericError, m_webSocket->closeReason());
    else
        authenticationError(AuthenticationFailed, m_webSocket->closeReason());
}

void PlatformAuthenticator::releaseWebSocket()
{
    disconnect(m_webSocket, nullptr, this, nullptr);
}
