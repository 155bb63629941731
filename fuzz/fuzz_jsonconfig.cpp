// "auth.json" and "config.json" with any content, read through the daemon's providers.
#include "daemon/configprovider.h"
#include "daemon/credentialsprovider.h"
#include "daemon/jsonreader.h"
#include "fuzzsupport.h"

#include <QFile>
#include <QTemporaryDir>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::application();
    static QTemporaryDir directory;
    static const QString authPath = directory.filePath(QStringLiteral("auth.json"));
    static const QString configPath = directory.filePath(QStringLiteral("config.json"));
    for (const QString& path : { authPath, configPath }) {
        QFile file(path);
        FuzzSupport::check(file.open(QIODevice::WriteOnly | QIODevice::Truncate), "cannot write the file");
        file.write(reinterpret_cast<const char*>(data), qint64(size));
    }

    JsonReader authReader(authPath);
    CredentialsProvider credentials(&authReader);
    (void)credentials.getEmail();
    (void)credentials.getPassword();
    (void)credentials.getApiToken();

    JsonReader configReader(configPath);
    ConfigProvider config(&configReader);
    (void)config.getAndroidSdkPath();
    const QUrl proxy = config.getProxyUrl();
    FuzzSupport::check(proxy.isEmpty() || proxy.isValid(), "an invalid proxy URL handed out");
    return 0;
}
