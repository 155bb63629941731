#pragma once

// Runs kbplatform-sim (and the real adb on a server port of its own) for the simulator tests.

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

class SimProcess
{
public:
    ~SimProcess() { stop(); }

    // Starts the simulator and reads its ready line; false (with the reason in error) otherwise.
    bool start(const QStringList& arguments, QString* error)
    {
        m_process.start(QStringLiteral(KBPLATFORM_SIM_PATH), arguments);
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

    void stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.terminate(); // SIGTERM to this pid: the simulator ends its shells and exits
        if (!m_process.waitForFinished(10000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }

    QString baseUrl() const { return ready.value(QStringLiteral("base_url")).toString(); }
    QJsonObject instance(int index = 0) const
    {
        return ready.value(QStringLiteral("instances")).toArray().at(index).toObject();
    }
    QProcess& process() { return m_process; }

    QJsonObject ready;

private:
    QProcess m_process;
};

// A port that was free a moment ago, for an adb server of the test's own.
inline quint16 freeLoopbackPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    return server.serverPort();
}

struct AdbResult
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// The real adb, always on the test's own server port and with its keys in a temporary home.
class AdbServer
{
public:
    AdbServer()
        : m_port(freeLoopbackPort())
    { }
    ~AdbServer() { stop(); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("ANDROID_SERIAL"));
        // adb does not start a server for an explicit ADB_SERVER_SOCKET.
        env.remove(QStringLiteral("ADB_SERVER_SOCKET"));
        env.insert(QStringLiteral("ANDROID_ADB_SERVER_PORT"), QString::number(m_port));
        env.insert(QStringLiteral("HOME"), m_home.path());
        return env;
    }

    AdbResult run(const QStringList& arguments, int timeoutMs = 120000) const
    {
        QProcess process;
        process.setProcessEnvironment(environment());
        process.start(QStringLiteral(KB_ADB_PATH), arguments);
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

    void stop()
    {
        if (m_stopped)
            return;
        m_stopped = true;
        run({ QStringLiteral("kill-server") }, 20000);
        // The server's pid is not ours to know: it is gone once its port refuses connections.
        for (int attempt = 0; attempt < 50; ++attempt) {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, m_port);
            if (!probe.waitForConnected(200))
                return;
            probe.abort();
            QTest::qWait(100);
        }
        qWarning("the test's adb server on port %d did not go away", m_port);
    }

private:
    QTemporaryDir m_home;
    quint16 m_port;
    bool m_stopped = false;
};
