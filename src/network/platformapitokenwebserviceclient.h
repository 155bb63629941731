#pragma once

#include "platformwebserviceclient.h"

// Platform client that authenticates every request with the user's API token. No session: a
// refused request is an ordinary error.
class PlatformApiTokenWebServiceClient : public PlatformWebServiceClient
{
    Q_OBJECT
public:
    static const char* const AUTHORIZATION_HEADER_NAME;

    PlatformApiTokenWebServiceClient(const QUrl& baseUrl, AbstractCredentialsProvider* credentials,
                                     QNetworkAccessManager* manager, QObject* parent);
    ~PlatformApiTokenWebServiceClient() override;

    void resetSession() override;
    bool hasSessionExpired(const QNetworkReply* reply) const override;
    void refreshSession(std::function<QNetworkReply*()> request, WebServiceJob* job,
                        int retriesLeft) override;
    void modifyRequest(QNetworkRequest* request) override;

public Q_SLOTS:
    void onJobFinished(const WebServiceResult& result) override;
};
