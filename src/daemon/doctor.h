#pragma once

#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>

class AbstractCredentialsProvider;
class AndroidToolsProvider;
class NetworkProvider;

// One line of `kbadbtunneld doctor`: what was found and, when it is not ok, what to do about it.
struct DoctorCheck
{
    QString name;
    bool ok = false;
    QString detail;

    QVariantMap toMap() const;
};

// The checks of `kbadbtunneld doctor`. They run in the client, read the same files and
// environment as the daemon, and never start a daemon.
class Doctor
{
public:
    Doctor(const QString& configHome, AbstractCredentialsProvider* credentials, NetworkProvider* network,
           AndroidToolsProvider* tools);

    DoctorCheck checkConfigHome() const;
    DoctorCheck checkCredentials() const;
    // One authenticated request to the platform, through the configured proxy.
    DoctorCheck checkPlatform() const;
    DoctorCheck checkAdb() const;
    // running: a daemon holds the local socket; instancesReply: its answer to "getinstances".
    // One check for the daemon, then one per tunnel.
    static QList<DoctorCheck> checkDaemon(bool running, const QVariant& instancesReply);

    // {"checks": [...], "exit_code": 0 when every check is ok, 2 otherwise}
    static QVariantMap document(const QList<DoctorCheck>& checks);

private:
    QString m_configHome;
    AbstractCredentialsProvider* m_credentials;
    NetworkProvider* m_network;
    AndroidToolsProvider* m_tools;
};
