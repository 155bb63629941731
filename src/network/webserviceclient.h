#pragma once

#include "networkmanager.h"
#include "webserviceresult.h"

#include <QObject>

#include <functional>

class QHttpMultiPart;
class QJsonDocument;
class QNetworkReply;
class QUrlQuery;
class WebServiceJob;

// Turns REST requests into jobs and applies the re-send policy: a reply without any HTTP
// status is re-sent (at most 3 times) when the subclass allows it, and an expired session is
// refreshed by the subclass and the request re-sent, with the same budget.
class WebServiceClient : public QObject
{
    Q_OBJECT
public:
    static const int MAX_RETRIES = 3;

    WebServiceClient(NetworkManager* networkManager, QObject* parent);
    ~WebServiceClient() override;

    WebServiceJob* get(const QString& path);
    WebServiceJob* get(const QString& path, const QUrlQuery& query);
    WebServiceJob* post(const QString& path, const QByteArray& data);
    WebServiceJob* post(const QString& path, const QJsonDocument& json);
    WebServiceJob* put(const QString& path, QHttpMultiPart* multiPart);
    WebServiceJob* put(const QString& path, const QJsonDocument& json);
    WebServiceJob* deleteResource(const QString& path);

    NetworkManager* getNetworkManager() const;
    void setResult(WebServiceJob* job, const WebServiceResult& result);

    virtual void resetSession();
    // May a reply that got no HTTP answer be sent again?
    virtual bool shouldRequestBeRetried(const QNetworkReply* reply) const = 0;
    virtual bool hasSessionExpired(const QNetworkReply* reply) const = 0;
    // Refreshes the session, then re-sends request for job through call() with retriesLeft.
    virtual void refreshSession(std::function<QNetworkReply*()> request, WebServiceJob* job, int retriesLeft)
        = 0;

public Q_SLOTS:
    virtual void onJobFinished(const WebServiceResult& result);

protected:
    void call(std::function<QNetworkReply*()> request, WebServiceJob* job, int retriesLeft);

private:
    WebServiceJob* start(std::function<QNetworkReply*()> request);
    void onCallFinished(WebServiceJob* job, QNetworkReply* reply,
                        const std::function<QNetworkReply*()>& request, int retriesLeft);
    static bool hasTimeoutExpired(const QNetworkReply* reply);
    static WebServiceResult parseNetworkReply(QNetworkReply* reply, const QString& extraReason);

    NetworkManager* m_networkManager;
};
