#include "siminstance.h"

#include "deviceportserver.h"
#include "tcpdevicerelay.h"
#include "websocketconnection.h"
#include "websocketsession.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QUuid>

namespace {

QList<QPair<QByteArray, QByteArray>> deviceProperties(const QString& uuid)
{
    return {
        { "ro.product.name", "kbsim_x86_64" },
        { "ro.product.model", "Kestrelbox Virtual Device" },
        { "ro.product.device", "kbsim_x86_64" },
        { "ro.product.brand", "Kestrelbox" },
        { "ro.product.manufacturer", "Kestrelbox" },
        { "ro.product.cpu.abi", "x86_64" },
        { "ro.product.cpu.abilist", "x86_64,arm64-v8a" },
        { "ro.build.version.release", "13" },
        { "ro.build.version.sdk", "33" },
        { "ro.build.type", "userdebug" },
        { "ro.build.tags", "test-keys" },
        { "ro.build.fingerprint",
          "Kestrelbox/kbsim_x86_64/kbsim_x86_64:13/TQ3A.230901.001/1:userdebug/test-keys" },
        { "ro.debuggable", "1" },
        { "ro.serialno", uuid.toLatin1() },
        { "sys.boot_completed", "1" },
    };
}

// Single-quoted for /bin/sh: no value of ours holds a quote, but stay safe.
QByteArray shellQuote(const QByteArray& value)
{
    QByteArray quoted = value;
    quoted.replace('\'', "'\\''");
    return '\'' + quoted + '\'';
}

} // namespace

SimInstance::SimInstance(const Settings& settings, FaultInjector* faults, RequestLog* log, QObject* parent)
    : QObject(parent)
    , m_settings(settings)
    , m_faults(faults)
    , m_log(log)
{
    const auto props = deviceProperties(settings.uuid);
    QByteArray banner = "device::";
    for (const char* key : { "ro.product.name", "ro.product.model", "ro.product.device" }) {
        for (const auto& [name, value] : props) {
            if (name == key)
                banner += name + '=' + value + ';';
        }
    }
    banner += "features=" + DeviceProfile::features(settings.deviceDialect);
    m_profile.dialect = settings.deviceDialect;
    m_profile.sandboxDir = settings.sandboxDir;
    m_profile.binDir = settings.supportDir + QStringLiteral("/bin");
    m_profile.banner = banner;
}

SimInstance::~SimInstance() = default;

bool SimInstance::start(const QHostAddress& address, QString* error)
{
    for (const char* dir : { "sdcard", "data/local/tmp" }) {
        if (!QDir().mkpath(m_settings.sandboxDir + QLatin1Char('/') + QLatin1String(dir))) {
            *error = QStringLiteral("cannot create the sandbox %1").arg(m_settings.sandboxDir);
            return false;
        }
    }
    if (!writeSupportFiles(error))
        return false;
    m_portServer = new DevicePortServer([this](QObject* parent) { return createDevice(parent); }, this);
    if (!m_portServer->listen(address, error)) {
        *error = QStringLiteral("device port: %1").arg(*error);
        return false;
    }
    return true;
}

