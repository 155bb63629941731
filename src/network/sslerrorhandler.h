#pragma once

#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QSslError>
#include <QString>
#include <QStringList>

#include <functional>

class AbstractWebSocket;
class QNetworkReply;

// One pending question to the user about a certificate that failed verification.
class SslErrorUserHandler : public QObject
{
    Q_OBJECT
public:
    explicit SslErrorUserHandler(QObject* parent = nullptr);
    ~SslErrorUserHandler() override;

    void init(const QString& host, const QString& report);
    QString getHost() const;
    QString getReport() const;
    bool isTrusted() const;
    bool isAborted() const;
    // Spins an event loop until the user decides or the reply goes away.
    void waitForFinished();

public Q_SLOTS:
    // Also trusts the host for the rest of the process.
    void trust();
    void untrust();
    void abort();

Q_SIGNALS:
    void finished(); // Emitted once the user has trusted or refused the host
    void aborted(); // Emitted when the reply finished before the user decided

private:
    QString m_host;
    QString m_report;
    bool m_trusted = false;
    bool m_aborted = false;
    bool m_done = false;
};

// Decides on certificate errors of HTTP replies and WebSockets. Refuses them unless the host is
// trusted beforehand (setTrustedHosts or KB_TRUSTED_HOSTS) or, for HTTP only, the user trusts
// it through the confirmation function. Lives in the main thread; the WebSocket path and the
// trust test may be called from any thread.
class SslErrorHandler : public QObject
{
    Q_OBJECT
public:
    static const char* const KB_TRUSTED_HOSTS_ENV;
    static const char* const CONFIRMING_SSLERRORS_PROPERTY;
    static const char* const ANALYTICS_SERVICE_DOMAIN;

    explicit SslErrorHandler(QObject* parent = nullptr);
    ~SslErrorHandler() override;

    // The function is used only while receiver lives.
    void setUserConfirmationFunction(QObject* receiver, std::function<void(SslErrorUserHandler*)> function);
    void setTrustedHosts(const QList<QString>& hosts);
    // host is matched exactly as it stands in the request URL: no scheme, no port, no wildcard.
    bool isIgnoringErrors(const QString& host) const;
    void requestUserConfirmation(QNetworkReply* reply, const QString& host, const QString& report);

public Q_SLOTS:
    void onNetworkReplySslErrors(QNetworkReply* reply, const QList<QSslError>& errors);
    // For a reply of another thread, whose handshake has already failed by the time we run.
    void onLateNetworkReplySslErrors(const QString& host, const QList<QSslError>& errors);
    void onWebSocketSslErrors(AbstractWebSocket* socket, const QList<QSslError>& errors);

private:
    QPointer<QObject> m_userConfirmationReceiver;
    std::function<void(SslErrorUserHandler*)> m_userConfirmationFunction;
    mutable QMutex m_trustedHostsMutex;
    QList<QString> m_trustedHosts;
};

QStringList getTrustedHostsInEnv();
QString getSslErrorReport(const QList<QSslError>& errors);
