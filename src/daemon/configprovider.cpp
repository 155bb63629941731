#include "configprovider.h"

#include "jsonreader.h"
#include "utils/envvars.h"
#include "utils/filepermissions.h"

#include <QDebug>
#include <QDir>

namespace {
const char* const ENV_CONFIG_HOME = "KBSAAS_CONFIG_HOME";
const char* const ENV_PROXY_USERNAME = "KBSAAS_PROXY_USERNAME";
const char* const ENV_PROXY_PASSWORD = "KBSAAS_PROXY_PASSWORD";
const QLatin1String ANDROID_SDK_PATH_KEY("android-sdk-path");
const QLatin1String PROXY_KEY("proxy");
} // namespace

QString getKbsaasConfigHomePath()
{
    QString home = EnvVars::getString(ENV_CONFIG_HOME, QString());
    if (home.isEmpty())
        return QDir::homePath() + QStringLiteral("/.") + QStringLiteral("Tarnwright")
            + QStringLiteral("/kbsaas");

    if (home.startsWith(QLatin1String("~/")))
        home.replace(0, 1, QDir::homePath());
    if (QDir::isRelativePath(home))
        qFatal("KBSAAS_CONFIG_HOME is set to '%s' but must be an absolute path.", qPrintable(home));
    if (!FilePermissions::makePrivatePath(home))
        qFatal("KBSAAS_CONFIG_HOME is set to '%s', but this directory cannot be created.", qPrintable(home));
    return QDir(home).path();
}

void warnIfConfigHomeIsShared(const QString& home)
{
    // An existing directory is the user's (or kbsaas's) choice and is left as it is; but whoever
    // may write into it can swap auth.json or the daemon's socket for their own.
    for (const QString& directory : { home, home + QStringLiteral("/tmp") }) {
        if (FilePermissions::isGroupOrWorldWritable(directory)) {
            qWarning().noquote() << QStringLiteral("%1 is writable by other users of this machine, who can "
                                                   "replace the files in it; run: chmod 700 %1")
                                        .arg(directory);
        }
    }
}

ConfigProvider::ConfigProvider(JsonReader* reader)
    : m_reader(reader)
{ }

QString ConfigProvider::getAndroidSdkPath() const
{
    return m_reader->getValue(ANDROID_SDK_PATH_KEY).toString();
}

QUrl ConfigProvider::getProxyUrl() const
{
    const QString text = m_reader->getValue(PROXY_KEY).toString();
    if (text.isEmpty())
        return {};
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid()) {
        qWarning() << "Proxy url from config is invalid" << text;
        return {};
    }
    const QString userName = EnvVars::getString(ENV_PROXY_USERNAME, QString());
    const QString password = EnvVars::getString(ENV_PROXY_PASSWORD, QString());
    if (!userName.isEmpty())
        url.setUserName(userName, QUrl::DecodedMode);
    if (!password.isEmpty())
        url.setPassword(password, QUrl::DecodedMode);
    return url;
}
