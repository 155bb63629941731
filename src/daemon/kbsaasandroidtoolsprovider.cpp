#include "kbsaasandroidtoolsprovider.h"

#include <QDebug>
#include <QFile>

KbsaasAndroidToolsProvider::KbsaasAndroidToolsProvider(const QString& sdkPath)
    : m_sdkPath(sdkPath)
{ }

KbsaasAndroidToolsProvider::~KbsaasAndroidToolsProvider() = default;

QString KbsaasAndroidToolsProvider::getAdbPath()
{
    {
        QMutexLocker locker(&m_cacheMutex);
        if (!m_adbPath.isEmpty() && QFile::exists(m_adbPath))
            return m_adbPath;
    }
    if (m_sdkPath.isEmpty()) {
        qWarning() << "Can't use ADB from SDK: SDK path not set";
        return QString();
    }
    const QString path = findAdbInAndroidSdk(m_sdkPath);
    QMutexLocker locker(&m_cacheMutex);
    m_adbPath = path;
    return path;
}

QString KbsaasAndroidToolsProvider::getAaptPath()
{
    {
        QMutexLocker locker(&m_cacheMutex);
        if (!m_aaptPath.isEmpty() && QFile::exists(m_aaptPath))
            return m_aaptPath;
    }
    if (m_sdkPath.isEmpty()) {
        qWarning() << "Can't use AAPT from SDK: SDK path not set";
        return QString();
    }
    const QString path = findAaptInAndroidSdk(m_sdkPath);
    QMutexLocker locker(&m_cacheMutex);
    m_aaptPath = path;
    return path;
}

QString KbsaasAndroidToolsProvider::adbNotFoundReason()
{
    if (m_sdkPath.isEmpty())
        return QStringLiteral("adb not found: config.json has no \"android-sdk-path\"");
    return QStringLiteral("adb not found in %1 (nor in its platform-tools or tools directory); "
                          "check \"android-sdk-path\" in config.json")
        .arg(m_sdkPath);
}
