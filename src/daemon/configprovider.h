#pragma once

#include <QString>
#include <QUrl>

class JsonReader;

// The configuration home: $KBSAAS_CONFIG_HOME (absolute, or starting with "~/") or
// ~/.Tarnwright/kbsaas. Stops the program when the variable names an unusable directory; the
// directories it creates are private to the user (0700).
QString getKbsaasConfigHomePath();
// Logs a warning for the configuration home and its "tmp" when they are group- or
// world-writable.
void warnIfConfigHomeIsShared(const QString& home);

// Settings from "config.json", shared with the platform's own command-line tool.
class ConfigProvider
{
public:
    explicit ConfigProvider(JsonReader* reader);

    QString getAndroidSdkPath() const;
    // Empty when no proxy is configured or the configured text is not a valid URL.
    QUrl getProxyUrl() const;

private:
    JsonReader* m_reader;
};
