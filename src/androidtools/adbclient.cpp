#include "adbclient.h"

#include "androidtools/adboutputparser.h"
#include "androidtools/androidtoolsprovider.h"

#include <QDebug>
#include <QEvent>
#include <QEventLoop>
#include <QHostAddress>
#include <QRegularExpression>
#include <QTimer>

#include <functional>

const char* const AdbClient::MAX_ADB_CONNECT_ATTEMPTS_ENV = "KB_MAX_ADB_CONNECT_ATTEMPTS";
const char* const AdbClient::ABI_ERROR1_MSG = "INSTALL_FAILED_CPU_ABI_INCOMPATIBLE";
const char* const AdbClient::ABI_ERROR2_MSG = "INSTALL_FAILED_NO_MATCHING_ABIS";
const char* const AdbClient::UPDATE_INCOMPATIBLE_MSG = "INSTALL_FAILED_UPDATE_INCOMPATIBLE";
const char* const AdbClient::INCONSISTENT_CERTIFICATES_MSG = "INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES";

namespace {

// Enough to report why a pull failed; the progress of a large pull is otherwise unbounded.
const int MAX_PULL_OUTPUT = 64 * 1024;

QString commandLine(const QString& program, const QStringList& arguments)
{
    return (QStringList(program) + arguments).join(QLatin1Char(' '));
}

// `adb shell` joins its arguments with spaces for the device's sh.
QString shellQuote(const QString& word)
{
    static const QRegularExpression safe(QStringLiteral("^[A-Za-z0-9_./:=@%+,-]+$"));
    if (safe.match(word).hasMatch())
        return word;
    QString quoted = word;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

} // namespace

struct AdbClient::Run
{
    enum Outcome { NotStarted, TimedOut, Finished };
    Outcome outcome = NotStarted;
    int exitCode = -1;
    QString output; // stdout, or everything with merged channels; trimmed
    QString errorText; // stderr, trimmed
    QString errorString; // why the process did not start or finish
    QString command;

    bool succeeded() const { return outcome == Finished && exitCode == 0; }
    QString allOutput() const
    {
        if (errorText.isEmpty())
            return output;
        return output.isEmpty() ? errorText : output + QLatin1Char('\n') + errorText;
    }
};

AdbClient::AdbClient(const QString& adbSerial)
    : QObject(nullptr)
    , m_path(AndroidToolsProvider::getInstance()->getAdbPath())
    , m_adbSerial(adbSerial)
    , m_pullProcess(new QProcess(this))
{
    m_pullProcess->setProcessChannelMode(QProcess::MergedChannels);
    connect(m_pullProcess, &QProcess::started, this, &AdbClient::onPullStarted);
    connect(m_pullProcess, &QProcess::readyReadStandardOutput, this, &AdbClient::onPullReadyRead);
    connect(m_pullProcess, &QProcess::finished, this, &AdbClient::onPullFinished);
    connect(m_pullProcess, &QProcess::errorOccurred, this, &AdbClient::onPullErrorOccurred);
}

AdbClient::~AdbClient()
{
    if (m_pullProcess->state() != QProcess::NotRunning) {
        m_pullProcess->disconnect(this);
        m_pullProcess->kill();
        m_pullProcess->waitForFinished(ADB_PROCESS_TIMEOUT_MS);
    }
}

AdbClient::Run AdbClient::runAdb(const QStringList& arguments, QProcess::ProcessChannelMode channelMode,
                                 int finishTimeoutMs) const
{
    Run run;
    run.command = commandLine(m_path, arguments);
    if (m_path.isEmpty()) {
        run.errorString = AndroidToolsProvider::getInstance()->adbNotFoundReason();
        return run;
    }

    // The output is held in memory until adb exits: small for everything but shell, whose output
    // is what the caller asked for.
    QProcess process;
    process.setProcessChannelMode(channelMode);
    const auto readOutput = [&] {
        run.output = AdbOutputParser::toText(process.readAllStandardOutput());
        if (channelMode == QProcess::SeparateChannels)
            run.errorText = AdbOutputParser::toText(process.readAllStandardError());
    };
    process.start(m_path, arguments);
    if (!process.waitForStarted(ADB_PROCESS_TIMEOUT_MS)) {
        run.errorString = process.errorString();
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(ADB_PROCESS_TIMEOUT_MS);
        }
        return run;
    }
    if (!process.waitForFinished(finishTimeoutMs) && process.state() != QProcess::NotRunning) {
        run.outcome = Run::TimedOut;
        run.errorString = process.errorString();
        process.kill();
        process.waitForFinished(ADB_PROCESS_TIMEOUT_MS);
        readOutput();
        return run;
    }
    run.outcome = Run::Finished;
    if (process.exitStatus() == QProcess::NormalExit) {
        run.exitCode = process.exitCode();
    } else {
        run.errorString = process.errorString();
    }
    readOutput();
    return run;
}

