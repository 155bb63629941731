#include "adbtunnelversion.h"

#include <QDebug>

const char* const AdbTunnelVersion::ENV_KB_ADBTUNNEL_VERSION = "KB_ADBTUNNEL_VERSION";

namespace {

const AdbTunnelVersion::Settings& settings()
{
    static const AdbTunnelVersion::Settings s_settings = AdbTunnelVersion::readSettings();
    return s_settings;
}

} // namespace

int AdbTunnelVersion::getVersion()
{
    return settings().version;
}

bool AdbTunnelVersion::isMegaFastEnabled()
{
    return settings().megaFast;
}

AdbTunnelVersion::Settings AdbTunnelVersion::readSettings()
{
    Settings result;
    if (qEnvironmentVariableIsSet(ENV_KB_ADBTUNNEL_VERSION)) {
        bool ok = false;
        int value = qgetenv(ENV_KB_ADBTUNNEL_VERSION).toInt(&ok, 10);
        if (!ok)
            value = 0;
        if (value != 1 && value != 2)
            qCritical() << "Adb tunnel version not recognized!";
        // An unknown value is kept: it is what the platform gets told.
        qDebug() << "Override adb tunnel version from" << DEFAULT_VERSION << "to" << value;
        result.version = value;
    }
    if (result.version <= 1)
        result.megaFast = false;
    return result;
}
