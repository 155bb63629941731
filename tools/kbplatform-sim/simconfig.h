#pragma once

#include "deviceprofile.h"

#include <QString>
#include <QStringList>

#include <optional>

// The simulator's command line.
struct SimConfig
{
    QString listenHost = QStringLiteral("127.0.0.1");
    quint16 listenPort = 0;
    int instances = 1;
    QStringList uuids; // the first instances' UUIDs; the others get random ones
    QString apiToken; // generated when empty
    QString email = QStringLiteral("developer@kestrelbox.test");
    QString password; // generated when empty
    QString tlsCert;
    QString tlsKey;
    int rttMs = 0;
    qint64 bandwidthKbps = 0;
    QString sandboxDir; // a temporary directory when empty
    QString deviceHost; // empty: emulated device
    quint16 devicePort = 0;
    DeviceDialect deviceDialect = DeviceDialect::Modern;
    qint64 sessionTtlMs = 3600 * 1000; // 0: sessions never expire

    static constexpr int MAX_INSTANCES = 64;

    // Parses the arguments (program name first); on error returns nothing and sets *error.
    static std::optional<SimConfig> parse(const QStringList& arguments, QString* error);
};