bool AdbClient::startDetached(QProcess* process, const QStringList& arguments, const char* logPrefix) const
{
    if (!process || m_path.isEmpty()) {
        qWarning().noquote() << logPrefix << "can't run: adb not found";
        return false;
    }
    qDebug().noquote() << logPrefix << commandLine(m_path, arguments);
    process->start(m_path, arguments);
    return true;
}

void AdbClient::connectToAdb()
{
    if (isConnected()) {
        qDebug().noquote() << "[adb][connect]" << m_adbSerial << ": already connected";
        Q_EMIT connectSuccess();
        return;
    }

    const Run run = runAdb({ QStringLiteral("connect"), m_adbSerial });
    if (run.outcome == Run::NotStarted) {
        qCritical().noquote() << "[adb][connect] can't run" << run.command << run.errorString;
        m_rawErrorText = run.errorString;
        Q_EMIT connectError(m_path.isEmpty() ? run.errorString
                                             : QStringLiteral("adb could not run: %1").arg(run.errorString));
        return;
    }
    if (!run.succeeded()) {
        qCritical().noquote() << "[adb][connect]" << m_adbSerial << ": unable to connect:" << run.errorString
                              << run.allOutput();
        m_rawErrorText = run.allOutput();
        const QString detail = run.allOutput().isEmpty() ? run.errorString : run.allOutput();
        Q_EMIT connectError(QStringLiteral("adb connect %1 failed: %2")
                                .arg(m_adbSerial, detail.section(QLatin1Char('\n'), 0, 0)));
        return;
    }

    // adb connect exits with 0 even when nothing answers on the port, so the wait is made for the
    // device to settle, but its outcome is not a reason to fail.
    waitForConnected();
    if (m_deleteDeferred) {
        qDebug().noquote() << "[adb][connect]" << m_adbSerial << ": client released while waiting";
        return;
    }
    qDebug().noquote() << "[adb][connect]" << m_adbSerial << ": connected";
    Q_EMIT connectSuccess();
}

void AdbClient::disconnectFromAdb()
{
    if (!isConnected())
        return;

    const Run run = runAdb({ QStringLiteral("disconnect"), m_adbSerial }, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted)
        qWarning().noquote() << "[adb][disconnect] can't run" << run.command << run.errorString;
    else if (run.succeeded())
        qDebug().noquote() << "[adb][disconnect]" << m_adbSerial << ": disconnected";
    else
        qWarning().noquote() << "[adb][disconnect]" << m_adbSerial << ": unable to disconnect:"
                             << (run.output.isEmpty() ? run.errorString : run.output);
}

AdbClient::DeviceState AdbClient::getState() const
{
    const Run run = runAdb({ QStringLiteral("-s"), m_adbSerial, QStringLiteral("get-state") });
    switch (run.outcome) {
    case Run::NotStarted:
        qWarning().noquote() << "[adb][get-state] can't run" << run.command << run.errorString;
        return DISCONNECTED;
    case Run::TimedOut:
        qWarning().noquote() << "[adb][get-state] timeout" << run.command;
        return DISCONNECTED;
    case Run::Finished:
        break;
    }

    switch (AdbOutputParser::parseGetState(run.exitCode, run.output, run.errorText)) {
    case AdbOutputParser::GetStateResult::DeviceFound:
        qDebug() << "[adb][get-state] device found";
        return CONNECTED;
    case AdbOutputParser::GetStateResult::UnrecognizedOutput:
        qWarning().noquote() << "[adb][get-state] exit 0 with unrecognized output" << run.output;
        return DISCONNECTED;
    case AdbOutputParser::GetStateResult::NotFound:
        qDebug().noquote() << "[adb][get-state] device not found yet on" << m_adbSerial;
        return DISCONNECTED;
    case AdbOutputParser::GetStateResult::Connecting:
        qDebug() << "[adb][get-state] device connecting";
        return CONNECTING;
    case AdbOutputParser::GetStateResult::Failed:
        break;
    }
    qWarning().noquote() << QLatin1String("[adb][get-state] error for ") + m_adbSerial
            + QLatin1String("\nstdout:\n") + run.output + QLatin1String("\nstderr:\n") + run.errorText;
    return DISCONNECTED;
}

