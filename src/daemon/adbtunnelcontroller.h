#pragma once

#include "adbtunnel.h"
#include "adbtunnelinfo.h"

#include <QObject>

class QThread;

// Owns one instance's tunnel: a worker thread, one AdbTunnel per attempt, and the restart
// policy (at most 10 attempts in a row, one second apart). Lives in the daemon's thread.
class AdbTunnelController : public QObject
{
    Q_OBJECT
public:
    AdbTunnelController(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
                        const QString& id, quint16 port);
    ~AdbTunnelController() override;

    AdbTunnelInfo info() const;
    void setRetryEnabled(bool enabled);
    bool canRestart() const;
    void resetRestart();

public Q_SLOTS:
    void createTunnel();
    void onTunnelSuccess();
    void onTunnelError(const AdbTunnel::Error& error);

Q_SIGNALS:
    void tunnelSuccess(); // an attempt connected ADB (first time and after every restart)
    void tunnelError(AdbTunnel::Error error); // the controller gave up; `stopped` follows at once
    void stopped(const QString& id); // last thing the controller does; it may be deleted inside

private:
    static constexpr qint8 MAX_RESTARTS = 10;

    AdbTunnel* m_tunnel = nullptr;
    AdbTunnelInfo m_info;
    QThread* m_thread;
    qint8 m_restartsLeft = MAX_RESTARTS;
    bool m_retryEnabled = true;
    NetworkProvider* m_networkProvider;
    AbstractCredentialsProvider* m_credentialsProvider;
};
