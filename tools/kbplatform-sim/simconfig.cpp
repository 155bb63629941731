#include "simconfig.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QUuid>

namespace {

bool splitHostPort(const QString& text, QString* host, quint16* port)
{
    const qsizetype colon = text.lastIndexOf(QLatin1Char(':'));
    if (colon <= 0)
        return false;
    bool ok = false;
    const uint value = text.mid(colon + 1).toUInt(&ok);
    if (!ok || value > 65535)
        return false;
    *host = text.left(colon);
    if (host->startsWith(QLatin1Char('[')) && host->endsWith(QLatin1Char(']')))
        *host = host->mid(1, host->size() - 2);
    *port = quint16(value);
    return true;
}

} // namespace

std::optional<SimConfig> SimConfig::parse(const QStringList& arguments, QString* error)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("A local Kestrelbox platform with emulated Android instances, for the tunnel's tests, "
                       "demos and benchmarks."));
    parser.addHelpOption();
    const QCommandLineOption listen(QStringLiteral("listen"), QStringLiteral("REST and WebSocket address."),
                                    QStringLiteral("HOST:PORT"), QStringLiteral("127.0.0.1:0"));
    const QCommandLineOption instances(QStringLiteral("instances"), QStringLiteral("Number of instances."),
                                       QStringLiteral("N"), QStringLiteral("1"));
    const QCommandLineOption apiToken(QStringLiteral("api-token"), QStringLiteral("Accepted API token."),
                                      QStringLiteral("T"));
    const QCommandLineOption email(QStringLiteral("email"), QStringLiteral("Accepted login e-mail."),
                                   QStringLiteral("E"));
    const QCommandLineOption password(QStringLiteral("password"), QStringLiteral("Accepted login password."),
                                      QStringLiteral("P"));
    const QCommandLineOption tlsCert(QStringLiteral("tls-cert"),
                                     QStringLiteral("PEM certificate: serve HTTPS."), QStringLiteral("FILE"));
    const QCommandLineOption tlsKey(QStringLiteral("tls-key"),
                                    QStringLiteral("PEM private key of --tls-cert."), QStringLiteral("FILE"));
    const QCommandLineOption rtt(QStringLiteral("rtt-ms"), QStringLiteral("Round trip added to each link."),
                                 QStringLiteral("MS"), QStringLiteral("0"));
    const QCommandLineOption bandwidth(QStringLiteral("bandwidth-kbps"),
                                       QStringLiteral("Bandwidth cap of each link direction, 0 for none."),
                                       QStringLiteral("KBPS"), QStringLiteral("0"));
    const QCommandLineOption sandbox(QStringLiteral("sandbox"),
                                     QStringLiteral("Directory holding each instance's files."),
                                     QStringLiteral("DIR"));
    const QCommandLineOption device(QStringLiteral("device"),
                                    QStringLiteral("emulated, or tcp:HOST:PORT to relay to a real adbd."),
                                    QStringLiteral("DEVICE"), QStringLiteral("emulated"));
    const QCommandLineOption sessionTtl(QStringLiteral("session-ttl-ms"),
                                        QStringLiteral("Lifetime of a login session, 0 for unlimited."),
                                        QStringLiteral("MS"), QStringLiteral("3600000"));
    const QCommandLineOption uuid(
        QStringLiteral("uuid"),
        QStringLiteral("UUID of the next instance (repeatable), so that a restarted "
                       "simulator serves the same instances."),
        QStringLiteral("UUID"));
    const QCommandLineOption deviceProfile(
        QStringLiteral("device-profile"),
        QStringLiteral("modern: the emulated device speaks as a current Android; legacy: as an old one."),
        QStringLiteral("PROFILE"), QStringLiteral("modern"));
    parser.addOptions({ listen, instances, apiToken, email, password, tlsCert, tlsKey, rtt, bandwidth,
                        sandbox, device, sessionTtl, uuid, deviceProfile });
    if (!parser.parse(arguments)) {
        *error = parser.errorText();
        return std::nullopt;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        *error = parser.helpText();
        return std::nullopt;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *error = QStringLiteral("unexpected argument: %1").arg(parser.positionalArguments().constFirst());
        return std::nullopt;
    }

    SimConfig config;
    if (!splitHostPort(parser.value(listen), &config.listenHost, &config.listenPort)) {
        *error = QStringLiteral("--listen expects HOST:PORT, got \"%1\"").arg(parser.value(listen));
        return std::nullopt;
    }
    bool ok = false;
    config.instances = parser.value(instances).toInt(&ok);
    if (!ok || config.instances < 1 || config.instances > MAX_INSTANCES) {
        *error = QStringLiteral("--instances expects a number from 1 to %1").arg(MAX_INSTANCES);
        return std::nullopt;
    }
    for (const QString& value : parser.values(uuid)) {
        const QUuid parsed(value);
        if (parsed.isNull()) {
            *error = QStringLiteral("--uuid expects a UUID, got \"%1\"").arg(value);
            return std::nullopt;
        }
        config.uuids.append(parsed.toString(QUuid::WithoutBraces));
    }
    if (config.uuids.size() > config.instances || config.uuids.removeDuplicates() > 0) {
        *error = QStringLiteral("--uuid: at most one distinct UUID per instance");
        return std::nullopt;
    }
    config.apiToken = parser.value(apiToken);
    if (parser.isSet(email))
        config.email = parser.value(email);
    config.password = parser.value(password);
    config.tlsCert = parser.value(tlsCert);
    config.tlsKey = parser.value(tlsKey);
    if (config.tlsCert.isEmpty() != config.tlsKey.isEmpty()) {
        *error = QStringLiteral("--tls-cert and --tls-key go together");
        return std::nullopt;
    }
    config.rttMs = parser.value(rtt).toInt(&ok);
    if (!ok || config.rttMs < 0) {
        *error = QStringLiteral("--rtt-ms expects a number of milliseconds");
        return std::nullopt;
    }
    config.bandwidthKbps = parser.value(bandwidth).toLongLong(&ok);
    if (!ok || config.bandwidthKbps < 0) {
        *error = QStringLiteral("--bandwidth-kbps expects a number of kilobits per second");
        return std::nullopt;
    }
    config.sessionTtlMs = parser.value(sessionTtl).toLongLong(&ok);
    if (!ok || config.sessionTtlMs < 0) {
        *error = QStringLiteral("--session-ttl-ms expects a number of milliseconds");
        return std::nullopt;
    }
    config.sandboxDir = parser.value(sandbox);
    const QString deviceValue = parser.value(device);
    if (deviceValue.startsWith(QLatin1String("tcp:"))) {
        if (!splitHostPort(deviceValue.mid(4), &config.deviceHost, &config.devicePort)
            || config.devicePort == 0) {
            *error = QStringLiteral("--device expects tcp:HOST:PORT, got \"%1\"").arg(deviceValue);
            return std::nullopt;
        }
    } else if (deviceValue != QLatin1String("emulated")) {
        *error = QStringLiteral("--device expects emulated or tcp:HOST:PORT, got \"%1\"").arg(deviceValue);
        return std::nullopt;
    }
    const QString profileValue = parser.value(deviceProfile);
    if (profileValue == QLatin1String("legacy")) {
        config.deviceDialect = DeviceDialect::Legacy;
    } else if (profileValue != QLatin1String("modern")) {
        *error = QStringLiteral("--device-profile expects modern or legacy, got \"%1\"").arg(profileValue);
        return std::nullopt;
    }
    return config;
}
