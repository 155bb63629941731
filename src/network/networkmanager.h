#pragma once

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QString>

class QAbstractNetworkCache;
class QHttpMultiPart;
class QJsonDocument;
class QNetworkAccessManager;
class QNetworkProxy;
class QUrl;
class QUrlQuery;

// Lets a client stamp its own headers (authorisation) on every request a NetworkManager builds.
class NetworkRequestModifier
{
public:
    virtual ~NetworkRequestModifier();
    virtual void modifyRequest(QNetworkRequest* request) = 0;
};

// Builds and sends single HTTP requests relative to a base URL, with the user agent, the
// request time-out and the cache policy. It never retries; the caller owns every reply.
class NetworkManager : public QObject
{
    Q_OBJECT
public:
    // How a request URL is written to the debug log.
    enum LogPolicy {
        FullUrl = 0,
        NoAuthorityNoQuery = 1,
        SchemeOnly = 2,
    };
    Q_ENUM(LogPolicy)

    static const char* const SERVER_BASE_URL;
    static const char* const TIMEOUT_PROPERTY;
    static const char* const ENV_USER_AGENT;
    static const char* const DEFAULT_USER_AGENT_BASE;
    static const int DEFAULT_TIMEOUT_MS = 60000;

    explicit NetworkManager(QObject* parent);
    NetworkManager(QNetworkAccessManager* manager, QObject* parent);
    ~NetworkManager() override;

    void setServerBaseUrl(const QUrl& url);
    void setServerBaseUrl(const QString& url);
    QString getServerBaseUrl() const;
    void setTimeout(int ms);
    int getTimeout() const;
    void setProxy(const QNetworkProxy& proxy);
    void setCacheLoadControl(QNetworkRequest::CacheLoadControl cacheLoadControl);
    void setCacheEnabled(bool enabled);
    bool isCacheEnabled() const;
    void setNetworkRequestModifier(NetworkRequestModifier* modifier);
    QNetworkAccessManager* qNetworkAccessManager() const;

    virtual QNetworkReply* get(const QString& path, LogPolicy policy);
    virtual QNetworkReply* get(const QString& path, const QUrlQuery& query, LogPolicy policy);
    virtual QNetworkReply* get(const QUrl& url, LogPolicy policy);
    virtual QNetworkReply* post(const QString& path, const QByteArray& data, LogPolicy policy);
    virtual QNetworkReply* post(const QString& path, const QJsonDocument& json, LogPolicy policy);
    virtual QNetworkReply* deleteResource(const QString& path, LogPolicy policy);
    virtual QNetworkReply* put(const QString& path, QHttpMultiPart* multiPart, LogPolicy policy);
    virtual QNetworkReply* put(const QString& path, const QJsonDocument& json, LogPolicy policy);

    static QString getUserAgent();
    static void setExtraUserAgentBase(const QString& extraUserAgentBase);
    // Tells an abort by the request time-out (TimeoutError) apart from a cancel.
    static void getRealNetworkError(QNetworkReply* reply, QNetworkReply::NetworkError* error,
                                    QString* errorString);
    static void debugReply(const QNetworkReply* reply, const QByteArray& data);
    static void debugReply(const QNetworkReply* reply, QNetworkReply::NetworkError error);
    static QString formatUrl(const QUrl& url, LogPolicy policy);

protected:
    QUrl buildRequestUrl(const QString& path, const QUrlQuery& query) const;
    QNetworkRequest buildRequest(const QUrl& url) const;
    QNetworkRequest buildRawRequest(const QUrl& url) const;
    QNetworkRequest buildJsonRequest(const QUrl& url) const;
    void handleTimeout(QNetworkReply* reply);

private:
    void ensureCache();

    QNetworkAccessManager* m_networkAccessManager = nullptr;
    // The access manager deletes a cache it is told to drop, hence the guard.
    QPointer<QAbstractNetworkCache> m_cache;
    QString m_serverBaseUrl;
    int m_timeout = DEFAULT_TIMEOUT_MS;
    bool m_cacheEnabled = false;
    QNetworkRequest::CacheLoadControl m_cacheLoadControl = QNetworkRequest::PreferCache;
    NetworkRequestModifier* m_networkRequestModifier = nullptr;
};
