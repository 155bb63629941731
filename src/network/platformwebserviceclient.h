#pragma once

#include "networkmanager.h"
#include "webserviceclient.h"

#include <QString>

class AbstractCredentialsProvider;
class QJsonDocument;
class QNetworkAccessManager;
class QUrl;

// Platform client that authenticates with e-mail and password: it logs in when the platform
// first refuses a request (401), then sends the token it got as a bearer token.
class PlatformWebServiceClient : public WebServiceClient, public NetworkRequestModifier
{
    Q_OBJECT
public:
    struct SaaSUser
    {
        QString token;
        QString email;
        QString uuid;
        bool isOrganizationManager = false;
    };

    static const char* const TOKEN_KEY;
    static const char* const USER_KEY;
    static const char* const EMAIL_KEY;
    static const char* const USER_UUID_KEY;
    static const char* const IS_ORGANIZATION_MANAGER_KEY;
    static const char* const ORGANIZATION_KEY;
    static const char* const LOGIN_EMAIL_KEY;
    static const char* const LOGIN_PASSWORD_KEY;
    static const char* const AUTHORIZATION_HEADER_NAME;
    static const char* const AUTHORIZATION_HEADER_PREFIX;

    PlatformWebServiceClient(const QUrl& baseUrl, AbstractCredentialsProvider* credentials,
                             QNetworkAccessManager* manager, QObject* parent);
    ~PlatformWebServiceClient() override;

    SaaSUser getSaaSUser() const;

    void resetSession() override;
    bool shouldRequestBeRetried(const QNetworkReply* reply) const override;
    bool hasSessionExpired(const QNetworkReply* reply) const override;
    void refreshSession(std::function<QNetworkReply*()> request, WebServiceJob* job,
                        int retriesLeft) override;
    void modifyRequest(QNetworkRequest* request) override;

public Q_SLOTS:
    void onJobFinished(const WebServiceResult& result) override;

protected:
    AbstractCredentialsProvider* m_credentialsProvider;

private:
    void onRefreshSessionFinished(QNetworkReply* reply, const std::function<QNetworkReply*()>& request,
                                  WebServiceJob* job, int retriesLeft);
    bool extractAuthFromReply(const QJsonDocument& document);

    SaaSUser m_saasUser;
};
