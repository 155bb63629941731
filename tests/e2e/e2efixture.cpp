#include "e2efixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

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
    TestKit::killDaemons(log());
    m_adb->stop();
    for (auto& helper : m_helpers)
        TestKit::endProcess(*helper, 5000);
    m_helpers.clear();
    stopSimulator();
}

qint64 E2eFixture::memoryOf(qint64 pid, const QByteArray& field)
{
    const QByteArray status = TestKit::readFile(QStringLiteral("/proc/%1/status").arg(pid));
    for (const QByteArray& line : status.split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong() * 1024;
    }
    return -1;
}

qint64 E2eFixture::daemonPid() const
{
    const QList<qint64> pids = TestKit::daemonPids(log());
    for (auto it = pids.crbegin(); it != pids.crend(); ++it) {
        if (TestKit::processAlive(*it))
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

bool E2eFixture::restartSimulator()
{
    stopSimulator();
    return startSimulator(m_simulatorArguments);
}

QString E2eFixture::instanceUuid(int index) const
{
    return m_simulator ? m_simulator->instance(index).value(QStringLiteral("uuid")).toString() : QString();
}

quint16 E2eFixture::platformPort() const
{
    return quint16(QUrl(m_ready.value(QStringLiteral("base_url")).toString()).port());
}

quint16 E2eFixture::devicePort(int index) const
{
    return m_simulator ? quint16(m_simulator->instance(index).value(QStringLiteral("device_port")).toInt())
                       : 0;
}

void E2eFixture::useApiToken()
{
    writeAuth({ { QStringLiteral("api_token"), m_ready.value(QStringLiteral("api_token")) } });
}

void E2eFixture::writeAuth(const QJsonObject& auth) const
{
    QFile file(path(QStringLiteral("home/auth.json")));
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(QJsonDocument(auth).toJson());
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner); // as a careful user keeps it
}

void E2eFixture::writeConfig(const QJsonObject& config)
{
    QJsonObject content = config;
    if (!content.contains(QStringLiteral("android-sdk-path")))
        content.insert(QStringLiteral("android-sdk-path"), QStringLiteral("/usr/lib/android-sdk"));
    TestKit::writeFile(path(QStringLiteral("home/config.json")), QJsonDocument(content).toJson());
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
    return TestKit::run(program, arguments, environment(), timeoutMs);
}

E2eFixture::Result E2eFixture::kbadbtunneld(const QStringList& arguments, int timeoutMs) const
{
    return run(QStringLiteral(KBADBTUNNELD_PATH), arguments, timeoutMs);
}

E2eFixture::Result E2eFixture::adb(const QStringList& arguments, int timeoutMs) const
{
    return run(TestKit::adbPath(), arguments, timeoutMs);
}

E2eFixture::Result E2eFixture::adbOn(const QString& serial, const QStringList& arguments, int timeoutMs) const
{
    return adb(QStringList { QStringLiteral("-s"), serial } + arguments, timeoutMs);
}

std::unique_ptr<QProcess> E2eFixture::startAdb(const QStringList& arguments) const
{
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment());
    process->start(TestKit::adbPath(), arguments);
    process->waitForStarted(10000);
    return process;
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

QString E2eFixture::connectInstance(const QString& uuid, int timeoutMs) const
{
    const QStringList connect { QStringLiteral("connect"), uuid, QStringLiteral("--wait"),
                                QStringLiteral("--timeout"), QString::number(timeoutMs / 1000) };
    return kbadbtunneld(connect, timeoutMs + 30000).json().value(QStringLiteral("adb_serial")).toString();
}

QString E2eFixture::startAndConnect(const QStringList& simulatorArguments)
{
    if (!startSimulator(simulatorArguments))
        return {};
    useApiToken();
    const QString serial = connectInstance(instanceUuid());
    if (serial.isEmpty())
        qWarning("the tunnel did not come up; the log ends with:\n%s", log().right(3000).constData());
    return serial;
}

QByteArray E2eFixture::shell(const QString& serial, const QString& command) const
{
    const Result result = adbOn(serial, { QStringLiteral("shell"), command }, 30000);
    return result.exitCode == 0 ? result.out : QByteArray();
}

bool E2eFixture::deviceIsBack(const QString& serial) const
{
    return adbOn(serial, { QStringLiteral("get-state") }, 30000).out.trimmed() == "device";
}

QString E2eFixture::roundTrip(const QString& serial, const QString& name, qint64 size, int timeoutMs) const
{
    const QString local = makeFile(name, size);
    const QString remote = QStringLiteral("/data/local/tmp/") + name;
    const QString pulled = path(QStringLiteral("pulled-") + name);
    for (const QStringList& step : { QStringList { QStringLiteral("push"), local, remote },
                                     QStringList { QStringLiteral("pull"), remote, pulled } }) {
        const Result result = adbOn(serial, step, timeoutMs);
        if (result.exitCode != 0)
            return QStringLiteral("adb %1 failed: %2\n%3")
                .arg(step.first(), QString::fromUtf8(result.err), QString::fromUtf8(log().right(3000)));
    }
    const qint64 back = QFileInfo(pulled).size();
    if (TestKit::sha256(pulled) != TestKit::sha256(local))
        return QStringLiteral("%1 came back different: %2 of %3 bytes").arg(name).arg(back).arg(size);
    QFile::remove(local);
    QFile::remove(pulled);
    return {};
}

int E2eFixture::tunnelSuccesses(const QString& uuid) const
{
    return int(log().count("[UUID:" + uuid.toUtf8() + "] Tunnel init successfully for device"));
}

int E2eFixture::admin(const QString& adminPath, const QJsonObject& body) const
{
    return TestKit::http("POST", adminUrl(adminPath), QJsonDocument(body).toJson(QJsonDocument::Compact))
        .status;
}

QJsonArray E2eFixture::requests() const
{
    return TestKit::http("GET", adminUrl(QStringLiteral("requests")))
        .json()
        .value(QStringLiteral("requests"))
        .toArray();
}

int E2eFixture::dropWebSocket(const QString& uuid) const
{
    return admin(QStringLiteral("close"), { { QStringLiteral("instance_uuid"), uuid } });
}

QUrl E2eFixture::adminUrl(const QString& adminPath) const
{
    return QUrl(m_ready.value(QStringLiteral("base_url")).toString() + QStringLiteral("/_sim/") + adminPath);
}

QString E2eFixture::makeFile(const QString& name, qint64 size) const
{
    const QString filePath = path(name);
    QFile file(filePath);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    // A megabyte at a time: the heavy cases write files of hundreds of megabytes.
    for (qint64 written = 0; written < size; written += MiB)
        file.write(TestKit::randomBytes(qMin(MiB, size - written), quint32(size ^ written)));
    return filePath;
}
