#pragma once

#include <QVariantMap>

class QCommandLineParser;

namespace AdbTunnelConstants {
inline const QLatin1String ADBTUNNELD_NAME("kbadbtunneld");
inline const QLatin1String ORGANIZATION_NAME("Tarnwright");
inline const QLatin1String START_COMMAND("start");
inline const QLatin1String STOP_COMMAND("stop");
inline const QLatin1String DAEMON_INFO_COMMAND("getdaemoninfo");
inline const QLatin1String CONNECT_COMMAND("connect");
inline const QLatin1String DISCONNECT_COMMAND("disconnect");
inline const QLatin1String INSTANCES_COMMAND("getinstances");
inline const QLatin1String DOCTOR_COMMAND("doctor");
inline const QLatin1String COMMAND_KEY("command");
inline const QLatin1String ID_KEY("id");
inline const QLatin1String ADB_SERIAL_PORT_OPTION("adb-serial-port");
inline const QLatin1String WAIT_OPTION("wait");
inline const QLatin1String TIMEOUT_OPTION("timeout");
inline const QLatin1String RUNNING("running");
inline const QLatin1String EXIT_CODE_KEY("exit_code");
inline const QLatin1String ERROR_KEY("error");
inline const QLatin1String ERROR_MESSAGE_KEY("message");
inline const QLatin1String ERROR_DETAILS_KEY("details");
} // namespace AdbTunnelConstants

// The command line: `kbadbtunneld [options] command [id]`. Which arguments and options exist
// depends on the command, so the parser is set up after a first silent look at it.
class AdbTunnelParser
{
public:
    static void setupParser(QCommandLineParser* parser);
    static void setupParser(QCommandLineParser* parser, const QStringList& arguments);
    // The request map to send to the daemon; empty when the arguments are not a valid command.
    static QVariantMap getMessageFromParser(const QCommandLineParser& parser);

    // "connect --wait [--timeout SECONDS]": the client's own options, never sent to the daemon.
    struct WaitOptions
    {
        bool wait = false;
        int timeoutSeconds = DEFAULT_WAIT_TIMEOUT_S;
        QString error; // why the options are unusable; empty when they are fine
    };
    static constexpr int DEFAULT_WAIT_TIMEOUT_S = 60;
    static WaitOptions getWaitOptions(const QCommandLineParser& parser);
};
