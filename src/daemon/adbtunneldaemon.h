#pragma once

#include "adbtunnel.h"
#include "adbtunnelstate.h"

#include <QHash>
#include <QObject>
#include <QVariant>

#include <functional>

class AbstractCredentialsProvider;
class AdbTunnelController;
class AttachedSerials;
class NetworkProvider;

// Makes the controller of one instance, started at once; the daemon owns it.
using AdbTunnelControllerFactory = std::function<AdbTunnelController*(const QString& id, quint16 port)>;

// The daemon's command handler and registry: one controller per connected instance and the
// last known state of every instance a client asked about. Lives in the main thread.
class AdbTunnelDaemon : public QObject
{
    Q_OBJECT
public:
    // Without makeController, controllers run the real tunnel with these providers.
    AdbTunnelDaemon(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
                    QObject* parent = nullptr, AdbTunnelControllerFactory makeController = {});
    ~AdbTunnelDaemon() override;

    QVariant handleMessage(const QVariantMap& message);
    void createAdbTunnel(const QString& id, quint16 port);
    void updateAdbTunnelState(const QString& id, AdbTunnelState state);
    AdbTunnelState getStateFromDeviceId(const QString& id) const;
    QString getSerialFromDeviceId(const QString& id) const;
    // Why the instance's tunnel last failed; empty when it has not since the last "connect".
    QString getLastErrorFromDeviceId(const QString& id) const;
    // Where to record the serials attached to the local ADB server (not owned; may be null).
    void setAttachedSerials(AttachedSerials* record);

public Q_SLOTS:
    void deleteAdbTunnel(const QString& id);

Q_SIGNALS:
    void quit(); // one second after a "stop" was answered; the owner ends the event loop

private:
    QHash<QString, AdbTunnelController*> m_tunnelControllers;
    QHash<QString, AdbTunnelState> m_tunnelStates;
    // The last error of tunnels whose controller has given up and is gone.
    QHash<QString, QString> m_lastErrors;
    NetworkProvider* m_networkProvider;
    AbstractCredentialsProvider* m_credentialsProvider;
    AttachedSerials* m_attachedSerials = nullptr;
    AdbTunnelControllerFactory m_makeController;
};
