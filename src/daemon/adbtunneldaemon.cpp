#include "adbtunneldaemon.h"

#include "adbtunnelcontroller.h"
#include "adbtunnelparser.h"
#include "attachedserials.h"
#include "network/networkprovider.h"
#include "utils/loghandler.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QTimer>
#include <QUrl>

using namespace AdbTunnelConstants;

namespace {
constexpr int QUIT_DELAY_MS = 1000;

QString prefixFor(const QString& id)
{
    return QStringLiteral("[UUID:%1]").arg(id);
}
} // namespace

AdbTunnelDaemon::AdbTunnelDaemon(NetworkProvider* networkProvider,
                                 AbstractCredentialsProvider* credentialsProvider, QObject* parent,
                                 AdbTunnelControllerFactory makeController)
    : QObject(parent)
    , m_networkProvider(networkProvider)
    , m_credentialsProvider(credentialsProvider)
    , m_makeController(std::move(makeController))
{
    if (!m_makeController) {
        m_makeController = [networkProvider, credentialsProvider](const QString& id, quint16 port) {
            return new AdbTunnelController(networkProvider, credentialsProvider, id, port);
        };
    }
}

AdbTunnelDaemon::~AdbTunnelDaemon()
{
    qDebug() << "Daemon is stopping...";
    // Each controller waits for its worker thread, which runs `adb disconnect` on the way out.
    qDeleteAll(m_tunnelControllers);
    m_tunnelControllers.clear();
    if (m_attachedSerials)
        m_attachedSerials->clear();
    m_tunnelStates.clear();
}

QVariant AdbTunnelDaemon::handleMessage(const QVariantMap& message)
{
    const QString command = message.value(COMMAND_KEY).toString();

    if (command == STOP_COMMAND) {
        // Answer first; the client is still waiting for the reply when we begin to stop.
        QTimer::singleShot(QUIT_DELAY_MS, Qt::PreciseTimer, this, [this] { Q_EMIT quit(); });
        return true;
    }

    if (command == DAEMON_INFO_COMMAND) {
        const QNetworkProxy proxy = m_networkProvider->getNetworkAccessManager()->proxy();
        const QString proxyText = proxy.type() == QNetworkProxy::NoProxy
            ? QString()
            : QStringLiteral("%1:%2").arg(proxy.hostName()).arg(proxy.port());
        return QVariantMap {
            { QStringLiteral("version"), QCoreApplication::applicationVersion() },
            { QStringLiteral("platform_url"), getPlatformBaseUrl().toString() },
            { QStringLiteral("proxy"), proxyText },
        };
    }

    if (command == INSTANCES_COMMAND) {
        QJsonArray instances;
        const QStringList ids = m_tunnelStates.keys();
        for (const QString& id : ids) {
            instances.append(QJsonObject {
                { QStringLiteral("uuid"), id },
                { QStringLiteral("adb_serial"), getSerialFromDeviceId(id) },
                { QStringLiteral("state"), adbTunnelStateName(getStateFromDeviceId(id)) },
                { QStringLiteral("last_error"), getLastErrorFromDeviceId(id) },
            });
        }
        return QVariantMap { { QStringLiteral("instances"), instances.toVariantList() } };
    }

    if (command == CONNECT_COMMAND) {
        const QString id = message.value(ID_KEY).toString();
        const quint16 port = quint16(message.value(ADB_SERIAL_PORT_OPTION).toUInt());
        updateAdbTunnelState(id, PENDING);
        m_lastErrors.remove(id);
        createAdbTunnel(id, port);
        return true;
    }

    if (command == DISCONNECT_COMMAND) {
        const QString id = message.value(ID_KEY).toString();
        deleteAdbTunnel(id);
        qDebug().noquote() << "Reset tunnel state for" << id;
        m_tunnelStates.remove(id);
        m_lastErrors.remove(id);
        return true;
    }

    if (command == START_COMMAND) {
        qDebug() << "Daemon started successfully";
        return true;
    }

    qWarning() << "Invalid message" << message;
    return false;
}

void AdbTunnelDaemon::createAdbTunnel(const QString& id, quint16 port)
{
    LogHandler::LogPrefixer prefixer(prefixFor(id));
    if (m_tunnelControllers.value(id)) {
        updateAdbTunnelState(id, CONNECTED);
        qWarning() << "adb tunnel is already running for this device.";
        return;
    }

    AdbTunnelController* controller = m_makeController(id, port);
    m_tunnelControllers.insert(id, controller);

    connect(controller, &AdbTunnelController::stopped, this, &AdbTunnelDaemon::deleteAdbTunnel);
    connect(controller, &AdbTunnelController::tunnelSuccess, this, [this, id, controller] {
        updateAdbTunnelState(id, CONNECTED);
        if (m_attachedSerials)
            m_attachedSerials->add(controller->info().serial);
    });
    connect(controller, &AdbTunnelController::tunnelError, this,
            [this, id, controller](AdbTunnel::Error error) {
                updateAdbTunnelState(id, error == AdbTunnel::BridgeBusyPortError ? PORT_BUSY : FAILED);
                // The controller is deleted right after this: keep its reason for "getinstances".
                m_lastErrors.insert(id, controller->info().lastError);
            });
    qDebug() << "New tunnel" << controller;
}

void AdbTunnelDaemon::deleteAdbTunnel(const QString& id)
{
    LogHandler::LogPrefixer prefixer(prefixFor(id));
    AdbTunnelController* controller = m_tunnelControllers.take(id);
    if (!controller) {
        qWarning() << "no adb tunnel to finish for device";
        return;
    }
    const QString serial = controller->info().serial;
    delete controller; // its tunnel has run `adb disconnect` by the time this returns
    if (m_attachedSerials)
        m_attachedSerials->remove(serial);
}

void AdbTunnelDaemon::updateAdbTunnelState(const QString& id, AdbTunnelState state)
{
    LogHandler::LogPrefixer prefixer(prefixFor(id));
    qDebug().noquote() << "Update tunnel state to" << adbTunnelStateName(state);
    m_tunnelStates.insert(id, state);
}

void AdbTunnelDaemon::setAttachedSerials(AttachedSerials* record)
{
    m_attachedSerials = record;
}

QString AdbTunnelDaemon::getLastErrorFromDeviceId(const QString& id) const
{
    if (const AdbTunnelController* controller = m_tunnelControllers.value(id))
        return controller->info().lastError;
    return m_lastErrors.value(id);
}

AdbTunnelState AdbTunnelDaemon::getStateFromDeviceId(const QString& id) const
{
    return m_tunnelStates.value(id, DISCONNECTED);
}

QString AdbTunnelDaemon::getSerialFromDeviceId(const QString& id) const
{
    const AdbTunnelController* controller = m_tunnelControllers.value(id);
    if (!controller) {
        LogHandler::LogPrefixer prefixer(prefixFor(id));
        qWarning() << "No tunnel found for the device";
        return {};
    }
    return controller->info().serial;
}
