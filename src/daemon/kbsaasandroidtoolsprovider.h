#pragma once

#include "androidtools/androidtoolsprovider.h"

#include <QMutex>
#include <QString>

// Finds adb and aapt in the Android SDK that the kbsaas configuration names, and remembers the
// last path found for as long as that file exists.
class KbsaasAndroidToolsProvider : public AndroidToolsProvider
{
public:
    explicit KbsaasAndroidToolsProvider(const QString& sdkPath);
    ~KbsaasAndroidToolsProvider() override;

    QString getAdbPath() override;
    QString getAaptPath() override;
    QString adbNotFoundReason() override;

private:
    const QString m_sdkPath;
    QString m_adbPath;
    QString m_aaptPath;
    // Several ADB threads may ask at once; the search itself runs unlocked, only the cache is guarded.
    QMutex m_cacheMutex;
};
