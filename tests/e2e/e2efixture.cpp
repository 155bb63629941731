#include "e2efixture.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

#include <csignal>

QJsonObject E2eFixture::Result::json() const
{
    return QJsonDocument::fromJson(out).object();
}

E2eFixture::E2eFixture()
{
    QDir().mkpath(path(QStringLiteral("home")));
    QDir().mkpath(path(QStringLiteral("sandbox")));
    m_adb = std::make_unique<AdbServer>(path(QStringLiteral("home")));
    if (!m_adb->start())
        qWarning("the fixture's adb server did not start");
    writeConfig({});
}

E2eFixture::~E2eFixture()
{
    kbadbtunneld({ QStringLiteral("stop") }, 15000);
    for (const qint64 pid : daemonPids()) {
        if (::kill(pid_t(pid), 0) == 0)
            ::kill(pid_t(pid), SIGKILL);
    }
    m_adb->stop();
    for (auto& helper : m_helpers) {
        helper->terminate();
        if (!helper->waitForFinished(5000)) {
            helper->kill();
            helper->waitForFinished(5000);
        }
    }
    m_helpers.clear();
    stopSimulator();
}

QList<qint64> E2eFixture::daemonPids() const
{
    static const QRegularExpression daemonLine(
        QStringLiteral("\\[kbadbtunneld:(\\d+):[^\\]]*\\] \\[debug\\] ==== SERVER starting"));
    QList<qint64> pids;
    auto it = daemonLine.globalMatch(QString::fromUtf8(log()));
    while (it.hasNext()) {
        const qint64 pid = it.next().captured(1).toLongLong();
        if (pid > 0)
            pids.append(pid);
    }
    return pids;
}

qint64 E2eFixture::memoryOf(qint64 pid, const QByteArray& field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong() * 1024;
    }
    return -1;
}

qint64 E2eFixture::daemonPid() const
{
    const QList<qint64> pids = daemonPids();
    for (auto it = pids.crbegin(); it != pids.crend(); ++it) {
        if (::kill(pid_t(*it), 0) == 0)
            return *it;
    }
    return 0;
}

QProcess* E2eFixture::startProcess(const QString& program, const QStringList& arguments)
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardOutputFile(path(QFileInfo(program).fileName() + QStringLiteral(".out")),
                                   QIODevice::Append);
    process->start(program, arguments);
    process->waitForStarted(10000);
    m_helpers.push_back(std::move(process));
    return m_helpers.back().get();
}

QString E2eFixture::adbPath()
{
    return TestKit::adbPath();
}

quint16 E2eFixture::freePort()
{
    return TestKit::freeLoopbackPort();
}

bool E2eFixture::startSimulator(const QStringList& arguments)
{
    m_simulatorArguments = arguments;
    m_simulator = std::make_unique<SimProcess>();
    m_simulator->setLogFile(path(QStringLiteral("simulator.log")));
    const bool started = m_simulator->start(
        QStringList { QStringLiteral("--sandbox"), path(QStringLiteral("sandbox")) } + arguments);
    m_ready = m_simulator->ready;
    return started;
}

void E2eFixture::stopSimulator()
{
    m_simulator.reset();
}

bool E2eFixture::restartSimulator()
{
    stopSimulator();
    return startSimulator(m_simulatorArguments);
}

QString E2eFixture::instanceUuid(int index) const
{
    return m_ready.value(QStringLiteral("instances"))
        .toArray()
        .at(index)
        .toObject()
        .value(QStringLiteral("uuid"))
        .toString();
}

quint16 E2eFixture::devicePort(int index) const
{
    return quint16(m_ready.value(QStringLiteral("instances"))
                       .toArray()
                       .at(index)
                       .toObject()
                       .value(QStringLiteral("device_port"))
                       .toInt());
}

void E2eFixture::useApiToken()
{
    QFile file(path(QStringLiteral("home/auth.json")));
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(QJsonDocument(QJsonObject { { QStringLiteral("api_token"),
                                             m_ready.value(QStringLiteral("api_token")) } })
                   .toJson());
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner); // as a careful user keeps it
}

void E2eFixture::useCredentials(const QString& email, const QString& password)
{
    QFile file(path(QStringLiteral("home/auth.json")));
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(QJsonDocument(QJsonObject { { QStringLiteral("email"), email },
                                           { QStringLiteral("password"), password } })
                   .toJson());
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
}

