#include "platformwebserviceclient.h"

#include "abstractcredentialsprovider.h"
#include "endpoints.h"
#include "webservicejob.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QNetworkReply>
#include <QPointer>
#include <QUrl>
#include <QVariantMap>

const char* const PlatformWebServiceClient::TOKEN_KEY = "token";
const char* const PlatformWebServiceClient::USER_KEY = "user";
const char* const PlatformWebServiceClient::EMAIL_KEY = "email";
const char* const PlatformWebServiceClient::USER_UUID_KEY = "uuid";
const char* const PlatformWebServiceClient::IS_ORGANIZATION_MANAGER_KEY = "is_organization_manager";
const char* const PlatformWebServiceClient::ORGANIZATION_KEY = "organization";
const char* const PlatformWebServiceClient::LOGIN_EMAIL_KEY = "email";
const char* const PlatformWebServiceClient::LOGIN_PASSWORD_KEY = "password";
const char* const PlatformWebServiceClient::AUTHORIZATION_HEADER_NAME = "Authorization";
const char* const PlatformWebServiceClient::AUTHORIZATION_HEADER_PREFIX = "Bearer ";

PlatformWebServiceClient::PlatformWebServiceClient(const QUrl& baseUrl,
                                                   AbstractCredentialsProvider* credentials,
                                                   QNetworkAccessManager* manager, QObject* parent)
    : WebServiceClient(new NetworkManager(manager, nullptr), parent)
    , m_credentialsProvider(credentials)
{
    NetworkManager* networkManager = getNetworkManager();
    networkManager->setParent(this);
    networkManager->setServerBaseUrl(baseUrl);
    networkManager->setNetworkRequestModifier(this);
}

PlatformWebServiceClient::~PlatformWebServiceClient() = default;

PlatformWebServiceClient::SaaSUser PlatformWebServiceClient::getSaaSUser() const
{
    return m_saasUser;
}

void PlatformWebServiceClient::resetSession()
{
    qDebug() << "Clear JWT.";
    m_saasUser = SaaSUser();
}

bool PlatformWebServiceClient::shouldRequestBeRetried(const QNetworkReply* reply) const
{
    return Endpoints::isRepeatable(reply->request().url().path());
}

bool PlatformWebServiceClient::hasSessionExpired(const QNetworkReply* reply) const
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != 401 || reply->error() != QNetworkReply::AuthenticationRequiredError)
        return false;
    qDebug() << "JWT session expired." << reply->errorString();
    return true;
}

void PlatformWebServiceClient::refreshSession(std::function<QNetworkReply*()> request, WebServiceJob* job,
                                              int retriesLeft)
{
    QVariantMap credentials;
    credentials.insert(QLatin1String(LOGIN_EMAIL_KEY), m_credentialsProvider->getEmail());
    credentials.insert(QLatin1String(LOGIN_PASSWORD_KEY), m_credentialsProvider->getPassword());
    const QJsonDocument body(QJsonObject::fromVariantMap(credentials));

    qDebug() << "Trying to login with user" << m_credentialsProvider->getEmail();
    // Straight through the network manager: the login has no re-send of its own, its failure
    // shows up as another 401 on the re-sent request.
    QNetworkReply* reply
        = getNetworkManager()->post(Endpoints::PLATFORM_LOGIN, body, NetworkManager::FullUrl);
    const QPointer<WebServiceJob> guardedJob(job);
    connect(reply, &QNetworkReply::finished, this, [this, reply, request, guardedJob, retriesLeft]() {
        onRefreshSessionFinished(reply, request, guardedJob, retriesLeft);
    });
}

void PlatformWebServiceClient::onRefreshSessionFinished(QNetworkReply* reply,
                                                        const std::function<QNetworkReply*()>& request,
                                                        WebServiceJob* job, int retriesLeft)
{
    reply->deleteLater();
    if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "Login failed:" << reply->errorString();
    } else {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(reply->readAll(), &parseError);
        if (parseError.error == QJsonParseError::NoError && !extractAuthFromReply(document)) {
            qWarning().noquote() << QStringLiteral(
                                        "Refresh session failed. Error message for refresh call : ")
                    + reply->errorString();
        }
    }
    // A job cancelled meanwhile has its result already, and may be gone.
    if (!job || job->isFinished())
        return;
    call(request, job, retriesLeft);
}

bool PlatformWebServiceClient::extractAuthFromReply(const QJsonDocument& document)
{
    const QJsonObject root = document.object();
    const QString token = root.value(QLatin1String(TOKEN_KEY)).toString();
    if (token.isEmpty())
        return false;

    m_saasUser.token = token;
    const QJsonObject user = root.value(QLatin1String(USER_KEY)).toObject();
    m_saasUser.email = user.value(QLatin1String(EMAIL_KEY)).toString();
    m_saasUser.uuid = user.value(QLatin1String(USER_UUID_KEY)).toString();
    m_saasUser.isOrganizationManager = user.value(QLatin1String(IS_ORGANIZATION_MANAGER_KEY)).toBool(false);
    if (user.value(QLatin1String(ORGANIZATION_KEY)).toObject().isEmpty())
        qWarning() << "Missing or empty 'organization' field in API response";
    return true;
}

void PlatformWebServiceClient::modifyRequest(QNetworkRequest* request)
{
    if (m_saasUser.token.isEmpty())
        return;
    request->setRawHeader(AUTHORIZATION_HEADER_NAME,
                          QByteArray(AUTHORIZATION_HEADER_PREFIX) + m_saasUser.token.toLocal8Bit());
}

void PlatformWebServiceClient::onJobFinished(const WebServiceResult& result)
{
    Q_UNUSED(result)
}
