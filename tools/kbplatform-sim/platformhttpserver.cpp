#include "platformhttpserver.h"

#include "faultinjector.h"
#include "platformsimulator.h"
#include "requestlog.h"
#include "siminstance.h"

#include <QHttpServerRequest>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QTcpSocket>

namespace {

constexpr qsizetype MAX_BODY = 1024 * 1024;

std::optional<QJsonObject> parseObject(const QHttpServerRequest& request, QString* error)
{
    if (request.body().trimmed().isEmpty())
        return QJsonObject();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(request.body(), &parseError);
    if (!document.isObject()) {
        *error = parseError.error != QJsonParseError::NoError
            ? QStringLiteral("invalid JSON body: %1").arg(parseError.errorString())
            : QStringLiteral("the body must be a JSON object");
        return std::nullopt;
    }
    return document.object();
}

} // namespace

PlatformHttpServer::PlatformHttpServer(PlatformSimulator* simulator)
    : QAbstractHttpServer(simulator)
    , m_simulator(simulator)
{ }

PlatformHttpServer::~PlatformHttpServer() = default;

bool PlatformHttpServer::handleRequest(const QHttpServerRequest& request, QTcpSocket* socket)
{
    // QAbstractHttpServer hands an upgrade to its WebSocket server only when this returns true
    // and nothing was written to the socket; the instance is checked once the socket is ours.
    if (request.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0)
        return true;
    if (request.body().size() > MAX_BODY) {
        replyError(request, socket, Status::PayloadTooLarge, QStringLiteral("request body too large"));
        return true;
    }
    if (request.url().path().startsWith(QLatin1String("/_sim/")))
        handleAdmin(request, socket);
    else
        handleRest(request, socket);
    return true;
}

void PlatformHttpServer::missingHandler(const QHttpServerRequest& request, QTcpSocket* socket)
{
    replyError(request, socket, Status::NotFound, QStringLiteral("not found"));
}

void PlatformHttpServer::reply(const QHttpServerRequest& request, QTcpSocket* socket, const QJsonObject& body,
                               Status status)
{
    makeResponder(request, socket).write(QJsonDocument(body), status);
}

void PlatformHttpServer::replyError(const QHttpServerRequest& request, QTcpSocket* socket, Status status,
                                    const QString& message)
{
    reply(request, socket, { { QStringLiteral("error"), message } }, status);
}

bool PlatformHttpServer::checkAuthorization(const QHttpServerRequest& request, QTcpSocket* socket)
{
    const auto result = m_simulator->authorize(request.value("x-api-token"), request.value("authorization"));
    if (result == PlatformSimulator::Authorization::Granted)
        return true;
    QByteArray challenge = "Bearer realm=\"kestrelbox\"";
    QString message = QStringLiteral("authentication required");
    if (result == PlatformSimulator::Authorization::Expired) {
        challenge += ", error=\"invalid_token\", error_description=\"The session has expired\"";
        message = QStringLiteral("session expired");
    } else if (result == PlatformSimulator::Authorization::Invalid) {
        challenge += ", error=\"invalid_token\"";
        message = QStringLiteral("invalid token");
    }
    // With a WWW-Authenticate challenge Qt reports the 401 as AuthenticationRequiredError,
    // which is what makes a client log in again.
    const QByteArray body = QJsonDocument(QJsonObject { { QStringLiteral("error"), message } }).toJson();
    makeResponder(request, socket)
        .write(body, { { "Content-Type", "application/json" }, { "WWW-Authenticate", challenge } },
               Status::Unauthorized);
    return false;
}