void E2eFixture::writeConfig(const QJsonObject& config)
{
    QJsonObject content = config;
    if (!content.contains(QStringLiteral("android-sdk-path")))
        content.insert(QStringLiteral("android-sdk-path"), QStringLiteral("/usr/lib/android-sdk"));
    QFile file(path(QStringLiteral("home/config.json")));
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(QJsonDocument(content).toJson());
}

QProcessEnvironment E2eFixture::environment() const
{
    // The daemon runs adb too: both reach the fixture's adb server, with adb's state (keys,
    // known devices) in the fixture's home.
    QProcessEnvironment env = m_adb->environment();
    env.remove(QStringLiteral("KB_LOG_TO_STDERR"));
    env.insert(QStringLiteral("KBSAAS_CONFIG_HOME"), path(QStringLiteral("home")));
    if (!m_ready.isEmpty())
        env.insert(QStringLiteral("KB_PLATFORM_BASE_URL"),
                   m_ready.value(QStringLiteral("base_url")).toString());
    env.insert(m_extraEnv);
    return env;
}

E2eFixture::Result E2eFixture::run(const QString& program, const QStringList& arguments, int timeoutMs) const
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(program, arguments);
    Result result;
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    result.exitCode = process.exitCode();
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

E2eFixture::Result E2eFixture::kbadbtunneld(const QStringList& arguments, int timeoutMs) const
{
    return run(QStringLiteral(KBADBTUNNELD_PATH), arguments, timeoutMs);
}

E2eFixture::Result E2eFixture::adb(const QStringList& arguments, int timeoutMs) const
{
    return run(adbPath(), arguments, timeoutMs);
}

QJsonObject E2eFixture::instance(const QString& uuid) const
{
    const QJsonArray instances = kbadbtunneld({ QStringLiteral("getinstances") })
                                     .json()
                                     .value(QStringLiteral("instances"))
                                     .toArray();
    for (const QJsonValue& value : instances) {
        if (value.toObject().value(QStringLiteral("uuid")).toString() == uuid)
            return value.toObject();
    }
    return {};
}

QJsonObject E2eFixture::waitForState(const QString& uuid, const QString& state, int timeoutMs) const
{
    QJsonObject entry;
    (void)QTest::qWaitFor(
        [&] {
            entry = instance(uuid);
            return entry.value(QStringLiteral("state")).toString() == state;
        },
        timeoutMs);
    return entry;
}

QByteArray E2eFixture::log() const
{
    QFile file(path(QStringLiteral("home/kbadbtunneld.log")));
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

namespace {

QByteArray httpCall(const QUrl& url, const QByteArray& verb, const QByteArray& body, int* status)
{
    QNetworkAccessManager manager;
    manager.setProxy(QNetworkProxy::NoProxy);
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    QNetworkReply* reply = manager.sendCustomRequest(request, verb, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray content = reply->readAll();
    delete reply;
    return content;
}

} // namespace

int E2eFixture::admin(const QString& adminPath, const QJsonObject& body) const
{
    int status = 0;
    httpCall(
        QUrl(m_ready.value(QStringLiteral("base_url")).toString() + QStringLiteral("/_sim/") + adminPath),
        "POST", QJsonDocument(body).toJson(QJsonDocument::Compact), &status);
    return status;
}

QJsonObject E2eFixture::adminGet(const QString& adminPath) const
{
    int status = 0;
    return QJsonDocument::fromJson(httpCall(QUrl(m_ready.value(QStringLiteral("base_url")).toString()
                                                 + QStringLiteral("/_sim/") + adminPath),
                                            "GET", {}, &status))
        .object();
}

QString E2eFixture::makeFile(const QString& name, qint64 size) const
{
    const QString filePath = path(name);
    QFile file(filePath);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    QRandomGenerator generator(quint32(size) ^ 0x5eed);
    QByteArray chunk(1 << 20, '\0');
    for (qint64 written = 0; written < size;) {
        const qint64 n = qMin<qint64>(chunk.size(), size - written);
        generator.fillRange(reinterpret_cast<quint32*>(chunk.data()), chunk.size() / 4);
        file.write(chunk.constData(), n);
        written += n;
    }
    return filePath;
}

QByteArray E2eFixture::sha256(const QString& file)
{
    return TestKit::sha256(file);
}
