#pragma once

#include <QMutex>
#include <QNetworkProxy>
#include <QString>

#include <memory>

class AbstractWebSocket;
class NetworkManager;
class QNetworkAccessManager;
class QObject;
class SslErrorHandler;
class WebServiceClient;

// The process-wide source of network access: one QNetworkAccessManager per thread and the
// WebSockets, all with the proxy and the TLS error handling already wired. Created once, in the
// main thread, and shared by every tunnel thread.
class NetworkProvider
{
public:
    NetworkProvider();
    ~NetworkProvider();
    NetworkProvider(const NetworkProvider&) = delete;
    NetworkProvider& operator=(const NetworkProvider&) = delete;

    // Applies to the calling thread's manager and to everything created afterwards.
    void setProxy(const QNetworkProxy& proxy);
    QNetworkProxy getProxy() const;

    // The calling thread's manager, created on first use; it lives until the thread ends.
    QNetworkAccessManager* getNetworkAccessManager();
    QNetworkAccessManager* createNetworkAccessManager(QObject* parent);
    // Belongs to the calling thread; the caller owns it through parent.
    AbstractWebSocket* createWebSocket(QObject* parent);
    SslErrorHandler* getSslErrorHandler() const;

    void setClients(WebServiceClient* hub, WebServiceClient* onsite, WebServiceClient* platform);
    WebServiceClient* getHubWebServiceClient() const;
    WebServiceClient* getOnsiteWebServiceClient() const;
    WebServiceClient* getPlatformWebServiceClient() const;
    NetworkManager* hub() const;
    NetworkManager* onsite() const;
    void setOnsiteBaseUrl(const QString& url);

private:
    mutable QMutex m_proxyMutex;
    QNetworkProxy m_proxy;
    WebServiceClient* m_hubWebServiceClient = nullptr;
    WebServiceClient* m_onsiteWebServiceClient = nullptr;
    WebServiceClient* m_platformWebServiceClient = nullptr;
    std::unique_ptr<SslErrorHandler> m_sslErrorHandler;
};
