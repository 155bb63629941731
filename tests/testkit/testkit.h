#pragma once

// What the tests that run real programs share: free loopback ports, checksums, a process runner,
// the daemon's log, HTTP calls, a self-signed certificate, the platform simulator as a process,
// and the real adb on a server of the test's own (never the user's 5037, never ~/.android).

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QProcess>
#include <QStringList>
#include <QTcpServer>
#include <QTemporaryDir>

// What a program run to its end left behind. exitCode is -1 when it crashed or was killed for
// overrunning its time.
struct RunResult
{
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::NormalExit;
    bool finished = false;
    QByteArray out;
    QByteArray err;
    QJsonObject json() const { return QJsonDocument::fromJson(out).object(); }
    QJsonObject errorJson() const { return QJsonDocument::fromJson(err).object(); }
};
using AdbResult = RunResult;

struct HttpResult
{
    int status = 0;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QByteArray body;
    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

namespace TestKit {
// A loopback port that was free a moment ago.
quint16 freeLoopbackPort();
// SHA-256 of a file's content, in hex; empty when the file cannot be read.
QByteArray sha256(const QString& file);
// size pseudo-random bytes, the same for the same seed.
QByteArray randomBytes(qsizetype size, quint32 seed);
// Sends size pseudo-random bytes to the loopback port while reading what comes back, with the
// event loop running (the echoing end may live in this thread); true when all came back intact
// within timeoutMs.
bool echoesThrough(quint16 port, qsizetype size, quint32 seed, int timeoutMs = 60000);
// A file's content; empty when it cannot be read.
QByteArray readFile(const QString& path);
// Replaces path's content; false when it cannot be written.
bool writeFile(const QString& path, const QByteArray& content);
// The permission bits of path (st_mode & 07777); -1 when it does not exist.
int fileMode(const QString& path);
// Whether something accepts connections on the loopback port within timeoutMs.
bool waitForListener(quint16 port, int timeoutMs = 15000);
// A frame of the daemon's local socket, built by hand so that a change to the wire format fails
// the tests instead of changing both ends together.
QByteArray localFrame(const QByteArray& payload);
// Debian's adb.
QString adbPath();
// Runs program to its end (killed after timeoutMs).
RunResult run(const QString& program, const QStringList& arguments, const QProcessEnvironment& env,
              int timeoutMs = 60000);
// The pids of every kbadbtunneld that logged its start in log, oldest first.
QList<qint64> daemonPids(const QByteArray& log);
bool processAlive(qint64 pid);
// SIGTERM, then SIGKILL when the process has not ended within graceMs.
void endProcess(QProcess& process, int graceMs = 10000);
// SIGKILL to every daemon of log that still runs: a test's last resort after "stop".
void killDaemons(const QByteArray& log);
// One HTTP request, never through a proxy; status 0 when no answer came.
HttpResult http(const QByteArray& verb, const QUrl& url, const QByteArray& body = QByteArray(),
                const QByteArray& apiToken = QByteArray(), int timeoutMs = 0);
// dir/cert.pem and dir/key.pem: an EC certificate for 127.0.0.1 and localhost, valid two days.
// Empty on success, else what openssl said.
QString makeSelfSignedCertificate(const QString& dir);
} // namespace TestKit

// A loopback server that sends back whatever its clients send: the far end of forwarded streams.
class EchoServer : public QTcpServer
{
public:
    EchoServer();
    // The server as adb names it in "forward" and "reverse" rules.
    QString adbTarget() const { return QStringLiteral("tcp:%1").arg(serverPort()); }
};

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
