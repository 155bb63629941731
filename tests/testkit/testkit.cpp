#include "testkit.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtEndian>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <sys/prctl.h>
#include <sys/stat.h>

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

QByteArray TestKit::readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray TestKit::randomBytes(qsizetype size, quint32 seed)
{
    QByteArray bytes(size + 3, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32*>(bytes.data()), bytes.size() / 4);
    bytes.truncate(size);
    return bytes;
}

bool TestKit::echoesThrough(quint16 port, qsizetype size, quint32 seed, int timeoutMs)
{
    const QByteArray data = randomBytes(size, seed);
    QTcpSocket client;
    QByteArray back;
    // Driven by the socket's own signals: QTest::qWaitFor sleeps in steps that would cost more
    // than a short exchange itself.
    QEventLoop loop;
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    QObject::connect(&client, &QTcpSocket::connected, &loop, [&] { client.write(data); });
    QObject::connect(&client, &QTcpSocket::readyRead, &loop, [&] {
        back += client.readAll();
        if (back.size() >= data.size())
            loop.quit();
    });
    QObject::connect(&client, &QTcpSocket::errorOccurred, &loop, &QEventLoop::quit);
    client.connectToHost(QHostAddress::LocalHost, port);
    loop.exec();
    client.disconnectFromHost();
    return back == data;
}

EchoServer::EchoServer()
{
    listen(QHostAddress::LocalHost, 0);
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, socket, [socket] { socket->write(socket->readAll()); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

bool TestKit::writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

int TestKit::fileMode(const QString& path)
{
    struct stat info = {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

bool TestKit::waitForListener(quint16 port, int timeoutMs)
{
    return QTest::qWaitFor([port] { return listens(port); }, timeoutMs);
}

QByteArray TestKit::localFrame(const QByteArray& payload)
{
    QByteArray bytes(8, '\0');
    qToBigEndian<qint32>(qint32(payload.size() + 4), bytes.data());
    qToBigEndian<quint32>(quint32(payload.size()), bytes.data() + 4);
    return bytes + payload;
}

QString TestKit::adbPath()
{
    return QStringLiteral("/usr/lib/android-sdk/platform-tools/adb");
}

RunResult TestKit::run(const QString& program, const QStringList& arguments, const QProcessEnvironment& env,
                       int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, arguments);
    RunResult result;
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    result.exitStatus = process.exitStatus();
    result.exitCode = result.finished && result.exitStatus == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = result.finished ? process.readAllStandardError() : QByteArray("timed out");
    return result;
}

QList<qint64> TestKit::daemonPids(const QByteArray& log)
{
    static const QRegularExpression started(
        QStringLiteral("\\[kbadbtunneld:(\\d+):[^\\]]*\\] \\[debug\\] ==== SERVER starting"));
    QList<qint64> pids;
    auto it = started.globalMatch(QString::fromUtf8(log));
    while (it.hasNext()) {
        const qint64 pid = it.next().captured(1).toLongLong();
        if (pid > 0)
            pids.append(pid);
    }
    return pids;
}

bool TestKit::processAlive(qint64 pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

void TestKit::endProcess(QProcess& process, int graceMs)
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(graceMs)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void TestKit::killDaemons(const QByteArray& log)
{
    for (const qint64 pid : daemonPids(log)) {
        if (processAlive(pid))
            ::kill(pid_t(pid), SIGKILL);
    }
}

HttpResult TestKit::http(const QByteArray& verb, const QUrl& url, const QByteArray& body,
                         const QByteArray& apiToken, int timeoutMs)
{
    QNetworkAccessManager manager;
    manager.setProxy(QNetworkProxy::NoProxy);
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    if (!apiToken.isEmpty())
        request.setRawHeader("x-api-token", apiToken);
    request.setTransferTimeout(timeoutMs);
    std::unique_ptr<QNetworkReply> reply(manager.sendCustomRequest(request, verb, body));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    if (!reply->isFinished() && !finished.wait(30000))
        qWarning("no HTTP reply from %s", qPrintable(url.toString()));
    HttpResult result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.error = reply->error();
    if (reply->isOpen())
        result.body = reply->readAll();
    return result;
}

QString TestKit::makeSelfSignedCertificate(const QString& dir)
{
    const QStringList arguments
        = QStringLiteral("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
                         "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost")
              .split(QLatin1Char(' '));
    const RunResult openssl
        = run(QStringLiteral("openssl"),
              arguments
                  + QStringList { QStringLiteral("-keyout"), dir + QStringLiteral("/key.pem"),
                                  QStringLiteral("-out"), dir + QStringLiteral("/cert.pem") },
              QProcessEnvironment::systemEnvironment(), 30000);
    return openssl.exitCode == 0 ? QString() : QString::fromUtf8(openssl.err);
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
    TestKit::endProcess(m_process);
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
    return TestKit::run(TestKit::adbPath(), arguments, environment(), timeoutMs);
}

void AdbServer::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    TestKit::endProcess(m_server);
    // A server that a client started is not our child: ask it to go, then see the port closed.
    if (listens(m_port))
        run({ QStringLiteral("kill-server") }, 20000);
    if (!QTest::qWaitFor([this] { return !listens(m_port); }, 5000))
        qWarning("the test's adb server on port %d did not go away", m_port);
}
