#include "adbtunneldaemon.h"
#include "adbtunnelparser.h"
#include "attachedserials.h"
#include "configprovider.h"
#include "credentialsprovider.h"
#include "daemonutils.h"
#include "doctor.h"
#include "jsonreader.h"
#include "kbsaasandroidtoolsprovider.h"

#include "adbprotocol/AdbTunnelLogger.h"
#include "androidtools/androidtoolsprovider.h"
#include "network/networkprovider.h"
#include "network/ssllibs.h"
#include "singleinstance/singleinstance.h"
#include "utils/envvars.h"
#include "utils/loghandler.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkProxy>
#include <QProcess>
#include <QThread>

#include <cstdio>
#include <memory>

using namespace AdbTunnelConstants;

namespace {

const QLatin1String DAEMON_FLAG("-d");
const char* const MESSAGE_PATTERN
    = "{isodate} [%{appname}:%{pid}:%{qthreadptr}] [%{if-category}%{category}.%{endif}%{type}] %{message}";
constexpr int DAEMON_START_TIMEOUT_MS = 5000;
constexpr int REPLY_TIMEOUT_MS = 30000;
constexpr int DAEMON_STOP_TIMEOUT_MS = 5000;
constexpr int WAIT_POLL_INTERVAL_MS = 200;
constexpr int ADB_DISCONNECT_TIMEOUT_MS = 15000;

QString singleInstanceDirectory()
{
    return getKbsaasConfigHomePath() + QStringLiteral("/tmp");
}

void writeOut(FILE* stream, const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

QString attachedSerialsPath()
{
    return getKbsaasConfigHomePath() + QStringLiteral("/kbadbtunneld-serials.json");
}

// The proxy of config.json for the tunnels' network access, or none at all: the system's proxy
// settings are deliberately not used.
void applyConfiguredProxy(const ConfigProvider& configProvider, NetworkProvider* networkProvider)
{
    const QUrl proxyUrl = configProvider.getProxyUrl();
    if (proxyUrl.isValid()) {
        const QNetworkProxy::ProxyType type = proxyUrl.scheme() == QLatin1String("socks5")
            ? QNetworkProxy::Socks5Proxy
            : QNetworkProxy::HttpProxy;
        const QNetworkProxy proxy(type, proxyUrl.host(), quint16(proxyUrl.port(-1)), proxyUrl.userName(),
                                  proxyUrl.password());
        qDebug().noquote() << QStringLiteral("Config proxy used: %1://%2:%3")
                                  .arg(proxyUrl.scheme(), proxy.hostName())
                                  .arg(proxy.port());
        networkProvider->setProxy(proxy);
    } else {
        QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        networkProvider->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
        qDebug() << "No proxy used";
    }
}

// A predecessor killed before it could detach its serials leaves them in the ADB server as
// offline devices that the server keeps retrying. `adb disconnect` directly: the device is
// offline, so asking its state first (as AdbClient does) would find nothing to detach.
void detachLeftoverSerials(const QStringList& serials, const QString& adbPath)
{
    for (const QString& serial : serials) {
        if (adbPath.isEmpty()) {
            qWarning().noquote() << "Cannot detach the stale serial" << serial << ": adb not found";
            continue;
        }
        QProcess adb;
        adb.setProcessChannelMode(QProcess::MergedChannels);
        adb.start(adbPath, { QStringLiteral("disconnect"), serial });
        const bool finished = adb.waitForFinished(ADB_DISCONNECT_TIMEOUT_MS);
        if (!finished)
            adb.kill();
        qDebug().noquote() << "Stale serial left by a previous daemon:" << serial << "adb disconnect:"
                           << (finished ? QString::fromLocal8Bit(adb.readAll()).trimmed()
                                        : adb.errorString());
    }
}

} // namespace

void printResult(const QVariantMap& result)
{
    QVariantMap document = result;
    document.insert(EXIT_CODE_KEY, 0);
    writeOut(stdout, QJsonDocument(QJsonObject::fromVariantMap(document)).toJson(QJsonDocument::Indented));
}

void printError(int exitCode, const QString& message, const QString& details)
{
    const QJsonObject error { { ERROR_MESSAGE_KEY, message }, { ERROR_DETAILS_KEY, details } };
    const QJsonObject document { { ERROR_KEY, error }, { EXIT_CODE_KEY, exitCode } };
    const QByteArray text = QJsonDocument(document).toJson(QJsonDocument::Indented);
    qWarning().noquote() << QString::fromUtf8(text);
    writeOut(stderr, text);
}

bool startServer(SingleInstance* instance)
{
    QProcess process;
    process.setProgram(QCoreApplication::applicationFilePath());
    process.setArguments({ DAEMON_FLAG });
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice(), QIODevice::Truncate);
    process.setStandardErrorFile(QProcess::nullDevice(), QIODevice::Truncate);
    if (!process.startDetached()) {
        qWarning() << "Failed to start the daemon:" << process.errorString();
        return false;
    }
    return instance->waitForInstanceConnected(DAEMON_START_TIMEOUT_MS);
}

