#include "ssllibs.h"

#include <QDebug>
#include <QLibrary>

const char* const SslLibs::OPENSSL_SOVERSION = "3";

void SslLibs::preload()
{
    const QString version = QLatin1String(OPENSSL_SOVERSION);
    // libssl needs libcrypto: load them in that order.
    preloadLibrary(QStringLiteral("crypto"), version);
    preloadLibrary(QStringLiteral("ssl"), version);
}

bool SslLibs::preloadLibrary(const QString& name, const QString& version)
{
    // Never unloaded: Qt Network resolves its symbols from the already loaded library.
    QLibrary library(name, version);
    if (!library.load()) {
        qCritical() << "Failed to preload" << name << version << library.errorString();
        return false;
    }
    return true;
}
