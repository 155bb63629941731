#include "testkit.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <csignal>
#include <sys/prctl.h>

namespace {
bool listens(quint16 port)
{
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, port);
    return probe.waitForConnected(200);
}
} // namespace

quint16 TestKit::freeLoopbackPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    return server.serverPort();
}

QByteArray TestKit::sha256(const QString& file)
{
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&f);
    return hash.result().toHex();
}

QString TestKit::adbPath()
{
    return QStringLiteral("/usr/lib/android-sdk/platform-tools/adb");
}

bool SimProcess::start(const QStringList& arguments, QString* error)
{
    QString ignored;
    if (!error)
        error = &ignored;
    if (!m_logFile.isEmpty())
        m_process.setStandardErrorFile(m_logFile, QIODevice::Append);
#ifdef KBPLATFORM_SIM_PATH
    m_process.start(QStringLiteral(KBPLATFORM_SIM_PATH), arguments);
#else
    Q_UNUSED(arguments)
    *error = QStringLiteral("the simulator is not built (KB_BUILD_TOOLS=OFF)");
    return false;
#endif
    if (!m_process.waitForStarted(10000)) {
        *error = m_process.errorString();
        return false;
    }
    QDeadlineTimer deadline(30000);
    while (!m_process.canReadLine()) {
        if (deadline.hasExpired() || !m_process.waitForReadyRead(int(deadline.remainingTime()))) {
            *error = QStringLiteral("no ready line; stderr: ")
                + QString::fromUtf8(m_process.readAllStandardError());
            return false;
        }
    }
    ready = QJsonDocument::fromJson(m_process.readLine()).object();
    return !ready.isEmpty();
}

void SimProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(10000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QJsonObject SimProcess::instance(int index) const
{
    return ready.value(QStringLiteral("instances")).toArray().at(index).toObject();
}

AdbServer::AdbServer(const QString& home)
    : m_home(home.isEmpty() ? m_tempHome.path() : home)
    , m_port(TestKit::freeLoopbackPort())
{ }

QProcessEnvironment AdbServer::environment(QProcessEnvironment env) const
{
    env.remove(QStringLiteral("ANDROID_SERIAL"));
    // adb does not start a server for an explicit ADB_SERVER_SOCKET; the port variable is what
    // makes it start its own, on loopback.
    env.remove(QStringLiteral("ADB_SERVER_SOCKET"));
    env.insert(QStringLiteral("ANDROID_ADB_SERVER_PORT"), QString::number(m_port));
    env.insert(QStringLiteral("HOME"), m_home);
    env.insert(QStringLiteral("ANDROID_USER_HOME"), m_home + QStringLiteral("/.android"));
    return env;
}

bool AdbServer::start()
{
    m_stopped = false;
    m_server.setProcessEnvironment(environment());
    m_server.setStandardOutputFile(QProcess::nullDevice());
    m_server.setStandardErrorFile(QProcess::nullDevice());
    // Should the test crash, the server goes with it instead of lingering on its port.
    m_server.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    m_server.start(TestKit::adbPath(),
                   { QStringLiteral("-P"), QString::number(m_port), QStringLiteral("nodaemon"),
                     QStringLiteral("server") });
    if (!m_server.waitForStarted(10000))
        return false;
    return QTest::qWaitFor([this] { return listens(m_port) || m_server.state() == QProcess::NotRunning; },
                           15000)
        && m_server.state() == QProcess::Running;
}

void AdbServer::applyToThisProcess() const
{
    const QProcessEnvironment env = environment(QProcessEnvironment());
    const QStringList names = env.keys();
    for (const QString& name : names)
        qputenv(name.toLocal8Bit().constData(), env.value(name).toLocal8Bit());
    qunsetenv("ADB_SERVER_SOCKET");
    qunsetenv("ANDROID_SERIAL");
}

AdbResult AdbServer::run(const QStringList& arguments, int timeoutMs) const
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(TestKit::adbPath(), arguments);
    AdbResult result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        result.err = "timed out";
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

void AdbServer::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    if (m_server.state() != QProcess::NotRunning) {
        m_server.terminate();
        if (!m_server.waitForFinished(10000)) {
            m_server.kill();
            m_server.waitForFinished(5000);
        }
    }
    // A server that a client started is not our child: ask it to go, then see the port closed.
    if (listens(m_port))
        run({ QStringLiteral("kill-server") }, 20000);
    if (!QTest::qWaitFor([this] { return !listens(m_port); }, 5000))
        qWarning("the test's adb server on port %d did not go away", m_port);
}