int mainServer(QCoreApplication* app)
{
    qDebug() << "==== SERVER starting args:" << app->arguments() << "====";
    DaemonUtils::setup();

    const QString configHome = getKbsaasConfigHomePath();
    JsonReader authReader(configHome + QStringLiteral("/auth.json"));
    JsonReader configReader(configHome + QStringLiteral("/config.json"));
    CredentialsProvider credentialsProvider(&authReader);
    ConfigProvider configProvider(&configReader);

    auto toolsProvider = std::make_unique<KbsaasAndroidToolsProvider>(configProvider.getAndroidSdkPath());
    AndroidToolsProvider::setInstance(toolsProvider.get());

    NetworkProvider networkProvider;
    applyConfiguredProxy(configProvider, &networkProvider);

    AttachedSerials attachedSerials(attachedSerialsPath());
    auto daemon = std::make_unique<AdbTunnelDaemon>(&networkProvider, &credentialsProvider, nullptr);

    SingleInstance instance(ADBTUNNELD_NAME, singleInstanceDirectory());
    instance.setMessageHandlerFunction(
        [&daemon](const QVariantMap& message) { return daemon->handleMessage(message); });
    warnIfConfigHomeIsShared(configHome);

    int exitCode = 0;
    switch (instance.tryCreateInstance()) {
    case 1:
        qDebug() << "==== SERVER already exists, exiting ====";
        exitCode = 0;
        break;
    case 2:
        qWarning() << "==== SERVER failed to start: could not create local socket ====";
        exitCode = 2;
        break;
    default:
        qDebug() << "==== SERVER started ====";
        // Only the daemon that holds the socket may touch the record: one that lost the race
        // would detach the serials of the daemon that won.
        detachLeftoverSerials(attachedSerials.takeLeftovers(), toolsProvider->getAdbPath());
        daemon->setAttachedSerials(&attachedSerials);
        QObject::connect(daemon.get(), &AdbTunnelDaemon::quit, app, &QCoreApplication::quit);
        exitCode = app->exec();
        break;
    }

    qDebug() << "==== SERVER exit code:" << exitCode << "====";
    // The tunnels go first, each running `adb disconnect`, while the local socket still answers:
    // a client waiting for "stop" to complete then finds no stale device left behind.
    daemon.reset();
    AndroidToolsProvider::setInstance(nullptr);
    return exitCode;
}

