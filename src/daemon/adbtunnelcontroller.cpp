#include "adbtunnelcontroller.h"

#include "utils/loghandler.h"

#include <QDebug>
#include <QMetaObject>
#include <QThread>
#include <QTimer>

AdbTunnelController::AdbTunnelController(NetworkProvider* networkProvider,
                                         AbstractCredentialsProvider* credentialsProvider, const QString& id,
                                         quint16 port)
    : AdbTunnelController(
        [networkProvider, credentialsProvider](AdbTunnelInfo* info) {
            return new AdbTunnel(networkProvider, credentialsProvider, info, nullptr);
        },
        id, port)
{ }

AdbTunnelController::AdbTunnelController(AdbTunnelFactory makeTunnel, const QString& id, quint16 port,
                                         std::chrono::milliseconds restartDelay)
    : QObject(nullptr)
    , m_thread(new QThread(this))
    , m_makeTunnel(std::move(makeTunnel))
    , m_restartDelay(restartDelay)
{
    m_info.id = id;
    m_info.port = port;
    m_thread->setObjectName(QStringLiteral("tunnel-%1").arg(id));
    // Everything that runs in this thread concerns this one instance, including the network
    // layer's own log lines, so the whole thread carries the instance prefix.
    const QString prefix = QStringLiteral("[UUID:%1]").arg(id);
    connect(m_thread, &QThread::started, m_thread, [prefix] { LogHandler::setPrefix(prefix); },
            Qt::DirectConnection);
    createTunnel();
}

AdbTunnelController::~AdbTunnelController()
{
    if (m_tunnel) {
        AbstractAdbTunnel* tunnel = m_tunnel;
        m_tunnel = nullptr;
        tunnel->deleteLater();
    }
    m_thread->quit();
    m_thread->wait();
}

AdbTunnelInfo AdbTunnelController::info() const
{
    QMutexLocker locker(&AdbTunnelInfo::mutex());
    return m_info;
}

void AdbTunnelController::setRetryEnabled(bool enabled)
{
    m_retryEnabled = enabled;
}

bool AdbTunnelController::canRestart() const
{
    return m_retryEnabled && m_restartsLeft > 0;
}

void AdbTunnelController::resetRestart()
{
    m_restartsLeft = MAX_RESTARTS;
}

void AdbTunnelController::createTunnel()
{
    LogHandler::LogPrefixer prefixer(QStringLiteral("[UUID:%1]").arg(m_info.id));
    qDebug().noquote() << "Attempting to create tunnel." << int(m_restartsLeft) << "attempts left.";
    --m_restartsLeft;

    if (!m_thread->isRunning())
        m_thread->start(QThread::InheritPriority);

    AbstractAdbTunnel* previous = m_tunnel;
    m_tunnel = m_makeTunnel(&m_info);
    if (previous)
        previous->deleteLater();
    m_tunnel->moveToThread(m_thread);

    connect(m_tunnel, &AbstractAdbTunnel::error, this, &AdbTunnelController::onTunnelError);
    connect(m_tunnel, &AbstractAdbTunnel::success, this, &AdbTunnelController::onTunnelSuccess);
    QMetaObject::invokeMethod(m_tunnel, &AbstractAdbTunnel::doWork, Qt::QueuedConnection);
}

void AdbTunnelController::onTunnelSuccess()
{
    LogHandler::LogPrefixer prefixer(QStringLiteral("[UUID:%1]").arg(m_info.id));
    qDebug() << "Tunnel init successfully for device";
    resetRestart();
    Q_EMIT tunnelSuccess();
}

void AdbTunnelController::onTunnelError(const AdbTunnel::Error& error)
{
    LogHandler::LogPrefixer prefixer(QStringLiteral("[UUID:%1]").arg(m_info.id));
    bool restartable = false;
    switch (error) {
    case AdbTunnel::AuthenticationError:
        qWarning() << "adbtunnel authentication error";
        break;
    case AdbTunnel::DisconnectionError:
        qWarning() << "adbtunnel disconnection error";
        restartable = true;
        break;
    case AdbTunnel::BridgeBusyPortError:
        qWarning() << "adbtunnel bridge busy port error";
        break;
    case AdbTunnel::AdbError:
        qWarning() << "adbtunnel adb error";
        restartable = true;
        break;
    default:
        qWarning() << "adbtunnel unknown error has occured";
        break;
    }

    if (restartable && canRestart()) {
        qDebug() << "adb tunnel will restart for device";
        QTimer::singleShot(m_restartDelay, this, &AdbTunnelController::createTunnel);
        return;
    }

    qDebug() << "adb tunnel will not restart for device";
    Q_EMIT tunnelError(error);
    // The daemon deletes this controller from its handler of `stopped`: nothing may follow.
    Q_EMIT stopped(m_info.id);
}
