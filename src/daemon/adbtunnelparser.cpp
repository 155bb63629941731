#include "adbtunnelparser.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <algorithm>

using namespace AdbTunnelConstants;

namespace {

bool takesId(const QString& command)
{
    return command == CONNECT_COMMAND || command == DISCONNECT_COMMAND;
}

} // namespace

void AdbTunnelParser::setupParser(QCommandLineParser* parser)
{
    setupParser(parser, QCoreApplication::arguments());
}

void AdbTunnelParser::setupParser(QCommandLineParser* parser, const QStringList& arguments)
{
    parser->setApplicationDescription(
        QStringLiteral("%1 - A way to connect ADB to Kestrelbox Cloud SaaS instances")
            .arg(QCoreApplication::applicationName()));
    parser->addHelpOption();
    parser->addVersionOption();
    parser->addPositionalArgument(COMMAND_KEY, QStringLiteral("Command to execute"));

    parser->parse(arguments);
    const QStringList positional = parser->positionalArguments();
    const QString command = positional.isEmpty() ? QString() : positional.first();

    if (takesId(command))
        parser->addPositionalArgument(ID_KEY, QStringLiteral("Id to use"));
    if (command == CONNECT_COMMAND) {
        parser->addOption(QCommandLineOption(QStringList { ADB_SERIAL_PORT_OPTION },
                                             QStringLiteral("Local port to use for tunnel"),
                                             QStringLiteral("port")));
        parser->addOption(QCommandLineOption(
            QStringList { WAIT_OPTION },
            QStringLiteral("Wait until the tunnel is connected (exit 0) or has failed (exit 2)")));
        parser->addOption(
            QCommandLineOption(QStringList { TIMEOUT_OPTION },
                               QStringLiteral("With --wait, give up after this many seconds (default %1)")
                                   .arg(DEFAULT_WAIT_TIMEOUT_S),
                               QStringLiteral("seconds")));
    }
}

QVariantMap AdbTunnelParser::getMessageFromParser(const QCommandLineParser& parser)
{
    const QStringList positional = parser.positionalArguments();
    if (positional.isEmpty())
        return {};

    const QString command = positional.first();
    static const QStringList commands { START_COMMAND,   STOP_COMMAND,       DAEMON_INFO_COMMAND,
                                        CONNECT_COMMAND, DISCONNECT_COMMAND, INSTANCES_COMMAND,
                                        DOCTOR_COMMAND };
    if (!commands.contains(command, Qt::CaseSensitive))
        return {};

    QVariantMap message { { COMMAND_KEY, command } };
    if (!takesId(command))
        return message;

    if (positional.size() < 2)
        return {};
    message.insert(ID_KEY, positional.at(1));

    if (command == CONNECT_COMMAND && parser.isSet(ADB_SERIAL_PORT_OPTION)) {
        // Only plain decimal digits: "+80", "-1" or "0x50" are dropped like any other bad value.
        const QString value = parser.value(ADB_SERIAL_PORT_OPTION);
        bool ok = !value.isEmpty() && std::all_of(value.cbegin(), value.cend(), [](QChar c) {
            return c >= QLatin1Char('0') && c <= QLatin1Char('9');
        });
        const ushort port = ok ? value.toUShort(&ok, 10) : 0;
        if (ok)
            message.insert(ADB_SERIAL_PORT_OPTION, int(port));
    }
    return message;
}

AdbTunnelParser::WaitOptions AdbTunnelParser::getWaitOptions(const QCommandLineParser& parser)
{
    WaitOptions options;
    if (parser.positionalArguments().value(0) != CONNECT_COMMAND)
        return options;
    options.wait = parser.isSet(WAIT_OPTION);
    if (!parser.isSet(TIMEOUT_OPTION))
        return options;
    if (!options.wait) {
        options.error = QStringLiteral("--timeout is only meaningful with --wait");
        return options;
    }
    // Unlike a bad port, a bad timeout is refused: waiting some other time than the one asked for
    // would surprise the script that asked.
    const QString value = parser.value(TIMEOUT_OPTION);
    bool ok = false;
    const int seconds = value.toInt(&ok, 10);
    if (!ok || seconds <= 0 || value.startsWith(QLatin1Char('+')))
        options.error
            = QStringLiteral("Invalid --timeout value '%1': a whole number of seconds, 1 or more").arg(value);
    else
        options.timeoutSeconds = seconds;
    return options;
}