void PlatformHttpServer::handleRest(const QHttpServerRequest& request, QTcpSocket* socket)
{
    const QString path = request.url().path();
    QList<QPair<QByteArray, QByteArray>> headers = request.headers();
    const QByteArray methodName
        = QByteArray(QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(int(request.method())))
              .toUpper();
    m_simulator->requestLog()->record(QString::fromLatin1(methodName), path, request.url().query(), headers,
                                      request.body());

    if (const auto fault = m_simulator->faults()->takeRestFault(path)) {
        if (fault->status == 0) {
            qInfo().noquote() << QStringLiteral("REST %1: left unanswered (fault)").arg(path);
            return; // the client waits until it gives up
        }
        qInfo().noquote() << QStringLiteral("REST %1: answered %2 (fault)").arg(path).arg(fault->status);
        const QByteArray body = fault->body.isEmpty()
            ? QJsonDocument(QJsonObject { { QStringLiteral("error"), QStringLiteral("simulated failure") } })
                  .toJson()
            : fault->body;
        makeResponder(request, socket).write(body, "application/json", Status(fault->status));
        return;
    }

    const bool isPost = request.method() == QHttpServerRequest::Method::Post;
    const bool isGet = request.method() == QHttpServerRequest::Method::Get;
    QString error;

    if (path == QLatin1String("/v1/users/login")) {
        if (!isPost)
            return replyError(request, socket, Status::MethodNotAllowed, QStringLiteral("POST expected"));
        const auto body = parseObject(request, &error);
        if (!body)
            return replyError(request, socket, Status::BadRequest, error);
        const QString email = body->value(QStringLiteral("email")).toString();
        const QString token = m_simulator->login(email, body->value(QStringLiteral("password")).toString());
        if (token.isEmpty())
            return replyError(request, socket, Status::Unauthorized,
                              QStringLiteral("invalid e-mail or password"));
        const QJsonObject organization { { QStringLiteral("uuid"),
                                           QStringLiteral("00000000-0000-4000-8000-000000000001") },
                                         { QStringLiteral("name"), QStringLiteral("Kestrelbox Simulator") } };
        const QJsonObject user { { QStringLiteral("email"), email },
                                 { QStringLiteral("uuid"),
                                   QStringLiteral("00000000-0000-4000-8000-000000000002") },
                                 { QStringLiteral("is_organization_manager"), true },
                                 { QStringLiteral("organization"), organization } };
        return reply(request, socket,
                     { { QStringLiteral("token"), token }, { QStringLiteral("user"), user } });
    }

    if (path == QLatin1String("/v1/instances/access-token")) {
        if (!isPost)
            return replyError(request, socket, Status::MethodNotAllowed, QStringLiteral("POST expected"));
        if (!checkAuthorization(request, socket))
            return;
        const auto body = parseObject(request, &error);
        if (!body)
            return replyError(request, socket, Status::BadRequest, error);
        const QJsonValue uuid = body->value(QStringLiteral("instance_uuid"));
        if (!uuid.isString())
            return replyError(request, socket, Status::BadRequest, QStringLiteral("instance_uuid expected"));
        SimInstance* instance = m_simulator->instance(uuid.toString());
        if (!instance)
            return replyError(request, socket, Status::NotFound, QStringLiteral("unknown instance"));
        return reply(request, socket,
                     { { QStringLiteral("access_token"), instance->issueAccessToken() },
                       { QStringLiteral("instance_uuid"), instance->uuid() },
                       { QStringLiteral("expires_in"), SimInstance::ACCESS_TOKEN_TTL_MS / 1000 } });
    }

    static const QString instancesPrefix = QStringLiteral("/v1/instances/");
    if (path.startsWith(instancesPrefix) && !path.mid(instancesPrefix.size()).contains(QLatin1Char('/'))) {
        if (!isGet)
            return replyError(request, socket, Status::MethodNotAllowed, QStringLiteral("GET expected"));
        if (!checkAuthorization(request, socket))
            return;
        SimInstance* instance = m_simulator->instance(path.mid(instancesPrefix.size()));
        if (!instance)
            return replyError(request, socket, Status::NotFound, QStringLiteral("unknown instance"));
        const int index = int(m_simulator->instances().indexOf(instance));
        return reply(request, socket,
                     { { QStringLiteral("uuid"), instance->uuid() },
                       { QStringLiteral("name"), QStringLiteral("Simulated instance %1").arg(index + 1) },
                       { QStringLiteral("state"), QStringLiteral("on") },
                       { QStringLiteral("adb_url"), m_simulator->adbUrl(instance) } });
    }

    replyError(request, socket, Status::NotFound, QStringLiteral("not found"));
}