bool AdbClient::isConnected() const
{
    return getState() == CONNECTED;
}

bool AdbClient::waitForConnected() const
{
    // Read once per process; not a number counts as unset.
    static const int configuredLimit = qEnvironmentVariableIntValue(MAX_ADB_CONNECT_ATTEMPTS_ENV);
    const int limit = configuredLimit == 0 ? DEFAULT_MAX_ADB_CONNECT_ATTEMPTS : configuredLimit;

    QEventLoop loop;
    bool done = false;
    bool connected = false;
    const auto finish = [&](bool success) {
        done = true;
        connected = success;
        loop.quit();
    };
    std::function<void(int)> step = [&](int previousAttempt) {
        const int attempt = previousAttempt + 1;
        qDebug() << "Wait for device connected" << attempt << "/" << limit;
        if (isConnected()) {
            finish(true);
        } else if (attempt == limit) {
            // A negative limit never matches: such a wait ends only when the device connects.
            qWarning() << "Max attempts reached to get the device connected";
            finish(false);
        } else {
            QTimer::singleShot(ADB_CONNECT_ATTEMPT_INTERVAL_MS, &loop, [&step, attempt] { step(attempt); });
        }
    };

    ++m_waitDepth;
    step(0);
    if (!done)
        loop.exec();
    if (--m_waitDepth == 0 && m_deleteDeferred)
        const_cast<AdbClient*>(this)->deleteLater();
    return connected;
}

bool AdbClient::event(QEvent* event)
{
    if (event->type() == QEvent::DeferredDelete && m_waitDepth > 0) {
        m_deleteDeferred = true;
        return true;
    }
    return QObject::event(event);
}

bool AdbClient::isAvailable() const
{
    const int colon = m_adbSerial.lastIndexOf(QLatin1Char(':'));
    if (colon < 0 || m_path.isEmpty())
        return false;
    QHostAddress host;
    if (!host.setAddress(m_adbSerial.left(colon)))
        return false;
    bool ok = false;
    const uint port = m_adbSerial.mid(colon + 1).toUInt(&ok);
    return ok && port < 65536;
}

QString AdbClient::getPath() const
{
    return AndroidToolsProvider::getInstance()->getAdbPath();
}

AdbClient::Error AdbClient::error() const
{
    return classifyError(m_rawErrorText);
}

AdbClient::Error AdbClient::classifyError(const QString& errorText)
{
    if (errorText.contains(QLatin1String(ABI_ERROR2_MSG))
        || errorText.contains(QLatin1String(ABI_ERROR1_MSG)))
        return NO_MATCHING_ABIS;
    if (errorText.contains(QLatin1String(UPDATE_INCOMPATIBLE_MSG)))
        return INSTALL_FAILED_UPDATE_INCOMPATIBLE;
    if (errorText.contains(QLatin1String(INCONSISTENT_CERTIFICATES_MSG)))
        return INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES;
    return UNKNOWN;
}

bool AdbClient::pull(const QString& source, const QString& destination)
{
    const QStringList arguments { QStringLiteral("-s"), m_adbSerial, QStringLiteral("pull"),
                                  QStringLiteral("-p"), source,      destination };
    qDebug().noquote() << "[adb][pull] run" << commandLine(m_path, arguments);
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][pull] can't run" << run.errorString;
        return false;
    }
    if (!run.succeeded()) {
        m_rawErrorText = run.output.isEmpty() ? run.errorString : run.output;
        qWarning().noquote() << "[adb][pull]" << m_adbSerial << ": unable to pull file:" << source
                             << m_rawErrorText;
        return false;
    }
    qDebug().noquote() << "[adb][pull]" << m_adbSerial << ": file pulled with success:" << source;
    return true;
}

bool AdbClient::pullAsync(const QString& source, const QString& destination)
{
    if (isPulling()) {
        qWarning().noquote() << "[adb][pull]" << m_adbSerial << ": a pull is already running";
        return false;
    }
    if (m_path.isEmpty()) {
        m_rawErrorText = QStringLiteral("adb not found");
        qWarning() << "[adb][pull] can't run: adb not found";
        return false;
    }
    const QStringList arguments { QStringLiteral("-s"), m_adbSerial, QStringLiteral("pull"),
                                  QStringLiteral("-p"), source,      destination };
    qDebug().noquote() << "[adb][pull] run" << commandLine(m_path, arguments);
    m_pullOutput.clear();
    m_lastPullProgress = -1;
    m_pullCanceled = false;
    m_pullProcess->start(m_path, arguments);
    return true;
}

