#pragma once

#include <QString>

// Loads the TLS libraries before Qt Network looks for them, so that the versions the program
// was built against are the ones used.
class SslLibs
{
public:
    static const char* const OPENSSL_SOVERSION;

    static void preload();
    static bool preloadLibrary(const QString& name, const QString& version);
};
