#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// What adb prints, turned into values. No process handling here: everything is fed captured text.
namespace AdbOutputParser {

enum class GetStateResult {
    DeviceFound, // exit 0 and "device"
    UnrecognizedOutput, // exit 0 with anything else
    NotFound, // the server does not know the serial (yet)
    Connecting,
    Failed,
};

struct Device
{
    QString serial;
    QString state;
    bool operator==(const Device& other) const { return serial == other.serial && state == other.state; }
};

// adb prints in the local encoding, with CRLF on some platforms; the result is trimmed.
QString toText(const QByteArray& output);

GetStateResult parseGetState(int exitCode, const QString& output, const QString& errorText);

bool isInstallSuccess(const QString& output);
bool isAlreadyInstalled(const QString& output);

// The "serial state" lines of `adb devices`; the header, blank lines and server noise are skipped.
QList<Device> parseDevices(const QByteArray& output);
// An "a.b.c.d:port" serial: a device reached over the network rather than over USB.
bool isNetworkSerial(const QString& serial);

// The last percentage of a `pull -p` progress output ("[ 42%] /sdcard/file"), or -1 when none.
int lastPullProgress(const QByteArray& output);

} // namespace AdbOutputParser
