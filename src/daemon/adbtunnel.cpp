#include "adbtunnel.h"

#include "utils/envvars.h"
#include "utils/loghandler.h"

#include <QDebug>

namespace {
const char* const DEFAULT_PLATFORM_BASE_URL = "https://api.kestrelbox.cloud";
} // namespace

QUrl getPlatformBaseUrl()
{
    return QUrl(EnvVars::getString("KB_PLATFORM_BASE_URL", QString::fromLatin1(DEFAULT_PLATFORM_BASE_URL)));
}

AdbTunnel::AdbTunnel(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
                     AdbTunnelInfo* info, QObject* parent)
    : QObject(parent)
    , m_info(info)
    , m_networkProvider(networkProvider)
    , m_credentialsProvider(credentialsProvider)
{
    qRegisterMetaType<AdbTunnel::Error>("Error");
    qRegisterMetaType<AdbTunnel::Error>("AdbTunnel::Error");
}

AdbTunnel::~AdbTunnel() = default;

QString AdbTunnel::getDeviceId() const
{
    return m_info->id;
}

QString AdbTunnel::getDeviceSerial() const
{
    return m_info->serial;
}

void AdbTunnel::doWork()
{
    LogHandler::LogPrefixer prefixer(QStringLiteral("[UUID:%1]").arg(m_info->id));
    qDebug() << "Worker thread";
    // The authentication chain is not wired yet: report the attempt as failed for good.
    Q_EMIT error(AuthenticationError);
}