namespace {

QVariantMap findInstance(const QVariant& instancesReply, const QString& id)
{
    const QVariantList instances = instancesReply.toMap().value(QStringLiteral("instances")).toList();
    for (const QVariant& instance : instances) {
        if (instance.toMap().value(QStringLiteral("uuid")).toString() == id)
            return instance.toMap();
    }
    return {};
}

// "connect --wait": polls the daemon until the tunnel settles one way or the other.
int waitForTunnel(SingleInstance* instance, const QString& id, int timeoutSeconds)
{
    const QDeadlineTimer deadline(qint64(timeoutSeconds) * 1000);
    for (;;) {
        const QVariant reply
            = instance->sendMessage({ { COMMAND_KEY, INSTANCES_COMMAND } }, REPLY_TIMEOUT_MS);
        if (!reply.isValid()) {
            printError(2, QStringLiteral("Invalid response"), QString());
            return 2;
        }
        QVariantMap entry = findInstance(reply, id);
        const QString state = entry.value(QStringLiteral("state")).toString();
        const QString lastError = entry.value(QStringLiteral("last_error")).toString();
        if (entry.isEmpty()) {
            printError(2, QStringLiteral("The tunnel to %1 was disconnected while waiting").arg(id),
                       QString());
            return 2;
        }
        // A repeated "connect" reports CONNECTED at once, even while the first one is still
        // building its tunnel: only a serial tells that ADB can be pointed at it.
        if (state == QLatin1String("CONNECTED")
            && !entry.value(QStringLiteral("adb_serial")).toString().isEmpty()) {
            entry.insert(RUNNING, true);
            printResult(entry);
            return 0;
        }
        if (state == QLatin1String("FAILED") || state == QLatin1String("PORT_BUSY")) {
            printError(2,
                       QStringLiteral("Tunnel %1: %2")
                           .arg(state, lastError.isEmpty() ? QStringLiteral("see the log file") : lastError),
                       QString());
            return 2;
        }
        if (deadline.hasExpired()) {
            printError(2,
                       QStringLiteral("Tunnel still %1 after %2 s: %3")
                           .arg(state)
                           .arg(timeoutSeconds)
                           .arg(lastError.isEmpty() ? QStringLiteral("no error reported yet") : lastError),
                       QString());
            return 2;
        }
        QThread::msleep(ulong(qBound(qint64(1), deadline.remainingTime(), qint64(WAIT_POLL_INTERVAL_MS))));
    }
}

// Runs in the client with the daemon's own files and settings; only asks a running daemon for
// its tunnels, never starts one.
int runDoctor(SingleInstance* instance)
{
    const QString configHome = getKbsaasConfigHomePath();
    JsonReader authReader(configHome + QStringLiteral("/auth.json"));
    JsonReader configReader(configHome + QStringLiteral("/config.json"));
    CredentialsProvider credentialsProvider(&authReader);
    ConfigProvider configProvider(&configReader);
    KbsaasAndroidToolsProvider toolsProvider(configProvider.getAndroidSdkPath());
    NetworkProvider networkProvider;
    applyConfiguredProxy(configProvider, &networkProvider);

    const Doctor doctor(configHome, &credentialsProvider, &networkProvider, &toolsProvider);
    QList<DoctorCheck> checks { doctor.checkConfigHome(), doctor.checkCredentials(), doctor.checkPlatform(),
                                doctor.checkAdb() };
    const bool running = instance->waitForInstanceConnected(0);
    const QVariant instances = running
        ? instance->sendMessage({ { COMMAND_KEY, INSTANCES_COMMAND } }, REPLY_TIMEOUT_MS)
        : QVariant();
    checks += Doctor::checkDaemon(running, instances);

    const QVariantMap document = Doctor::document(checks);
    writeOut(stdout, QJsonDocument(QJsonObject::fromVariantMap(document)).toJson(QJsonDocument::Indented));
    return document.value(EXIT_CODE_KEY).toInt();
}

int runClient(QCoreApplication* app)
{
    QCommandLineParser parser;
    AdbTunnelParser::setupParser(&parser);
    parser.process(*app);
    const QVariantMap message = AdbTunnelParser::getMessageFromParser(parser);
    if (message.isEmpty()) {
        qWarning() << "Bad arguments" << app->arguments();
        writeOut(stdout, parser.helpText().toUtf8());
        return 1;
    }
    const AdbTunnelParser::WaitOptions waitOptions = AdbTunnelParser::getWaitOptions(parser);
    if (!waitOptions.error.isEmpty()) {
        qWarning().noquote() << "Bad arguments:" << waitOptions.error;
        writeOut(stderr, waitOptions.error.toUtf8() + '\n');
        return 1;
    }

    SingleInstance instance(ADBTUNNELD_NAME, singleInstanceDirectory());
    const QString command = message.value(COMMAND_KEY).toString();
    if (command == DOCTOR_COMMAND)
        return runDoctor(&instance);

    if (!instance.waitForInstanceConnected(0)) {
        if (command != START_COMMAND && command != CONNECT_COMMAND) {
            printResult({ { RUNNING, false } });
            return 0;
        }
        if (!startServer(&instance)) {
            printError(2, QStringLiteral("Failed to start 'kbadbtunneld'."), QString());
            return 2;
        }
    } else if (command == START_COMMAND) {
        printResult({ { RUNNING, true } });
        return 0;
    }

    const QVariant reply = instance.sendMessage(message, REPLY_TIMEOUT_MS);
    if (!reply.isValid()) {
        printError(2, QStringLiteral("Invalid response"), QString());
        return 2;
    }

    if (command == STOP_COMMAND) {
        if (instance.waitForInstanceDisconnected(DAEMON_STOP_TIMEOUT_MS)) {
            printResult({ { RUNNING, false } });
            return 0;
        }
        printError(2, QStringLiteral("Failed to stop 'kbadbtunneld'."), QString());
        return 2;
    }

    if (waitOptions.wait)
        return waitForTunnel(&instance, message.value(ID_KEY).toString(), waitOptions.timeoutSeconds);

    QVariantMap result = reply.canConvert<QVariantMap>() ? reply.toMap() : QVariantMap();
    result.insert(RUNNING, true);
    printResult(result);
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    LogHandler::install(QStringLiteral("%1/%2.log").arg(getKbsaasConfigHomePath(), ADBTUNNELD_NAME),
                        LogHandler::Quiet, QString::fromLatin1(MESSAGE_PATTERN));
    AdbTunnelLogger::installAdbTunnelLogCategory();
    SslLibs::preload();

    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(ORGANIZATION_NAME);
    QCoreApplication::setOrganizationDomain(QStringLiteral("tarnwright.com"));
    QCoreApplication::setApplicationName(ADBTUNNELD_NAME);
    QCoreApplication::setApplicationVersion(
        EnvVars::getString("KBADBTUNNELD_VERSION", QStringLiteral("1.16.0")));
    QCoreApplication::addLibraryPath(QCoreApplication::applicationDirPath() + QStringLiteral("/plugins"));

    if (app.arguments().constLast() == DAEMON_FLAG)
        return mainServer(&app);

    qDebug() << "==== CLIENT starting args:" << app.arguments() << "====";
    const int exitCode = runClient(&app);
    qDebug() << "==== CLIENT exit code:" << exitCode << "====";
    return exitCode;
}
