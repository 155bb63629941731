#pragma once

// What the tests that run real programs share: free loopback ports, checksums, the platform
// simulator as a process, and the real adb on a server of the test's own (never the user's 5037,
// never the user's ~/.android).

#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

namespace TestKit {
// A loopback port that was free a moment ago.
quint16 freeLoopbackPort();
// SHA-256 of a file's content, in hex; empty when the file cannot be read.
QByteArray sha256(const QString& file);
// Debian's adb.
QString adbPath();
} // namespace TestKit

// kbplatform-sim as a child process; the destructor stops it.
class SimProcess
{
public:
    ~SimProcess() { stop(); }

    // Where the simulator's standard error goes (appended); default: kept in the pipe.
    void setLogFile(const QString& path) { m_logFile = path; }
    // Starts the simulator and reads its ready line; false (with the reason in error) otherwise.
    bool start(const QStringList& arguments, QString* error = nullptr);
    // SIGTERM to this pid (the simulator ends its shells and exits), SIGKILL if it lingers.
    void stop();

    QString baseUrl() const { return ready.value(QStringLiteral("base_url")).toString(); }
    QJsonObject instance(int index = 0) const;
    QProcess& process() { return m_process; }

    QJsonObject ready;

private:
    QProcess m_process;
    QString m_logFile;
};

struct AdbResult
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// The real adb, always on a server port of the test's own and with its keys in a private home
// (a temporary one unless the test names one). start() runs the server as this process's child,
// so the test holds its pid; a client may also start one on the port (after a kill-server, say).
// stop() or the destructor ends whichever runs.
class AdbServer
{
public:
    explicit AdbServer(const QString& home = QString());
    ~AdbServer() { stop(); }

    // False when the server does not listen within a few seconds.
    bool start();
    quint16 port() const { return m_port; }
    // env, made to reach this server and no other.
    QProcessEnvironment environment(QProcessEnvironment env = QProcessEnvironment::systemEnvironment()) const;
    // For tests whose code under test runs adb itself: this process's environment, the same way.
    void applyToThisProcess() const;
    AdbResult run(const QStringList& arguments, int timeoutMs = 120000) const;
    void stop();

private:
    QTemporaryDir m_tempHome;
    QString m_home;
    QProcess m_server;
    quint16 m_port;
    bool m_stopped = false;
};
