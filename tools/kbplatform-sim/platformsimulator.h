#pragma once

#include "simconfig.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QObject>
#include <QTemporaryDir>

#include <map>
#include <memory>

class FaultInjector;
class PlatformHttpServer;
class PlatformTcpServer;
class QTcpSocket;
struct HttpHead;
class RequestLog;
class SimInstance;

// The whole simulated platform: credentials and login sessions, the instances, the faults and
// the request log, served by one HTTP(S) server.
class PlatformSimulator : public QObject
{
    Q_OBJECT

public:
    enum class Authorization { Granted, Missing, Invalid, Expired };

    static constexpr std::size_t MAX_SESSIONS = 1024;

    explicit PlatformSimulator(const SimConfig& config, QObject* parent = nullptr);
    ~PlatformSimulator() override;

    bool start(QString* error);
    // The single line of compact JSON printed when ready.
    QByteArray readyLine() const;

    const SimConfig& config() const { return m_config; }
    QString baseUrl() const;
    QString adbUrl(const SimInstance* instance) const;
    QList<SimInstance*> instances() const { return m_instances; }
    SimInstance* instance(const QString& uuid) const;
    FaultInjector* faults() const { return m_faults; }
    RequestLog* requestLog() const { return m_log; }

    // A session token for the configured e-mail and password, or an empty string.
    QString login(const QString& email, const QString& password);
    Authorization authorize(const QByteArray& apiToken, const QByteArray& authorizationHeader);
    void expireSessions();
    int sessionCount() const { return int(m_sessions.size()); }

private Q_SLOTS:
    void onWebSocketRequested(QTcpSocket* socket, const HttpHead& head);

private:
    QString advertisedHost() const;

    SimConfig m_config;
    bool m_tls = false;
    quint16 m_port = 0;
    std::unique_ptr<QTemporaryDir> m_tempSandbox;
    QTemporaryDir m_supportDir;
    FaultInjector* m_faults;
    RequestLog* m_log;
    PlatformHttpServer* m_server;
    PlatformTcpServer* m_listener = nullptr;
    QList<SimInstance*> m_instances;
    std::map<QString, QDateTime> m_sessions; // token -> expiry (invalid: never)
};
