#include "androidtoolsprovider.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QStringList>

#include <atomic>

const char* const AndroidToolsProvider::ADB_FILENAME = "adb";
const char* const AndroidToolsProvider::AAPT_FILENAME = "aapt";

namespace {

std::atomic<AndroidToolsProvider*> s_instance { nullptr };

QString findInDirs(const QString& name, const QStringList& dirs)
{
    for (const QString& dir : dirs) {
        const QString path = dir + QLatin1Char('/') + name;
        if (QFile::exists(path))
            return path;
    }
    return QString();
}

// Newest first by plain string order, so "9.0.0" sorts before "30.0.3": versions are not compared.
QStringList subDirsReversed(const QString& dir)
{
    return QDir(dir).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name | QDir::Reversed);
}

} // namespace

AndroidToolsProvider::~AndroidToolsProvider() = default;

QString AndroidToolsProvider::adbNotFoundReason()
{
    return QStringLiteral("adb not found, check the Android SDK path");
}

void AndroidToolsProvider::setInstance(AndroidToolsProvider* provider)
{
    s_instance.store(provider);
}

AndroidToolsProvider* AndroidToolsProvider::getInstance()
{
    AndroidToolsProvider* provider = s_instance.load();
    if (!provider)
        qFatal("No AndroidToolsProvider instance set");
    return provider;
}

QString AndroidToolsProvider::getAdbFileName()
{
    return QString::fromLatin1(ADB_FILENAME);
}

QString AndroidToolsProvider::getAaptFileName()
{
    return QString::fromLatin1(AAPT_FILENAME);
}

QString AndroidToolsProvider::findAdbInAndroidSdk(const QString& sdkPath)
{
    const QStringList dirs {
        sdkPath + QLatin1String("/platform-tools"),
        sdkPath + QLatin1String("/tools"),
        sdkPath,
    };
    const QString path = findInDirs(getAdbFileName(), dirs);
    if (!path.isEmpty())
        qDebug().noquote() << "ADB found:" << path;
    else
        qWarning().noquote() << "ADB not found:" << dirs.join(QLatin1String(", "));
    return path;
}

QString AndroidToolsProvider::findAaptInAndroidSdk(const QString& sdkPath)
{
    QStringList dirs;
    const QString buildTools = sdkPath + QLatin1String("/build-tools/");
    const QStringList buildToolsEntries = subDirsReversed(buildTools);
    for (const QString& entry : buildToolsEntries)
        dirs.append(buildTools + entry);
    dirs.append(sdkPath + QLatin1String("/platform-tools"));
    const QString platforms = sdkPath + QLatin1String("/platforms/");
    const QStringList platformEntries = subDirsReversed(platforms);
    for (const QString& entry : platformEntries)
        dirs.append(platforms + entry + QLatin1String("/tools"));

    const QString path = findInDirs(getAaptFileName(), dirs);
    if (!path.isEmpty())
        qDebug().noquote() << "SDK AAPT found at" << path;
    else
        qWarning().noquote() << "SDK AAPT not found in" << dirs.join(QLatin1String(", "));
    return path;
}
