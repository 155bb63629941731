#include "networkmanager.h"

#include "platform.h"
#include "safenetworkdiskcache.h"
#include "utils/envvars.h"

#include <QCoreApplication>
#include <QDebug>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>

const char* const NetworkManager::SERVER_BASE_URL = "https://api.kestrelbox.com";
const char* const NetworkManager::TIMEOUT_PROPERTY = "timeout";
const char* const NetworkManager::ENV_USER_AGENT = "KB_USER_AGENT";
const char* const NetworkManager::DEFAULT_USER_AGENT_BASE = "Tarnwright Kestrelbox";

static const char* const CONTENT_TYPE_RAW = "application/x-www-form-urlencoded";
static const char* const CONTENT_TYPE_JSON = "application/json";

// Set once at start-up, before any request is sent.
static QString sExtraUserAgentBase;

NetworkRequestModifier::~NetworkRequestModifier() = default;

NetworkManager::NetworkManager(QObject* parent)
    : QObject(parent)
    , m_networkAccessManager(new QNetworkAccessManager(this))
    , m_cache(new SafeNetworkDiskCache(this))
    , m_serverBaseUrl(QLatin1String(SERVER_BASE_URL))
{ }

NetworkManager::NetworkManager(QNetworkAccessManager* manager, QObject* parent)
    : QObject(parent)
    , m_networkAccessManager(manager)
    , m_serverBaseUrl(QLatin1String(SERVER_BASE_URL))
{
    if (manager->cache()) {
        m_cache = manager->cache();
        setCacheEnabled(true);
    } else {
        m_cache = new SafeNetworkDiskCache(this);
    }
}

NetworkManager::~NetworkManager() = default;

void NetworkManager::setServerBaseUrl(const QUrl& url)
{
    m_serverBaseUrl = url.toString();
}

void NetworkManager::setServerBaseUrl(const QString& url)
{
    m_serverBaseUrl = url;
}

QString NetworkManager::getServerBaseUrl() const
{
    return m_serverBaseUrl;
}

void NetworkManager::setTimeout(int ms)
{
    m_timeout = ms;
}

int NetworkManager::getTimeout() const
{
    return m_timeout;
}

void NetworkManager::setProxy(const QNetworkProxy& proxy)
{
    m_networkAccessManager->setProxy(proxy);
}

void NetworkManager::setCacheLoadControl(QNetworkRequest::CacheLoadControl cacheLoadControl)
{
    m_cacheLoadControl = cacheLoadControl;
}

void NetworkManager::setCacheEnabled(bool enabled)
{
    m_cacheEnabled = enabled;
    if (enabled) {
        ensureCache();
        m_networkAccessManager->setCache(m_cache);
    } else if (m_networkAccessManager->cache() == m_cache) {
        // Deletes the cache; ensureCache() makes a new one if it is enabled again.
        m_networkAccessManager->setCache(nullptr);
    }
}

bool NetworkManager::isCacheEnabled() const
{
    return m_cacheEnabled;
}

void NetworkManager::setNetworkRequestModifier(NetworkRequestModifier* modifier)
{
    m_networkRequestModifier = modifier;
}

QNetworkAccessManager* NetworkManager::qNetworkAccessManager() const
{
    return m_networkAccessManager;
}

QNetworkReply* NetworkManager::get(const QString& path, LogPolicy policy)
{
    return get(path, QUrlQuery(), policy);
}

QNetworkReply* NetworkManager::get(const QString& path, const QUrlQuery& query, LogPolicy policy)
{
    return get(buildRequestUrl(path, query), policy);
}

QNetworkReply* NetworkManager::get(const QUrl& url, LogPolicy policy)
{
    QNetworkRequest request = buildRawRequest(url);
    qDebug().noquote() << "GET" << formatUrl(url, policy);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    if (m_cacheEnabled)
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, m_cacheLoadControl);
    QNetworkReply* reply = m_networkAccessManager->get(request);
    handleTimeout(reply);
    return reply;
}

QNetworkReply* NetworkManager::post(const QString& path, const QByteArray& data, LogPolicy policy)
{
    const QUrl url = buildRequestUrl(path, QUrlQuery());
    const QNetworkRequest request = buildRawRequest(url);
    qDebug().noquote() << "POST" << formatUrl(url, policy);
    QNetworkReply* reply = m_networkAccessManager->post(request, data);
    handleTimeout(reply);
    return reply;
}

QNetworkReply* NetworkManager::post(const QString& path, const QJsonDocument& json, LogPolicy policy)
{
    const QUrl url = buildRequestUrl(path, QUrlQuery());
    const QNetworkRequest request = buildJsonRequest(url);
    qDebug().noquote() << "POST" << formatUrl(url, policy);
    QNetworkReply* reply = m_networkAccessManager->post(request, json.toJson(QJsonDocument::Indented));
    handleTimeout(reply);
    return reply;
}

QNetworkReply* NetworkManager::deleteResource(const QString& path, LogPolicy policy)
{
    const QUrl url = buildRequestUrl(path, QUrlQuery());
    const QNetworkRequest request = buildRawRequest(url);
    qDebug().noquote() << "DELETE " << formatUrl(url, policy);
    QNetworkReply* reply = m_networkAccessManager->deleteResource(request);
    handleTimeout(reply);
    return reply;
}