void AdbClient::cancelPullAsync()
{
    if (!isPulling())
        return;
    m_pullCanceled = true;
    m_pullProcess->kill();
}

bool AdbClient::isPulling() const
{
    return m_pullProcess->state() != QProcess::NotRunning;
}

void AdbClient::onPullStarted()
{
    Q_EMIT pullStarted();
}

void AdbClient::onPullReadyRead()
{
    m_pullOutput.append(m_pullProcess->readAllStandardOutput());
    if (m_pullOutput.size() > MAX_PULL_OUTPUT)
        m_pullOutput.remove(0, m_pullOutput.size() - MAX_PULL_OUTPUT);
    const int percent = AdbOutputParser::lastPullProgress(m_pullOutput);
    if (percent > m_lastPullProgress) {
        m_lastPullProgress = percent;
        Q_EMIT pullProgress(percent);
    }
}

void AdbClient::onPullFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    onPullReadyRead();
    if (m_pullCanceled) {
        qDebug().noquote() << "[adb][pull]" << m_adbSerial << ": canceled";
        Q_EMIT pullCanceled();
        return;
    }
    if (exitStatus == QProcess::NormalExit && exitCode == 0) {
        qDebug().noquote() << "[adb][pull]" << m_adbSerial
                           << ": file pulled with success:" << m_pullProcess->arguments().value(4);
        if (m_lastPullProgress < 100) {
            m_lastPullProgress = 100;
            Q_EMIT pullProgress(100);
        }
        Q_EMIT pullSucceeded();
        return;
    }
    const int code = exitStatus == QProcess::NormalExit ? exitCode : -1;
    m_rawErrorText = AdbOutputParser::toText(m_pullOutput);
    if (m_rawErrorText.isEmpty())
        m_rawErrorText = m_pullProcess->errorString();
    qWarning().noquote() << "[adb][pull]error:" << code << m_rawErrorText;
    Q_EMIT pullError(code);
}

void AdbClient::onPullErrorOccurred(QProcess::ProcessError processError)
{
    // A crash or a kill also ends in finished(); only a failed start ends here alone.
    if (processError != QProcess::FailedToStart)
        return;
    if (m_pullCanceled) {
        Q_EMIT pullCanceled();
        return;
    }
    m_rawErrorText = m_pullProcess->errorString();
    qWarning().noquote() << "[adb][pull] can't run" << m_rawErrorText;
    Q_EMIT pullError(-1);
}

bool AdbClient::push(const QString& source, const QString& destination)
{
    const QStringList arguments { QStringLiteral("-s"), m_adbSerial, QStringLiteral("push"), source,
                                  destination };
    qDebug().noquote() << "[adb][push] run" << commandLine(m_path, arguments);
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][push] can't run" << run.errorString;
        return false;
    }
    if (!run.succeeded()) {
        m_rawErrorText = run.output.isEmpty() ? run.errorString : run.output;
        qWarning().noquote() << "[adb][push]" << m_adbSerial << ": unable to push file:" << source
                             << m_rawErrorText;
        return false;
    }
    qDebug().noquote() << "[adb][push]" << m_adbSerial << ": file pushed with success:" << source;
    return true;
}

bool AdbClient::install(const QString& apkPath, bool replace)
{
    QStringList arguments { QStringLiteral("-s"), m_adbSerial, QStringLiteral("install") };
    if (replace)
        arguments.append(QStringLiteral("-r"));
    arguments.append(apkPath);
    qDebug().noquote() << "[adb][install] run" << commandLine(m_path, arguments);
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][install] can't run" << run.errorString;
        return false;
    }
    // adb has exited with 0 after a failed install on some versions: the output decides.
    if (run.outcome != Run::Finished || !AdbOutputParser::isInstallSuccess(run.output)) {
        m_rawErrorText = run.output.isEmpty() ? run.errorString : run.output;
        if (AdbOutputParser::isAlreadyInstalled(run.output))
            qWarning().noquote() << "[adb][install]" << m_adbSerial << ": unable to install file:" << apkPath
                                 << "- the package is already installed, install it with replace";
        else
            qWarning().noquote() << "[adb][install]" << m_adbSerial << ": unable to install file:" << apkPath
                                 << m_rawErrorText;
        return false;
    }
    qDebug().noquote() << "[adb][install]" << m_adbSerial << ": file installed with success:" << apkPath;
    return true;
}

