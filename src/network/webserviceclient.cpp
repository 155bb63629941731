#include "webserviceclient.h"

#include "sslerrorhandler.h"
#include "webservicejob.h"

#include <QDebug>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QPointer>
#include <QUrlQuery>

WebServiceClient::WebServiceClient(NetworkManager* networkManager, QObject* parent)
    : QObject(parent)
    , m_networkManager(networkManager)
{
    WebServiceResult::registerMetaType();
}

WebServiceClient::~WebServiceClient() = default;

WebServiceJob* WebServiceClient::get(const QString& path)
{
    return start([this, path]() { return m_networkManager->get(path, NetworkManager::FullUrl); });
}

WebServiceJob* WebServiceClient::get(const QString& path, const QUrlQuery& query)
{
    return start(
        [this, path, query]() { return m_networkManager->get(path, query, NetworkManager::FullUrl); });
}

WebServiceJob* WebServiceClient::post(const QString& path, const QByteArray& data)
{
    return start(
        [this, path, data]() { return m_networkManager->post(path, data, NetworkManager::FullUrl); });
}

WebServiceJob* WebServiceClient::post(const QString& path, const QJsonDocument& json)
{
    return start(
        [this, path, json]() { return m_networkManager->post(path, json, NetworkManager::FullUrl); });
}

WebServiceJob* WebServiceClient::put(const QString& path, QHttpMultiPart* multiPart)
{
    return start([this, path, multiPart]() {
        return m_networkManager->put(path, multiPart, NetworkManager::FullUrl);
    });
}

WebServiceJob* WebServiceClient::put(const QString& path, const QJsonDocument& json)
{
    return start([this, path, json]() { return m_networkManager->put(path, json, NetworkManager::FullUrl); });
}

WebServiceJob* WebServiceClient::deleteResource(const QString& path)
{
    return start([this, path]() { return m_networkManager->deleteResource(path, NetworkManager::FullUrl); });
}

NetworkManager* WebServiceClient::getNetworkManager() const
{
    return m_networkManager;
}

void WebServiceClient::setResult(WebServiceJob* job, const WebServiceResult& result)
{
    job->setResult(result);
}

void WebServiceClient::resetSession() { }

void WebServiceClient::onJobFinished(const WebServiceResult& result)
{
    Q_UNUSED(result)
}

WebServiceJob* WebServiceClient::start(std::function<QNetworkReply*()> request)
{
    auto* job = new WebServiceJob();
    call(std::move(request), job, MAX_RETRIES);
    connect(job, &WebServiceJob::finished, this, &WebServiceClient::onJobFinished);
    return job;
}

void WebServiceClient::call(std::function<QNetworkReply*()> request, WebServiceJob* job, int retriesLeft)
{
    QNetworkReply* reply = request();
    connect(reply, &QNetworkReply::downloadProgress, job, &WebServiceJob::downloadProgress);
    connect(reply, &QNetworkReply::uploadProgress, job, &WebServiceJob::uploadProgress);
    // A job whose wait timed out is deleted while a refresh may still hold on to it.
    const QPointer<WebServiceJob> guardedJob(job);
    connect(reply, &QNetworkReply::finished, this, [this, guardedJob, reply, request, retriesLeft]() {
        onCallFinished(guardedJob, reply, request, retriesLeft);
    });
    connect(job, &WebServiceJob::cancelRequested, reply, &QNetworkReply::abort);
}

void WebServiceClient::onCallFinished(WebServiceJob* job, QNetworkReply* reply,
                                      const std::function<QNetworkReply*()>& request, int retriesLeft)
{
    reply->deleteLater();

    QNetworkReply::NetworkError networkError = QNetworkReply::NoError;
    QString errorString;
    NetworkManager::getRealNetworkError(reply, &networkError, &errorString);

    if (networkError == QNetworkReply::OperationCanceledError) {
        // The job already holds the result its cancel gave it.
        qDebug() << "Network request canceled" << reply->url().host();
        return;
    }
    if (!job || job->isFinished())
        return;

    // A certificate decision is final: sending again would only meet the same certificate.
    const bool tlsDecided = reply->property(SslErrorHandler::CONFIRMING_SSLERRORS_PROPERTY).toBool()
        || reply->error() == QNetworkReply::SslHandshakeFailedError;
    if (!tlsDecided) {
        if (hasSessionExpired(reply)) {
            if (retriesLeft == 0) {
                WebServiceResult result = parseNetworkReply(
                    reply, QStringLiteral("Could not refresh session after %1 retries").arg(MAX_RETRIES));
                result.setError(WebServiceResult::SessionNotRefreshable);
                job->setResult(result);
            } else {
                refreshSession(request, job, retriesLeft - 1);
            }
            return;
        }
        if (hasTimeoutExpired(reply)) {
            if (retriesLeft > 0 && shouldRequestBeRetried(reply)) {
                qWarning().noquote() << QStringLiteral("Request failed, retrying (%1/%2) %3")
                                            .arg(MAX_RETRIES + 1 - retriesLeft)
                                            .arg(MAX_RETRIES)
                                            .arg(reply->url().toString());
                call(request, job, retriesLeft - 1);
                return;
            }
            WebServiceResult result = parseNetworkReply(reply, QStringLiteral("Request timeout"));
            result.setError(WebServiceResult::Timeout);
            job->setResult(result);
            return;
        }
    }
    job->setResult(parseNetworkReply(reply, QString()));
}

bool WebServiceClient::hasTimeoutExpired(const QNetworkReply* reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 0;
}

WebServiceResult WebServiceClient::parseNetworkReply(QNetworkReply* reply, const QString& extraReason)
{
    WebServiceResult result;
    result.setHttpStatusCode(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt());
    result.setFromCache(reply->attribute(QNetworkRequest::SourceIsFromCacheAttribute).toBool());
    result.setHttpHeaders(reply->rawHeaderPairs());
    result.setError(reply->error() != QNetworkReply::NoError ? WebServiceResult::NetworkError
                                                             : WebServiceResult::NoError);
    QNetworkReply::NetworkError networkError = QNetworkReply::NoError;
    QString errorString;
    NetworkManager::getRealNetworkError(reply, &networkError, &errorString);
    result.setNetworkError(networkError);
    result.setErrorString(errorString + QStringLiteral(". ") + extraReason);
    if (reply->isReadable())
        result.setContent(reply->readAll());
    return result;
}
