#include "doctor.h"

#include "adbtunnel.h"
#include "jsonreader.h"

#include "androidtools/androidtoolsprovider.h"
#include "network/abstractcredentialsprovider.h"
#include "network/endpoints.h"
#include "network/networkprovider.h"
#include "network/platformapitokenwebserviceclient.h"
#include "network/platformwebserviceclient.h"
#include "network/webservicejob.h"
#include "network/webserviceresult.h"

#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>

#include <memory>

#include <sys/stat.h>

namespace {

constexpr int PLATFORM_TIMEOUT_MS = 30000;
constexpr int ADB_VERSION_TIMEOUT_MS = 10000;
// No instance has this id: the platform answers "not found" to accepted credentials and
// "unauthorized" to refused ones, without touching any real instance.
const QLatin1String PROBE_INSTANCE("00000000-0000-0000-0000-000000000000");

DoctorCheck passed(const char* name, const QString& detail)
{
    return { QLatin1String(name), true, detail };
}

DoctorCheck failed(const char* name, const QString& problem, const QString& fix)
{
    return { QLatin1String(name), false, QStringLiteral("%1. Fix: %2").arg(problem, fix) };
}

// -1 when the path does not exist.
int modeOf(const QString& path)
{
    struct stat info = {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 07777);
}

QString octal(int mode)
{
    return QStringLiteral("%1").arg(mode, 4, 8, QLatin1Char('0'));
}

} // namespace

QVariantMap DoctorCheck::toMap() const
{
    return { { QStringLiteral("name"), name },
             { QStringLiteral("ok"), ok },
             { QStringLiteral("detail"), detail } };
}

Doctor::Doctor(const QString& configHome, AbstractCredentialsProvider* credentials, NetworkProvider* network,
               AndroidToolsProvider* tools)
    : m_configHome(configHome)
    , m_credentials(credentials)
    , m_network(network)
    , m_tools(tools)
{ }

DoctorCheck Doctor::checkConfigHome() const
{
    const char* name = "config_home";
    const QFileInfo home(m_configHome);
    if (!home.isDir() || !home.isWritable()) {
        return failed(name, QStringLiteral("%1 is not a writable directory").arg(m_configHome),
                      QStringLiteral("create it, or point KBSAAS_CONFIG_HOME at a directory of yours"));
    }
    const int mode = modeOf(m_configHome);
    // Whoever can write here can replace auth.json or the daemon's socket.
    if (mode & 022) {
        return failed(
            name, QStringLiteral("%1 is writable by other users (mode %2)").arg(m_configHome, octal(mode)),
            QStringLiteral("chmod 700 %1").arg(m_configHome));
    }
    return passed(name, QStringLiteral("%1 (mode %2)").arg(m_configHome, octal(mode)));
}

DoctorCheck Doctor::checkCredentials() const
{
    const char* name = "credentials";
    const QString authPath = m_configHome + QStringLiteral("/auth.json");
    QString kind;
    if (m_credentials->hasApiToken()) {
        const bool fromFile
            = !JsonReader(authPath).getValue(QStringLiteral("api_token")).toString().isEmpty();
        kind = fromFile ? QStringLiteral("API token from auth.json")
                        : QStringLiteral("API token from KESTRELBOX_API_TOKEN");
    } else if (m_credentials->hasCredentials()) {
        kind = QStringLiteral("e-mail and password of %1").arg(m_credentials->getEmail());
    } else {
        return failed(name, QStringLiteral("no credentials in %1 nor in KESTRELBOX_API_TOKEN").arg(authPath),
                      QStringLiteral("write {\"api_token\": \"...\"} (or \"email\" and \"password\") into %1 "
                                     "with mode 600, or set KESTRELBOX_API_TOKEN")
                          .arg(authPath));
    }
    const int mode = modeOf(authPath);
    if (mode >= 0 && (mode & 077)) {
        return failed(
            name,
            QStringLiteral("%1; but %2 is open to other users (mode %3)").arg(kind, authPath, octal(mode)),
            QStringLiteral("chmod 600 %1").arg(authPath));
    }
    return passed(name, mode >= 0 ? QStringLiteral("%1 (auth.json mode %2)").arg(kind, octal(mode)) : kind);
}

