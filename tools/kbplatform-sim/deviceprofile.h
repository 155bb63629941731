#pragma once

#include <QByteArray>
#include <QString>

// Which Android the emulated device plays: a current one, or an old one whose host falls back
// to plain "shell:", sync v1 and "pm" over a shell.
enum class DeviceDialect { Modern, Legacy };

// What makes one emulated device: its files, its shell environment and its CNXN banner.
struct DeviceProfile
{
    QString sandboxDir; // the device's "/"
    QString binDir; // prepended to PATH in shells (holds getprop)
    QByteArray banner; // its "features=" part is the dialect's, whatever it says here
    DeviceDialect dialect = DeviceDialect::Modern;

    static QByteArray features(DeviceDialect dialect);
    // The banner with the dialect's features.
    QByteArray cnxnBanner() const;
    bool isModern() const { return dialect == DeviceDialect::Modern; }

    // Writes into binDir the commands a current host relies on besides getprop and pm: "cmd"
    // (its package service streams an install from standard input) and "remount".
    static bool writeTools(const QString& binDir, QString* error);
};