bool SimInstance::writeSupportFiles(QString* error)
{
    if (!QDir().mkpath(m_profile.binDir)) {
        *error = QStringLiteral("cannot create %1").arg(m_profile.binDir);
        return false;
    }
    const auto props = deviceProperties(m_settings.uuid);
    QByteArray script = "#!/bin/sh\n# getprop of the emulated device\nif [ $# -eq 0 ]; then\n";
    for (const auto& [name, value] : props)
        script += "  echo " + shellQuote('[' + name + "]: [" + value + ']') + '\n';
    script += "  exit 0\nfi\ncase \"$1\" in\n";
    for (const auto& [name, value] : props)
        script += "  " + name + ") echo " + shellQuote(value) + " ;;\n";
    script += "  *) echo \"$2\" ;;\nesac\n";
    QFile file(m_profile.binDir + QStringLiteral("/getprop"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(script) != script.size()) {
        *error = QStringLiteral("cannot write %1: %2").arg(file.fileName(), file.errorString());
        return false;
    }
    const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
        | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
    file.setPermissions(executable);
    file.close();
    // The shell runs on the simulator's host: a device command that would act on the whole
    // machine must not reach the host's own.
    for (const char* command :
         { "reboot", "poweroff", "shutdown", "halt", "svc", "setprop", "stop", "start" }) {
        QFile stub(m_profile.binDir + QLatin1Char('/') + QLatin1String(command));
        const QByteArray text = QByteArray("#!/bin/sh\necho \"") + command
            + ": not supported on the emulated device\" >&2\nexit 1\n";
        if (!stub.open(QIODevice::WriteOnly | QIODevice::Truncate) || stub.write(text) != text.size()) {
            *error = QStringLiteral("cannot write %1: %2").arg(stub.fileName(), stub.errorString());
            return false;
        }
        stub.setPermissions(executable);
    }
    // A package manager just good enough for `adb install` / `adb uninstall`: it records
    // package names (the APK's base name) in the sandbox, the shell's working directory.
    QFile pm(m_profile.binDir + QStringLiteral("/pm"));
    const QByteArray pmScript
        = "#!/bin/sh\n"
          "db=\"$PWD/.installed-packages\"\n"
          "touch \"$db\"\n"
          "case \"$1\" in\n"
          "install) for a in \"$@\"; do apk=\"$a\"; done\n"
          "  case \"$apk\" in *.apk) ;; *) echo 'Failure [INSTALL_FAILED_INVALID_APK]'; exit 1 ;; esac\n"
          "  name=$(basename \"$apk\" .apk); grep -qx \"package:$name\" \"$db\" || echo \"package:$name\" >> "
          "\"$db\"\n"
          "  echo Success ;;\n"
          "uninstall) if grep -qx \"package:$2\" \"$db\"; then grep -vx \"package:$2\" \"$db\" > "
          "\"$db.new\"; mv \"$db.new\" \"$db\"; echo Success;\n"
          "  else echo 'Failure [DELETE_FAILED_INTERNAL_ERROR]'; fi ;;\n"
          "list) cat \"$db\" ;;\n"
          "*) echo \"pm: unknown command $1\" >&2; exit 1 ;;\n"
          "esac\n";
    if (!pm.open(QIODevice::WriteOnly | QIODevice::Truncate) || pm.write(pmScript) != pmScript.size()) {
        *error = QStringLiteral("cannot write %1: %2").arg(pm.fileName(), pm.errorString());
        return false;
    }
    pm.setPermissions(executable);
    return true;
}

quint16 SimInstance::devicePort() const
{
    return m_portServer ? m_portServer->port() : 0;
}

QJsonObject SimInstance::toJson() const
{
    int relaying = 0;
    for (const auto& session : m_sessions) {
        if (session && session->isRelaying())
            ++relaying;
    }
    QJsonObject cloudFaultJson { { QStringLiteral("mode"), m_cloudFault.modeName() } };
    if (m_cloudFault.mode == CloudFault::Mode::ReadThrottle)
        cloudFaultJson.insert(QStringLiteral("bytes_per_second"), m_cloudFault.bytesPerSecond);
    return QJsonObject { { QStringLiteral("uuid"), m_settings.uuid },
                         { QStringLiteral("device_port"), devicePort() },
                         { QStringLiteral("sandbox"), m_settings.sandboxDir },
                         { QStringLiteral("rtt_ms"), m_settings.rttMs },
                         { QStringLiteral("bandwidth_kbps"), m_settings.bandwidthKbps },
                         { QStringLiteral("websockets"), relaying },
                         { QStringLiteral("cloud_fault"), cloudFaultJson } };
}

QString SimInstance::issueAccessToken()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (auto it = m_accessTokens.begin(); it != m_accessTokens.end();) {
        if (it->second <= now || m_accessTokens.size() >= MAX_ACCESS_TOKENS)
            it = m_accessTokens.erase(it);
        else
            ++it;
    }
    const QString token = QStringLiteral("kbsim-at-") + QUuid::createUuid().toString(QUuid::Id128);
    m_accessTokens.emplace(token, now.addMSecs(ACCESS_TOKEN_TTL_MS));
    return token;
}

bool SimInstance::isAccessTokenValid(const QString& token)
{
    const auto it = m_accessTokens.find(token);
    return it != m_accessTokens.end() && it->second > QDateTime::currentDateTimeUtc();
}

DeviceConnection* SimInstance::createDevice(QObject* parent) const
{
    if (!m_settings.deviceHost.isEmpty())
        return new TcpDeviceRelay(m_settings.deviceHost, m_settings.devicePort, parent);
    return new EmulatedDevice(m_profile, parent);
}

void SimInstance::acceptWebSocket(WebSocketConnection* socket, qint64 logIndex)
{
    m_sessions.removeAll(nullptr);
    auto* session = new WebSocketSession(socket, this, m_faults, m_log, logIndex, this);
    m_sessions.append(session);
}

void SimInstance::setLink(int rttMs, qint64 bandwidthKbps)
{
    m_settings.rttMs = rttMs;
    m_settings.bandwidthKbps = bandwidthKbps;
    for (const auto& session : m_sessions) {
        if (session)
            session->setLink(rttMs, bandwidthKbps);
    }
}

void SimInstance::setCloudFault(const CloudFault& fault)
{
    m_cloudFault = fault;
    for (const auto& session : m_sessions) {
        if (session)
            session->applyCloudFault(fault);
    }
}

void SimInstance::closeWebSockets(const CloseRequest& request)
{
    bool applied = false;
    for (const auto& session : m_sessions) {
        if (session && session->isRelaying()) {
            session->scheduleClose(request);
            applied = true;
        }
    }
    if (!applied)
        m_pendingClose = request;
}

std::optional<SimInstance::CloseRequest> SimInstance::takePendingClose()
{
    return std::exchange(m_pendingClose, std::nullopt);
}
