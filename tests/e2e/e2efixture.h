#pragma once

#include "testkit.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// Everything an end-to-end case needs, built from the real programs: the platform simulator,
// kbadbtunneld with its own configuration home, and Debian's adb on a server port of its own
// (never the user's 5037). The destructor stops every process it started.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A sanitizer makes every byte several times dearer and keeps freed memory in quarantine, so
// resident memory says nothing about ours: heavy cases run smaller and check no memory bounds
// (and say so in the log).
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

constexpr qint64 MiB = 1 << 20;

class E2eFixture
{
public:
    using Result = RunResult;

    E2eFixture();
    ~E2eFixture();
    E2eFixture(const E2eFixture&) = delete;
    E2eFixture& operator=(const E2eFixture&) = delete;

    // Starts kbplatform-sim with `arguments` and reads its ready line; false on failure.
    bool startSimulator(const QStringList& arguments = {});
    void stopSimulator() { m_simulator.reset(); }
    // Stops the simulator and starts it again with the arguments of the last start.
    bool restartSimulator();
    QJsonObject ready() const { return m_ready; }
    QString instanceUuid(int index = 0) const;
    quint16 devicePort(int index = 0) const;
    // The port of the simulator's REST and WebSocket server.
    quint16 platformPort() const;
    // Starts the simulator, signs in with its API token and connects its first instance; the
    // tunnel's ADB serial, empty (with the log's tail in a warning) when it never came up.
    QString startAndConnect(const QStringList& simulatorArguments = {});

    void useApiToken();
    // auth.json with exactly this content, private to the user.
    void writeAuth(const QJsonObject& auth) const;
    void writeConfig(const QJsonObject& config);
    void setEnv(const QString& name, const QString& value) { m_extraEnv.insert(name, value); }
    QProcessEnvironment environment() const;

    Result kbadbtunneld(const QStringList& arguments, int timeoutMs = 60000) const;
    Result adb(const QStringList& arguments, int timeoutMs = 120000) const;
    // "adb -s serial arguments".
    Result adbOn(const QString& serial, const QStringList& arguments, int timeoutMs = 120000) const;
    // adb as a child that runs on while the test acts (drops the tunnel, say); already started.
    std::unique_ptr<QProcess> startAdb(const QStringList& arguments) const;
    Result run(const QString& program, const QStringList& arguments, int timeoutMs) const;
    // The "getinstances" entry for uuid; empty when the daemon doesn't list it.
    QJsonObject instance(const QString& uuid) const;
    QString state(const QString& uuid) const
    {
        return instance(uuid).value(QStringLiteral("state")).toString();
    }
    // "connect --wait": the tunnel's ADB serial, empty when it failed or was not up in time.
    QString connectInstance(const QString& uuid, int timeoutMs = 60000) const;
    // "adb shell command" on serial; its output, empty when it failed or took over 30 s.
    QByteArray shell(const QString& serial, const QString& command) const;
    // What "adb devices" lists.
    QByteArray devices() const { return adb({ QStringLiteral("devices") }).out; }
    // Whether adb has serial as a working device again (after a drop, say).
    bool deviceIsBack(const QString& serial) const;
    // Pushes a file of size pseudo-random bytes to /data/local/tmp/name through serial and pulls
    // it back; empty when it came back byte for byte, else what went wrong.
    QString roundTrip(const QString& serial, const QString& name, qint64 size, int timeoutMs = 300000) const;
    QByteArray log() const { return TestKit::readFile(path(QStringLiteral("home/kbadbtunneld.log"))); }
    // How often uuid's tunnel came up: once, plus once per restart.
    int tunnelSuccesses(const QString& uuid) const;
    // The pid of the running daemon, from its start line in the log; 0 when none runs.
    qint64 daemonPid() const;
    // "VmRSS" or "VmHWM" (the peak) of a process, in bytes; -1 when it cannot be read.
    static qint64 memoryOf(qint64 pid, const QByteArray& field);

    // Starts a helper program (a proxy, say) that the destructor stops after the daemon.
    QProcess* startProcess(const QString& program, const QStringList& arguments);

    // POSTs a JSON body to the simulator's admin API under /_sim/; returns the HTTP status.
    int admin(const QString& path, const QJsonObject& body = {}) const;
    // Every request the simulator answered, with its headers and WebSocket messages.
    QJsonArray requests() const;
    // The simulator closes uuid's WebSocket once; returns the HTTP status.
    int dropWebSocket(const QString& uuid) const;

    QString path(const QString& name) const { return m_dir.path() + QLatin1Char('/') + name; }
    // Where the simulator keeps devicePath of uuid's device.
    QString onDevice(const QString& uuid, const QString& devicePath) const
    {
        return path(QStringLiteral("sandbox/") + uuid + devicePath);
    }
    // A file of `size` pseudo-random bytes; returns its path.
    QString makeFile(const QString& name, qint64 size) const;

private:
    QTemporaryDir m_dir;
    std::unique_ptr<SimProcess> m_simulator;

    QUrl adminUrl(const QString& adminPath) const;

    QStringList m_simulatorArguments;
    std::vector<std::unique_ptr<QProcess>> m_helpers;
    QJsonObject m_ready;
    std::unique_ptr<AdbServer> m_adb;
    QProcessEnvironment m_extraEnv;
};
