#pragma once

#include <QByteArray>
#include <QLoggingCategory>
#include <QString>

// The "tunnel" category: the bridge's per-message trace, silent unless KB_ADBTUNNEL_DEBUG is set.
Q_DECLARE_LOGGING_CATEGORY(tunnelCategory)

class AdbTunnelLogger
{
public:
    static const char* const ENV_KB_ADBTUNNEL_DEBUG;

    // Installs filter() as the process's category filter, chaining the previous one.
    // Call once at start-up, before any tunnel runs.
    static void installAdbTunnelLogCategory();
    static void filter(QLoggingCategory* category);

    // Logs a readable dump of one whole ADB message when the "tunnel" category's debug is on.
    static void printAdbMessage(const QByteArray& message, const QString& direction);
    // The dump itself, for tests.
    static QString formatAdbMessage(const QByteArray& message, const QString& direction);
};
