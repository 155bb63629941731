#include "networkprovider.h"

#include "abstractwebsocket.h"
#include "networkmanager.h"
#include "sslerrorhandler.h"
#include "webserviceclient.h"
#include "websocket.h"

#include <QMutexLocker>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QSslConfiguration>
#include <QThread>
#include <QThreadStorage>

// A QNetworkAccessManager must only be used from its own thread, so each thread gets one.
static QThreadStorage<QNetworkAccessManager*> sNamStorage;

NetworkProvider::NetworkProvider()
    : m_sslErrorHandler(std::make_unique<SslErrorHandler>())
{
    qRegisterMetaType<QNetworkReply*>();
    qRegisterMetaType<QList<QSslError>>();
}

NetworkProvider::~NetworkProvider()
{
    // The storage would otherwise free this thread's manager only after the application object
    // is gone, when closing its TLS connections can no longer reach Qt's TLS backend.
    if (sNamStorage.hasLocalData())
        sNamStorage.setLocalData(nullptr);
}

void NetworkProvider::setProxy(const QNetworkProxy& proxy)
{
    {
        const QMutexLocker locker(&m_proxyMutex);
        m_proxy = proxy;
    }
    getNetworkAccessManager()->setProxy(proxy);
}

QNetworkProxy NetworkProvider::getProxy() const
{
    const QMutexLocker locker(&m_proxyMutex);
    return m_proxy;
}

QNetworkAccessManager* NetworkProvider::getNetworkAccessManager()
{
    if (sNamStorage.hasLocalData() && sNamStorage.localData())
        return sNamStorage.localData();

    QSslConfiguration sslConfiguration = QSslConfiguration::defaultConfiguration();
    sslConfiguration.setProtocol(QSsl::AnyProtocol);
    QSslConfiguration::setDefaultConfiguration(sslConfiguration);

    QNetworkAccessManager* manager = createNetworkAccessManager(nullptr);
    sNamStorage.setLocalData(manager);

    // The handler lives in the main thread. A reply of another thread has finished its
    // handshake before a queued call could run, and may be deleted by then: such a call gets
    // only what it needs, never the reply.
    SslErrorHandler* handler = m_sslErrorHandler.get();
    QObject::connect(
        manager, &QNetworkAccessManager::sslErrors, handler,
        [handler](QNetworkReply* reply, const QList<QSslError>& errors) {
            if (handler->thread() == QThread::currentThread()) {
                handler->onNetworkReplySslErrors(reply, errors);
                return;
            }
            // The handshake only waits for a decision taken here, in the reply's thread. The
            // trust test is safe from any thread, so a trusted host passes as it would in the
            // main thread; anything else is refused and reported there.
            const QString host = reply->url().host();
            if (handler->isIgnoringErrors(host)) {
                qDebug().noquote() << getSslErrorReport(errors);
                reply->ignoreSslErrors(errors);
                return;
            }
            QMetaObject::invokeMethod(
                handler, [handler, host, errors]() { handler->onLateNetworkReplySslErrors(host, errors); },
                Qt::QueuedConnection);
        },
        Qt::DirectConnection);
    return manager;
}

QNetworkAccessManager* NetworkProvider::createNetworkAccessManager(QObject* parent)
{
    auto* manager = new QNetworkAccessManager(parent);
    manager->setProxy(getProxy());
    return manager;
}

AbstractWebSocket* NetworkProvider::createWebSocket(QObject* parent)
{
    auto* socket = new WebSocket(QString(), QWebSocketProtocol::Version13, parent);
    socket->setProxy(getProxy());
    // Direct: the handshake waits for the decision, which is taken in the socket's thread.
    SslErrorHandler* handler = m_sslErrorHandler.get();
    QObject::connect(
        socket, &AbstractWebSocket::sslErrors, handler,
        [handler, socket](const QList<QSslError>& errors) { handler->onWebSocketSslErrors(socket, errors); },
        Qt::DirectConnection);
    return socket;
}

SslErrorHandler* NetworkProvider::getSslErrorHandler() const
{
    return m_sslErrorHandler.get();
}

void NetworkProvider::setClients(WebServiceClient* hub, WebServiceClient* onsite, WebServiceClient* platform)
{
    m_hubWebServiceClient = hub;
    m_onsiteWebServiceClient = onsite;
    m_platformWebServiceClient = platform;
}

WebServiceClient* NetworkProvider::getHubWebServiceClient() const
{
    return m_hubWebServiceClient;
}

WebServiceClient* NetworkProvider::getOnsiteWebServiceClient() const
{
    return m_onsiteWebServiceClient;
}

WebServiceClient* NetworkProvider::getPlatformWebServiceClient() const
{
    return m_platformWebServiceClient;
}

NetworkManager* NetworkProvider::hub() const
{
    return m_hubWebServiceClient ? m_hubWebServiceClient->getNetworkManager() : nullptr;
}

NetworkManager* NetworkProvider::onsite() const
{
    return m_onsiteWebServiceClient ? m_onsiteWebServiceClient->getNetworkManager() : nullptr;
}

void NetworkProvider::setOnsiteBaseUrl(const QString& url)
{
    if (NetworkManager* manager = onsite())
        manager->setServerBaseUrl(url);
}
