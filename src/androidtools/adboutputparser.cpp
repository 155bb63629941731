#include "adboutputparser.h"

#include <QRegularExpression>
#include <QStringList>

namespace AdbOutputParser {

QString toText(const QByteArray& output)
{
    return QString::fromLocal8Bit(output).trimmed();
}

GetStateResult parseGetState(int exitCode, const QString& output, const QString& errorText)
{
    if (exitCode == 0)
        return output == QLatin1String("device") ? GetStateResult::DeviceFound
                                                 : GetStateResult::UnrecognizedOutput;
    if (errorText.contains(QLatin1String("not found")))
        return GetStateResult::NotFound;
    if (errorText.contains(QLatin1String("connecting")))
        return GetStateResult::Connecting;
    return GetStateResult::Failed;
}

bool isInstallSuccess(const QString& output)
{
    return output.contains(QLatin1String("Success"));
}

bool isAlreadyInstalled(const QString& output)
{
    return output.contains(QLatin1String("INSTALL_FAILED_ALREADY_EXISTS"));
}

QList<Device> parseDevices(const QByteArray& output)
{
    static const QRegularExpression deviceLine(QStringLiteral("^(\\S+)\\s+(\\S+)$"));
    QList<Device> devices;
    const QStringList lines = QString::fromLocal8Bit(output).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        const QRegularExpressionMatch match = deviceLine.match(line.trimmed());
        if (match.hasMatch())
            devices.append({ match.captured(1), match.captured(2) });
    }
    return devices;
}

bool isNetworkSerial(const QString& serial)
{
    static const QRegularExpression networkSerial(QStringLiteral("^\\d+\\.\\d+\\.\\d+\\.\\d+\\:\\d+$"));
    return networkSerial.match(serial).hasMatch();
}

int lastPullProgress(const QByteArray& output)
{
    // "[ 42%]" from current adb, "(42%)" from older ones; both rewrite the line with '\r'.
    static const QRegularExpression progress(QStringLiteral("[\\[(]\\s*(\\d{1,3})%[\\])]"));
    int percent = -1;
    QRegularExpressionMatchIterator it = progress.globalMatch(QString::fromLatin1(output));
    while (it.hasNext()) {
        const int value = it.next().captured(1).toInt();
        if (value <= 100)
            percent = value;
    }
    return percent;
}

} // namespace AdbOutputParser
