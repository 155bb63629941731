#include "sslerrorhandler.h"

#include "abstractwebsocket.h"

#include <QDebug>
#include <QEventLoop>
#include <QMutexLocker>
#include <QNetworkReply>
#include <QSslCertificate>
#include <QUrl>

#include <utility>

const char* const SslErrorHandler::KB_TRUSTED_HOSTS_ENV = "KB_TRUSTED_HOSTS";
const char* const SslErrorHandler::CONFIRMING_SSLERRORS_PROPERTY = "confirmingsslerrors";
const char* const SslErrorHandler::ANALYTICS_SERVICE_DOMAIN = "analytics.kestrelbox.com";

QStringList getTrustedHostsInEnv()
{
    const QString value = QString::fromUtf8(qgetenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV));
    return value.split(QLatin1Char(','), Qt::SkipEmptyParts);
}

QString getSslErrorReport(const QList<QSslError>& errors)
{
    QStringList lines { QStringLiteral("SSL Error(s):") };
    QSslCertificate certificate;
    for (const QSslError& error : errors) {
        lines.append(error.errorString());
        if (certificate.isNull() && !error.certificate().isNull())
            certificate = error.certificate();
    }
    if (!certificate.isNull()) {
        lines.append(QStringLiteral("Related certificate:"));
        lines.append(certificate.toText());
        lines.append(QString::fromLatin1(certificate.toPem()));
    }
    return lines.join(QLatin1Char('\n'));
}

SslErrorUserHandler::SslErrorUserHandler(QObject* parent)
    : QObject(parent)
{ }

SslErrorUserHandler::~SslErrorUserHandler() = default;

void SslErrorUserHandler::init(const QString& host, const QString& report)
{
    m_host = host;
    m_report = report;
}

QString SslErrorUserHandler::getHost() const
{
    return m_host;
}

QString SslErrorUserHandler::getReport() const
{
    return m_report;
}

bool SslErrorUserHandler::isTrusted() const
{
    return m_trusted;
}

bool SslErrorUserHandler::isAborted() const
{
    return m_aborted;
}

void SslErrorUserHandler::waitForFinished()
{
    // The confirmation function may have answered before we got here.
    if (m_done)
        return;
    QEventLoop loop;
    connect(this, &SslErrorUserHandler::finished, &loop, &QEventLoop::quit);
    connect(this, &SslErrorUserHandler::aborted, &loop, &QEventLoop::quit);
    loop.exec();
}

void SslErrorUserHandler::trust()
{
    qDebug() << "SSL Error: user chose to trust" << m_host << ", ignoring error";
    QStringList hosts = getTrustedHostsInEnv();
    hosts.append(m_host);
    qputenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV, hosts.join(QLatin1Char(',')).toUtf8());
    m_trusted = true;
    m_done = true;
    Q_EMIT finished();
}

void SslErrorUserHandler::untrust()
{
    qDebug() << "SSL Error: user does not trust" << m_host;
    m_done = true;
    Q_EMIT finished();
}

void SslErrorUserHandler::abort()
{
    qDebug() << "SSL Error: reply aborted";
    m_aborted = true;
    m_done = true;
    Q_EMIT aborted();
}

SslErrorHandler::SslErrorHandler(QObject* parent)
    : QObject(parent)
{ }

SslErrorHandler::~SslErrorHandler() = default;

void SslErrorHandler::setUserConfirmationFunction(QObject* receiver,
                                                  std::function<void(SslErrorUserHandler*)> function)
{
    m_userConfirmationReceiver = receiver;
    m_userConfirmationFunction = std::move(function);
}

void SslErrorHandler::setTrustedHosts(const QList<QString>& hosts)
{
    const QMutexLocker locker(&m_trustedHostsMutex);
    m_trustedHosts = hosts;
}

bool SslErrorHandler::isIgnoringErrors(const QString& host) const
{
    QList<QString> candidates;
    {
        const QMutexLocker locker(&m_trustedHostsMutex);
        candidates = m_trustedHosts;
    }
    candidates.append(getTrustedHostsInEnv());

    const QUrl hostUrl(host, QUrl::TolerantMode);
    for (const QString& candidate : std::as_const(candidates)) {
        if (QUrl(candidate, QUrl::TolerantMode) == hostUrl) {
            qDebug() << "SSL Error:" << host << "is trusted, ignoring error";
            return true;
        }
    }
    return false;
}

void SslErrorHandler::onNetworkReplySslErrors(QNetworkReply* reply, const QList<QSslError>& errors)
{
    const QString report = getSslErrorReport(errors);
    qDebug().noquote() << report;
    const QString host = reply->url().host();
    if (isIgnoringErrors(host)) {
        reply->ignoreSslErrors(errors);
        return;
    }
    requestUserConfirmation(reply, host, report);
}

void SslErrorHandler::onLateNetworkReplySslErrors(const QString& host, const QList<QSslError>& errors)
{
    qDebug().noquote() << getSslErrorReport(errors);
    if (isIgnoringErrors(host)) {
        // The reply lives in another thread and its handshake did not wait for us.
        qWarning() << "SSL Error: decision for" << host << "came after the handshake had failed";
        return;
    }
    qDebug() << "SSL Error: reject connection";
}

void SslErrorHandler::requestUserConfirmation(QNetworkReply* reply, const QString& host,
                                              const QString& report)
{
    if (!m_userConfirmationFunction || !m_userConfirmationReceiver) {
        qDebug() << "SSL Error: reject connection";
        return;
    }
    if (host.contains(QLatin1String(ANALYTICS_SERVICE_DOMAIN), Qt::CaseInsensitive)) {
        qDebug() << "SSL Error: auto reject connection";
        return;
    }

    const QPointer<QNetworkReply> guardedReply(reply);
    reply->setProperty(CONFIRMING_SSLERRORS_PROPERTY, true);
    auto* userHandler = new SslErrorUserHandler(this);
    userHandler->init(host, report);
    m_userConfirmationFunction(userHandler);
    if (guardedReply)
        connect(reply, &QNetworkReply::finished, userHandler, &SslErrorUserHandler::abort);
    else
        userHandler->abort();
    userHandler->waitForFinished();
    userHandler->deleteLater();

    if (userHandler->isTrusted() && !userHandler->isAborted()) {
        if (!guardedReply) {
            qWarning() << "SSL Error: null network reply";
        } else if (guardedReply->error() != QNetworkReply::NoError) {
            qWarning() << "SSL Error: network reply already finished";
        } else {
            guardedReply->ignoreSslErrors();
        }
        return;
    }
    qDebug() << "SSL Error: reject connection";
}

void SslErrorHandler::onWebSocketSslErrors(AbstractWebSocket* socket, const QList<QSslError>& errors)
{
    qDebug().noquote() << "SSL error report:" << getSslErrorReport(errors);
    const QString host = socket->requestUrl().host();
    if (isIgnoringErrors(host))
        socket->ignoreSslErrors();
    else
        qDebug() << "SSL Error: reject connection";
}
