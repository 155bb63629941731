#include "platform.h"

#include <QSysInfo>

const char* const Platform::LINUX_UNKNOWN_DISTRIBUTION = "unknown";

static QString computePlatform()
{
    const QString productType = QSysInfo::productType();
    if (productType != QLatin1String(Platform::LINUX_UNKNOWN_DISTRIBUTION))
        return QStringLiteral("Linux %1 %2").arg(productType, QSysInfo::productVersion());
    return QStringLiteral("Linux unknown");
}

QString Platform::getPlatform()
{
    static const QString platform = computePlatform();
    return platform;
}