bool AdbClient::uninstall(const QString& packageName, bool acceptFailure)
{
    const QStringList arguments { QStringLiteral("-s"), m_adbSerial, QStringLiteral("uninstall"),
                                  packageName };
    qDebug().noquote() << "[adb][uninstall] run" << commandLine(m_path, arguments);
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][uninstall] can't run" << run.errorString;
        return false;
    }
    if (run.outcome == Run::TimedOut) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][uninstall]" << m_adbSerial << ": unable to uninstall:" << packageName
                             << run.errorString;
        return false;
    }
    if (!run.succeeded() || !run.output.contains(QLatin1String("Success"))) {
        m_rawErrorText = run.output;
        if (acceptFailure) {
            qDebug().noquote() << "[adb][uninstall]" << m_adbSerial
                               << ": unable to uninstall package:" << packageName << run.output
                               << ": but failure accepted !";
            return true;
        }
        qWarning().noquote() << "[adb][uninstall]" << m_adbSerial
                             << ": unable to uninstall package:" << packageName << run.output;
        return false;
    }
    qDebug().noquote() << "[adb][uninstall]" << m_adbSerial
                       << ": package uninstall with success:" << packageName;
    return true;
}

bool AdbClient::shell(const QStringList& arguments, int timeoutMs, QString* output)
{
    const QStringList adbArguments
        = QStringList { QStringLiteral("-s"), m_adbSerial, QStringLiteral("shell") } + arguments;
    qDebug().noquote() << "[adb][shell] command:" << arguments.join(QLatin1Char(' '));
    const Run run = runAdb(adbArguments, QProcess::SeparateChannels, timeoutMs);
    if (output)
        *output = run.output;
    switch (run.outcome) {
    case Run::NotStarted:
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][shell]" << m_adbSerial
                             << "Unable to start process:" << run.errorString;
        return false;
    case Run::TimedOut:
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][shell]" << m_adbSerial
                             << "Unable to finish process:" << run.errorString;
        return false;
    case Run::Finished:
        break;
    }
    if (!run.succeeded()) {
        m_rawErrorText = run.allOutput();
        qWarning().noquote() << "[adb][shell]" << m_adbSerial << "- exit code:" << run.exitCode
                             << m_rawErrorText;
        return false;
    }
    return true;
}

bool AdbClient::broadcastIntent(const QString& action, const QVariantMap& extras)
{
    QStringList arguments { QStringLiteral("-s"),        m_adbSerial,
                            QStringLiteral("shell"),     QStringLiteral("am"),
                            QStringLiteral("broadcast"), QStringLiteral("-a"),
                            shellQuote(action) };
    for (auto it = extras.cbegin(); it != extras.cend(); ++it) {
        QString option = QStringLiteral("--es");
        QString value = it.value().toString();
        switch (it.value().typeId()) {
        case QMetaType::Bool:
            option = QStringLiteral("--ez");
            value = it.value().toBool() ? QStringLiteral("true") : QStringLiteral("false");
            break;
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::Short:
        case QMetaType::UShort:
            option = QStringLiteral("--ei");
            break;
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
            option = QStringLiteral("--el");
            break;
        case QMetaType::Double:
        case QMetaType::Float:
            option = QStringLiteral("--ef");
            break;
        default:
            break;
        }
        arguments << option << shellQuote(it.key()) << shellQuote(value);
    }
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][broadcastIntent] can't run" << run.errorString;
        return false;
    }
    qDebug().noquote() << "[adb][broadcastIntent] output:" << run.output;
    if (!run.succeeded()) {
        m_rawErrorText = run.output.isEmpty() ? run.errorString : run.output;
        return false;
    }
    return true;
}

bool AdbClient::startActivity(const QString& packageName, const QString& activity)
{
    const QStringList arguments { QStringLiteral("-s"),
                                  m_adbSerial,
                                  QStringLiteral("shell"),
                                  QStringLiteral("am"),
                                  QStringLiteral("start"),
                                  QStringLiteral("-n"),
                                  shellQuote(QStringLiteral("%1/%2").arg(packageName, activity)) };
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (run.outcome == Run::NotStarted) {
        m_rawErrorText = run.errorString;
        qWarning().noquote() << "[adb][startActivity] can't run" << run.errorString;
        return false;
    }
    // am reports an unknown activity with "Error:" and, on older systems, exit code 0.
    if (!run.succeeded() || run.output.contains(QLatin1String("Error"))) {
        m_rawErrorText = run.output.isEmpty() ? run.errorString : run.output;
        qWarning().noquote() << "[adb][startActivity]" << m_adbSerial
                             << ": unable to start activity:" << m_rawErrorText;
        return false;
    }
    qDebug().noquote() << "[adb][startActivity]" << m_adbSerial << ": activity started:" << packageName
                       << activity;
    return true;
}

