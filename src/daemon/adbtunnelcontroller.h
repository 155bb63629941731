#pragma once

#include "adbtunnel.h"
#include "adbtunnelinfo.h"

#include <QObject>

#include <chrono>
#include <functional>

class QThread;

// Makes the tunnel of one attempt, in the controller's thread; the controller moves it to the
// worker thread and owns it from then on.
using AdbTunnelFactory = std::function<AbstractAdbTunnel*(AdbTunnelInfo* info)>;

// Owns one instance's tunnel: a worker thread, one AdbTunnel per attempt, and the restart
// policy (at most 10 attempts in a row, one second apart). Lives in the daemon's thread.
class AdbTunnelController : public QObject
{
    Q_OBJECT
public:
    static constexpr std::chrono::milliseconds RESTART_DELAY { 1000 };

    // Attempts with the real AdbTunnel.
    AdbTunnelController(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
                        const QString& id, quint16 port);
    // Attempts with whatever makeTunnel builds; tests shorten the pause between attempts here.
    AdbTunnelController(AdbTunnelFactory makeTunnel, const QString& id, quint16 port,
                        std::chrono::milliseconds restartDelay = RESTART_DELAY);
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

    AbstractAdbTunnel* m_tunnel = nullptr;
    AdbTunnelInfo m_info;
    QThread* m_thread;
    qint8 m_restartsLeft = MAX_RESTARTS;
    bool m_retryEnabled = true;
    AdbTunnelFactory m_makeTunnel;
    std::chrono::milliseconds m_restartDelay;
};