void PlatformHttpServer::handleAdmin(const QHttpServerRequest& request, QTcpSocket* socket)
{
    const QString path = request.url().path();
    const auto method = request.method();
    QString error;
    const auto body = parseObject(request, &error);
    if (!body)
        return replyError(request, socket, Status::BadRequest, error);

    const auto stateJson = [this] {
        QJsonArray instances;
        for (const SimInstance* instance : m_simulator->instances())
            instances.append(instance->toJson());
        return QJsonObject { { QStringLiteral("base_url"), m_simulator->baseUrl() },
                             { QStringLiteral("instances"), instances },
                             { QStringLiteral("sessions"), m_simulator->sessionCount() },
                             { QStringLiteral("faults"), m_simulator->faults()->toJson() } };
    };
    // The instances a request names with "instance_uuid", or all of them.
    QList<SimInstance*> targets = m_simulator->instances();
    const QString uuid = body->value(QStringLiteral("instance_uuid")).toString();
    if (!uuid.isEmpty()) {
        SimInstance* instance = m_simulator->instance(uuid);
        if (!instance)
            return replyError(request, socket, Status::NotFound, QStringLiteral("unknown instance"));
        targets = { instance };
    }
    const auto intField = [&body](const char* name, qint64 fallback, qint64 minimum, qint64 maximum,
                                  QString* fieldError) -> qint64 {
        const QJsonValue value = body->value(QLatin1String(name));
        if (value.isUndefined() || value.isNull())
            return fallback;
        const double number = value.toDouble(-1);
        if (!value.isDouble() || number < double(minimum) || number > double(maximum)
            || number != double(qint64(number))) {
            *fieldError = QStringLiteral("\"%1\" must be an integer from %2 to %3")
                              .arg(QLatin1String(name))
                              .arg(minimum)
                              .arg(maximum);
            return fallback;
        }
        return qint64(number);
    };
    const bool isGet = method == QHttpServerRequest::Method::Get;
    const bool isPost = method == QHttpServerRequest::Method::Post;

    if (path == QLatin1String("/_sim/state") && isGet)
        return reply(request, socket, stateJson());

    if (path == QLatin1String("/_sim/requests")) {
        if (isGet)
            return reply(request, socket,
                         { { QStringLiteral("requests"), m_simulator->requestLog()->toJson() } });
        if (method == QHttpServerRequest::Method::Delete) {
            m_simulator->requestLog()->clear();
            return reply(request, socket, {});
        }
    }

    if (path == QLatin1String("/_sim/link") && isPost) {
        for (SimInstance* instance : targets) {
            const int rtt = int(intField("rtt_ms", instance->rttMs(), 0, 600000, &error));
            const qint64 bandwidth
                = intField("bandwidth_kbps", instance->bandwidthKbps(), 0, 100000000, &error);
            if (!error.isEmpty())
                return replyError(request, socket, Status::BadRequest, error);
            instance->setLink(rtt, bandwidth);
        }
        return reply(request, socket, stateJson());
    }

    if (path == QLatin1String("/_sim/close") && isPost) {
        SimInstance::CloseRequest close;
        close.afterBytes = intField("after_bytes", 0, 0, std::numeric_limits<qint32>::max() * 1024LL, &error);
        close.code = int(intField("code", 1001, 1000, 4999, &error));
        close.reason = body->value(QStringLiteral("reason")).toString();
        close.abort = body->value(QStringLiteral("abort")).toBool();
        if (!error.isEmpty())
            return replyError(request, socket, Status::BadRequest, error);
        for (SimInstance* instance : targets)
            instance->closeWebSockets(close);
        return reply(request, socket, stateJson());
    }

    if (path == QLatin1String("/_sim/refuse-auth") && isPost) {
        FaultInjector::AuthRefusal refusal;
        refusal.instance = uuid;
        refusal.count = int(intField("count", 1, 0, 1000000, &error));
        refusal.code = int(intField("code", 1008, 1000, 4999, &error));
        refusal.reason = body->value(QStringLiteral("reason")).toString();
        const QString mode = body->value(QStringLiteral("mode")).toString(QStringLiteral("json"));
        if (mode != QLatin1String("json") && mode != QLatin1String("close"))
            error = QStringLiteral("\"mode\" must be \"json\" or \"close\"");
        refusal.closeOnly = mode == QLatin1String("close");
        if (!error.isEmpty())
            return replyError(request, socket, Status::BadRequest, error);
        if (!m_simulator->faults()->refuseAuthentications(refusal))
            return replyError(request, socket, Status::TooManyRequests,
                              QStringLiteral("too many armed faults"));
        return reply(request, socket, stateJson());
    }

    if (path == QLatin1String("/_sim/rest-fault") && isPost) {
        FaultInjector::RestFault fault;
        fault.path = body->value(QStringLiteral("path")).toString();
        fault.count = int(intField("count", 1, 0, 1000000, &error));
        fault.status = int(intField("status", 500, 0, 599, &error));
        if (body->value(QStringLiteral("no_answer")).toBool())
            fault.status = 0;
        if (fault.status != 0 && fault.status < 400)
            error = QStringLiteral("\"status\" must be an error status (400-599), or 0 for no answer");
        fault.body = body->value(QStringLiteral("body")).toString().toUtf8();
        if (!error.isEmpty())
            return replyError(request, socket, Status::BadRequest, error);
        if (!m_simulator->faults()->failRest(fault))
            return replyError(request, socket, Status::TooManyRequests,
                              QStringLiteral("too many armed faults"));
        return reply(request, socket, stateJson());
    }

    if (path == QLatin1String("/_sim/cloud-fault") && isPost) {
        SessionHost::CloudFault fault;
        const QString mode = body->value(QStringLiteral("mode")).toString();
        const auto parsed = SessionHost::CloudFault::modeFromName(mode);
        if (!parsed)
            return replyError(request, socket, Status::BadRequest,
                              QStringLiteral("\"mode\" must be \"none\", \"read-throttle\", \"stall\", "
                                             "\"oversized-frame\", \"endless-fragments\" or \"garbage\""));
        fault.mode = *parsed;
        fault.bytesPerSecond
            = intField("bytes_per_second", SessionHost::CloudFault::DEFAULT_RATE, 1, qint64(1) << 40, &error);
        if (!error.isEmpty())
            return replyError(request, socket, Status::BadRequest, error);
        for (SimInstance* instance : targets)
            instance->setCloudFault(fault);
        return reply(request, socket, stateJson());
    }

    if (path == QLatin1String("/_sim/expire-sessions") && isPost) {
        m_simulator->expireSessions();
        return reply(request, socket, stateJson());
    }

    if (path == QLatin1String("/_sim/reset") && isPost) {
        m_simulator->faults()->clear();
        for (SimInstance* instance : m_simulator->instances()) {
            instance->takePendingClose();
            instance->setCloudFault({});
            instance->setLink(m_simulator->config().rttMs, m_simulator->config().bandwidthKbps);
        }
        return reply(request, socket, stateJson());
    }

    replyError(request, socket, Status::NotFound, QStringLiteral("unknown admin endpoint"));
}