bool AdbClient::forward(int localPort, int remotePort)
{
    if (localPort <= 0 || localPort > 65535 || remotePort <= 0 || remotePort > 65535) {
        m_rawErrorText = QStringLiteral("invalid port");
        qWarning().noquote() << "[adb][forward]" << m_adbSerial << ": invalid ports" << localPort
                             << remotePort;
        return false;
    }
    const QStringList arguments { QStringLiteral("-s"), m_adbSerial, QStringLiteral("forward"),
                                  QStringLiteral("tcp:%1").arg(localPort),
                                  QStringLiteral("tcp:%1").arg(remotePort) };
    const Run run = runAdb(arguments, QProcess::MergedChannels);
    if (!run.succeeded()) {
        m_rawErrorText = run.output.isEmpty() ? run.errorString : run.output;
        qWarning().noquote() << "[adb][forward]" << m_adbSerial
                             << ": unable to set forward rule:" << m_rawErrorText;
        return false;
    }
    qDebug().noquote() << "[adb][forward]" << m_adbSerial << ": set forward rule with success";
    return true;
}

QString AdbClient::getProp(const QString& adbSerial, const QString& property) const
{
    const Run run = runAdb({ QStringLiteral("-s"), adbSerial, QStringLiteral("shell"),
                             QStringLiteral("getprop"), shellQuote(property) });
    if (!run.succeeded()) {
        qWarning().noquote() << "[adb][getprop]" << adbSerial << property << ": failed:"
                             << (run.outcome == Run::Finished ? run.allOutput() : run.errorString);
        return QString();
    }
    return run.output;
}

QString AdbClient::getAndroidVersion() const
{
    return getProp(m_adbSerial, QStringLiteral("ro.build.version.release"));
}

QString AdbClient::getDeviceName() const
{
    const QString manufacturer = getProp(m_adbSerial, QStringLiteral("ro.product.manufacturer"));
    const QString product = getProp(m_adbSerial, QStringLiteral("ro.build.product"));
    return QStringList({ manufacturer, product }).join(QLatin1Char(' ')).trimmed();
}

QStringList AdbClient::getRealDevices() const
{
    const Run run = runAdb({ QStringLiteral("devices") });
    if (run.outcome == Run::NotStarted) {
        qWarning().noquote() << "[adb]"
                             << "Can't run command:" << run.command << run.errorString;
        return {};
    }
    if (run.outcome == Run::TimedOut) {
        qWarning().noquote() << "[adb][getAdbDevices] waitForFinished() failed:" << run.errorString;
        return {};
    }
    if (!run.succeeded()) {
        qWarning().noquote() << "[adb]" << run.command << "- exit code:" << run.exitCode << run.allOutput();
        return {};
    }

    QStringList serials;
    const QList<AdbOutputParser::Device> devices = AdbOutputParser::parseDevices(run.output.toLocal8Bit());
    for (const AdbOutputParser::Device& device : devices) {
        // Only a usable device can be asked for its properties.
        if (device.state != QLatin1String("device") || AdbOutputParser::isNetworkSerial(device.serial))
            continue;
        if (!getProp(device.serial, QStringLiteral("ro.kestrelbox.version")).isEmpty())
            continue;
        qDebug().noquote() << "[adb][getAdbDevices] ADB device found:" << device.serial;
        serials.append(device.serial);
    }
    return serials;
}

bool AdbClient::connectToAdbWithProcess(const QString& adbSerial, QProcess* process) const
{
    qDebug().noquote() << QLatin1String("[adb][connect] ") + adbSerial;
    return startDetached(process, { QStringLiteral("connect"), adbSerial }, "[adb][connect]");
}

bool AdbClient::logcat(QProcess* process, const QStringList& filterSpecs) const
{
    return startDetached(process,
                         QStringList { QStringLiteral("-s"), m_adbSerial, QStringLiteral("logcat"),
                                       QStringLiteral("-v"), QStringLiteral("time") }
                             + filterSpecs,
                         "[adb][logcat]");
}

bool AdbClient::reboot(QProcess* process) const
{
    return startDetached(process, { QStringLiteral("-s"), m_adbSerial, QStringLiteral("reboot") },
                         "[adb][reboot]");
}