QNetworkReply* NetworkManager::put(const QString& path, QHttpMultiPart* multiPart, LogPolicy policy)
{
    const QUrl url = buildRequestUrl(path, QUrlQuery());
    const QNetworkRequest request = buildRequest(url);
    qDebug().noquote() << "PUT" << formatUrl(url, policy);
    QNetworkReply* reply = m_networkAccessManager->put(request, multiPart);
    handleTimeout(reply);
    return reply;
}

QNetworkReply* NetworkManager::put(const QString& path, const QJsonDocument& json, LogPolicy policy)
{
    const QUrl url = buildRequestUrl(path, QUrlQuery());
    const QNetworkRequest request = buildJsonRequest(url);
    qDebug().noquote() << "PUT" << formatUrl(url, policy);
    QNetworkReply* reply = m_networkAccessManager->put(request, json.toJson(QJsonDocument::Indented));
    handleTimeout(reply);
    return reply;
}

QString NetworkManager::getUserAgent()
{
    const QString fromEnv = EnvVars::getString(ENV_USER_AGENT);
    if (!fromEnv.isEmpty())
        return fromEnv;
    const QString base
        = (QLatin1String(DEFAULT_USER_AGENT_BASE) + QLatin1Char(' ') + sExtraUserAgentBase).trimmed();
    return QStringLiteral("%1 %2 - %3")
        .arg(base, QCoreApplication::applicationVersion(), Platform::getPlatform());
}

void NetworkManager::setExtraUserAgentBase(const QString& extraUserAgentBase)
{
    sExtraUserAgentBase = extraUserAgentBase;
}

void NetworkManager::getRealNetworkError(QNetworkReply* reply, QNetworkReply::NetworkError* error,
                                         QString* errorString)
{
    if (!reply || !error || !errorString) {
        qWarning() << "Bad call, null parameter(s).";
        return;
    }
    if (reply->property(TIMEOUT_PROPERTY).toBool()) {
        *error = QNetworkReply::TimeoutError;
        *errorString = QStringLiteral("Timeout detected");
        return;
    }
    *error = reply->error();
    *errorString = reply->errorString();
}

void NetworkManager::debugReply(const QNetworkReply* reply, const QByteArray& data)
{
    qDebug().noquote() << QStringLiteral("reply: %1 %2 %3\ndata: %4")
                              .arg(reply->url().toString(),
                                   reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toString(),
                                   reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString(),
                                   QString::fromUtf8(data));
}

void NetworkManager::debugReply(const QNetworkReply* reply, QNetworkReply::NetworkError error)
{
    const QMetaEnum metaEnum = QMetaEnum::fromType<QNetworkReply::NetworkError>();
    qDebug().noquote() << QStringLiteral("reply: %1 %2 %3 %4")
                              .arg(reply->url().toString(),
                                   reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toString(),
                                   reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString(),
                                   QLatin1String(metaEnum.valueToKey(error)));
}

QString NetworkManager::formatUrl(const QUrl& url, LogPolicy policy)
{
    switch (policy) {
    case FullUrl:
        break;
    case NoAuthorityNoQuery:
        return url.toString(QUrl::RemoveAuthority | QUrl::RemoveQuery);
    case SchemeOnly:
        return url.toString(QUrl::RemoveAuthority | QUrl::RemovePath | QUrl::RemoveQuery);
    }
    return url.toString();
}

QUrl NetworkManager::buildRequestUrl(const QString& path, const QUrlQuery& query) const
{
    // Deliberately a plain concatenation: callers' paths start with "/".
    QUrl url(QStringLiteral("%1%2").arg(m_serverBaseUrl, path));
    if (!query.isEmpty())
        url.setQuery(query);
    return url;
}

QNetworkRequest NetworkManager::buildRequest(const QUrl& url) const
{
    QNetworkRequest request(url);
    if (m_networkRequestModifier)
        m_networkRequestModifier->modifyRequest(&request);
    request.setHeader(QNetworkRequest::UserAgentHeader, getUserAgent());
    return request;
}

QNetworkRequest NetworkManager::buildRawRequest(const QUrl& url) const
{
    QNetworkRequest request = buildRequest(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QLatin1String(CONTENT_TYPE_RAW));
    return request;
}

QNetworkRequest NetworkManager::buildJsonRequest(const QUrl& url) const
{
    QNetworkRequest request = buildRequest(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QLatin1String(CONTENT_TYPE_JSON));
    return request;
}

void NetworkManager::handleTimeout(QNetworkReply* reply)
{
    // Owned by the reply, so it cannot fire for a reply that is gone.
    auto* timer = new QTimer(reply);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, reply, [reply]() {
        if (reply->isFinished())
            return;
        qWarning() << "Timeout has occured on HTTP request.";
        reply->setProperty(TIMEOUT_PROPERTY, true);
        reply->abort();
    });
    timer->start(m_timeout);
}

void NetworkManager::ensureCache()
{
    if (!m_cache)
        m_cache = new SafeNetworkDiskCache(this);
}
