#include "platformapitokenwebserviceclient.h"

#include "abstractcredentialsprovider.h"

#include <QNetworkRequest>

const char* const PlatformApiTokenWebServiceClient::AUTHORIZATION_HEADER_NAME = "x-api-token";

PlatformApiTokenWebServiceClient::PlatformApiTokenWebServiceClient(const QUrl& baseUrl,
                                                                   AbstractCredentialsProvider* credentials,
                                                                   QNetworkAccessManager* manager,
                                                                   QObject* parent)
    : PlatformWebServiceClient(baseUrl, credentials, manager, parent)
{ }

PlatformApiTokenWebServiceClient::~PlatformApiTokenWebServiceClient() = default;

void PlatformApiTokenWebServiceClient::resetSession() { }

bool PlatformApiTokenWebServiceClient::hasSessionExpired(const QNetworkReply* reply) const
{
    Q_UNUSED(reply)
    return false;
}

void PlatformApiTokenWebServiceClient::refreshSession(std::function<QNetworkReply*()> request,
                                                      WebServiceJob* job, int retriesLeft)
{
    Q_UNUSED(request)
    Q_UNUSED(job)
    Q_UNUSED(retriesLeft)
}

void PlatformApiTokenWebServiceClient::modifyRequest(QNetworkRequest* request)
{
    // Read for every request: the user may replace the token while the daemon runs.
    request->setRawHeader(AUTHORIZATION_HEADER_NAME, m_credentialsProvider->getApiToken().toLocal8Bit());
}

void PlatformApiTokenWebServiceClient::onJobFinished(const WebServiceResult& result)
{
    Q_UNUSED(result)
}