DoctorCheck Doctor::checkPlatform() const
{
    const char* name = "platform";
    const QUrl baseUrl = getPlatformBaseUrl();
    const QString url = baseUrl.toString();
    if (!m_credentials->hasApiToken() && !m_credentials->hasCredentials()) {
        return failed(name, QStringLiteral("%1 not tried: there are no credentials").arg(url),
                      QStringLiteral("see the \"credentials\" check"));
    }

    std::unique_ptr<WebServiceClient> client;
    if (m_credentials->hasApiToken()) {
        client = std::make_unique<PlatformApiTokenWebServiceClient>(
            baseUrl, m_credentials, m_network->getNetworkAccessManager(), nullptr);
    } else {
        client = std::make_unique<PlatformWebServiceClient>(baseUrl, m_credentials,
                                                            m_network->getNetworkAccessManager(), nullptr);
    }
    std::unique_ptr<WebServiceJob> job(client->get(QString(Endpoints::CLOUD_DEVICE_GET).arg(PROBE_INSTANCE)));
    QEventLoop loop;
    bool finished = false;
    WebServiceResult result;
    QObject::connect(job.get(), &WebServiceJob::finished, &loop, [&](const WebServiceResult& jobResult) {
        result = jobResult;
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(PLATFORM_TIMEOUT_MS, &loop, &QEventLoop::quit);
    if (!finished)
        loop.exec();

    const QString proxyFix
        = QStringLiteral("check the network, KB_PLATFORM_BASE_URL and \"proxy\" in config.json");
    if (!finished) {
        return failed(
            name, QStringLiteral("%1 did not answer within %2 s").arg(url).arg(PLATFORM_TIMEOUT_MS / 1000),
            proxyFix);
    }
    const int status = result.getHttpStatusCode();
    if (status == 401 || status == 403) {
        return failed(name, QStringLiteral("%1 refused the credentials (HTTP %2)").arg(url).arg(status),
                      QStringLiteral("renew the API token or the password in auth.json"));
    }
    if (status == 0) {
        return failed(name, QStringLiteral("%1 unreachable: %2").arg(url, result.getErrorString()), proxyFix);
    }
    if (status >= 500) {
        return failed(name, QStringLiteral("%1 answered HTTP %2").arg(url).arg(status),
                      QStringLiteral("try again later; the platform has a problem"));
    }
    return passed(name, QStringLiteral("%1 reachable, credentials accepted").arg(url));
}

DoctorCheck Doctor::checkAdb() const
{
    const char* name = "adb";
    const QString path = m_tools->getAdbPath();
    const QString installFix = QStringLiteral(
        "install adb (Debian: apt install adb) and set \"android-sdk-path\" in config.json to its SDK root, "
        "e.g. /usr/lib/android-sdk");
    if (path.isEmpty())
        return failed(name, m_tools->adbNotFoundReason(), installFix);

    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(path, { QStringLiteral("version") });
    if (!process.waitForFinished(ADB_VERSION_TIMEOUT_MS) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        const QString why = process.error() == QProcess::UnknownError
            ? QStringLiteral("exit code %1").arg(process.exitCode())
            : process.errorString();
        process.kill();
        process.waitForFinished(ADB_VERSION_TIMEOUT_MS);
        return failed(name, QStringLiteral("%1 version failed: %2").arg(path, why), installFix);
    }
    const QString version
        = QString::fromLocal8Bit(process.readAll()).section(QLatin1Char('\n'), 0, 0).trimmed();
    return passed(name, QStringLiteral("%1: %2").arg(path, version));
}

QList<DoctorCheck> Doctor::checkDaemon(bool running, const QVariant& instancesReply)
{
    if (!running)
        return { passed("daemon", QStringLiteral("not running; \"connect\" starts it")) };
    if (!instancesReply.isValid()) {
        return { failed("daemon", QStringLiteral("running but not answering"),
                        QStringLiteral("kbadbtunneld stop, or end the kbadbtunneld -d process")) };
    }

    QList<DoctorCheck> checks { passed("daemon", QStringLiteral("running")) };
    const QVariantList instances = instancesReply.toMap().value(QStringLiteral("instances")).toList();
    for (const QVariant& value : instances) {
        const QVariantMap instance = value.toMap();
        const QString uuid = instance.value(QStringLiteral("uuid")).toString();
        const QString state = instance.value(QStringLiteral("state")).toString();
        const QString lastError = instance.value(QStringLiteral("last_error")).toString();
        DoctorCheck check { QStringLiteral("tunnel %1").arg(uuid), true, state };
        if (state == QLatin1String("CONNECTED")) {
            check.detail = QStringLiteral("CONNECTED as %1")
                               .arg(instance.value(QStringLiteral("adb_serial")).toString());
        } else if (state == QLatin1String("PORT_BUSY")) {
            check.ok = false;
            check.detail
                = QStringLiteral("PORT_BUSY: %1. Fix: kbadbtunneld disconnect %2, then connect again with "
                                 "another --adb-serial-port or none")
                      .arg(lastError, uuid);
        } else if (state != QLatin1String("PENDING")) {
            check.ok = false;
            check.detail
                = QStringLiteral("%1: %2. Fix: correct that, then kbadbtunneld connect %3")
                      .arg(state, lastError.isEmpty() ? QStringLiteral("see the log file") : lastError, uuid);
        } else if (!lastError.isEmpty()) {
            check.detail = QStringLiteral("PENDING, retrying after: %1").arg(lastError);
        }
        checks.append(check);
    }
    return checks;
}

QVariantMap Doctor::document(const QList<DoctorCheck>& checks)
{
    QVariantList list;
    bool allOk = true;
    for (const DoctorCheck& check : checks) {
        list.append(check.toMap());
        allOk = allOk && check.ok;
    }
    return { { QStringLiteral("checks"), list }, { QStringLiteral("exit_code"), allOk ? 0 : 2 } };
}
