// The simulator's REST API, admin API and instance WebSockets, with plain Qt clients.

#include "simprocess.h"

#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/PacketReader.h"

#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QSslError>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocket>

namespace {

const QString API_TOKEN = QStringLiteral("test-api-token");
const QString EMAIL = QStringLiteral("dev@example.com");
const QString PASSWORD = QStringLiteral("s3cret");

struct HttpResult
{
    int status = 0;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QJsonObject body;
    QByteArray wwwAuthenticate;
};

QByteArray adbMessage(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload = QByteArray())
{
    return AdbPacket(command, arg0, arg1, payload).toByteArray();
}

} // namespace

class TestSimPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void readyLine();
    void badCommandLine();
    void rest_data();
    void rest();
    void sessionExpiry();
    void restFaults();
    void requestLog();
    void handshake_data();
    void handshake();
    void adbOverWebSocket_data();
    void adbOverWebSocket();
    void closeAfterBytes();
    void linkDelay();
    void https();
    void sessionTtlAndCleanExit();

private:
    HttpResult http(const QByteArray& verb, const QString& path, const QJsonObject& body = {},
                    const QList<QPair<QByteArray, QByteArray>>& headers = {}, int timeoutMs = 0,
                    const QString& baseUrl = QString());
    HttpResult admin(const QString& path, const QJsonObject& body) { return http("POST", path, body); }
    QString accessToken(const QString& uuid);
    // Opens the instance WebSocket and sends the authentication message; the socket is connected.
    std::unique_ptr<QWebSocket> openWebSocket(const QString& url, const QString& message);
    QByteArray nextFrame(QWebSocket* socket, QSignalSpy& frames);

    QNetworkAccessManager m_manager;
    SimProcess m_sim;
    QString m_uuid;
};

void TestSimPlatform::initTestCase()
{
    QString error;
    QVERIFY2(
        m_sim.start({ QStringLiteral("--instances"), QStringLiteral("2"), QStringLiteral("--api-token"),
                      API_TOKEN, QStringLiteral("--email"), EMAIL, QStringLiteral("--password"), PASSWORD },
                    &error),
        qPrintable(error));
    m_uuid = m_sim.instance().value(QStringLiteral("uuid")).toString();
}

void TestSimPlatform::cleanupTestCase()
{
    m_sim.stop();
}

HttpResult TestSimPlatform::http(const QByteArray& verb, const QString& path, const QJsonObject& body,
                                 const QList<QPair<QByteArray, QByteArray>>& headers, int timeoutMs,
                                 const QString& baseUrl)
{
    QNetworkRequest request(QUrl((baseUrl.isEmpty() ? m_sim.baseUrl() : baseUrl) + path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    for (const auto& [name, value] : headers)
        request.setRawHeader(name, value);
    if (timeoutMs > 0)
        request.setTransferTimeout(timeoutMs);
    QNetworkReply* reply = m_manager.sendCustomRequest(
        request, verb, body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson());
    connect(reply, &QNetworkReply::sslErrors, reply, [reply] { reply->ignoreSslErrors(); });
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!finished.wait(30000))
        qWarning("no reply");
    HttpResult result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.error = reply->error();
    if (reply->isOpen())
        result.body = QJsonDocument::fromJson(reply->readAll()).object();
    result.wwwAuthenticate = reply->rawHeader("WWW-Authenticate");
    reply->deleteLater();
    return result;
}

QString TestSimPlatform::accessToken(const QString& uuid)
{
    const HttpResult result
        = http("POST", QStringLiteral("/v1/instances/access-token"),
               { { QStringLiteral("instance_uuid"), uuid } }, { { "x-api-token", API_TOKEN.toUtf8() } });
    return result.body.value(QStringLiteral("access_token")).toString();
}

std::unique_ptr<QWebSocket> TestSimPlatform::openWebSocket(const QString& url, const QString& message)
{
    auto socket = std::make_unique<QWebSocket>();
    connect(socket.get(), &QWebSocket::sslErrors, socket.get(),
            [socket = socket.get()] { socket->ignoreSslErrors(); });
    QSignalSpy connected(socket.get(), &QWebSocket::connected);
    socket->open(QUrl(url));
    if (!connected.wait(10000))
        return nullptr;
    socket->sendTextMessage(message);
    return socket;
}

QByteArray TestSimPlatform::nextFrame(QWebSocket*, QSignalSpy& frames)
{
    if (frames.isEmpty() && !frames.wait(10000))
        return QByteArray();
    return frames.takeFirst().at(0).toByteArray();
}

void TestSimPlatform::readyLine()
{
    // Outside scripts rely on the exact layout.
    const QByteArray line = m_sim.readyLine();
    QVERIFY(line.startsWith("{\"base_url\":\"http://127.0.0.1:"));
    QVERIFY(line.contains(
        ",\"api_token\":\"test-api-token\",\"email\":\"dev@example.com\",\"password\":\"s3cret\","
        "\"instances\":[{\"uuid\":\""));
    QCOMPARE(m_sim.ready.value(QStringLiteral("instances")).toArray().size(), 2);
    for (int i = 0; i < 2; ++i) {
        const QJsonObject instance = m_sim.instance(i);
        QCOMPARE(instance.keys().size(), 3);
        QVERIFY(instance.value(QStringLiteral("adb_url"))
                    .toString()
                    .startsWith(QLatin1String("ws://127.0.0.1:")));
        QVERIFY(instance.value(QStringLiteral("device_port")).toInt() > 0);
    }
    QVERIFY(!line.contains('\n'));
}

void TestSimPlatform::badCommandLine()
{
    SimProcess sim;
    QString error;
    QVERIFY(!sim.start({ QStringLiteral("--instances"), QStringLiteral("0") }, &error));
    sim.process().waitForFinished(10000);
    QCOMPARE(sim.process().state(), QProcess::NotRunning);
    QCOMPARE(sim.process().exitCode(), 1);
    QVERIFY(error.contains(QLatin1String("--instances")));
}

void TestSimPlatform::rest_data()
{
    QTest::addColumn<QByteArray>("verb");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QJsonObject>("body");
    QTest::addColumn<QByteArray>("apiToken");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("expectedKey");

    const QString unknown = QStringLiteral("00000000-0000-0000-0000-000000000000");
    const QJsonObject credentials { { QStringLiteral("email"), EMAIL },
                                    { QStringLiteral("password"), PASSWORD } };
    QTest::newRow("login") << QByteArray("POST") << QStringLiteral("/v1/users/login") << credentials
                           << QByteArray() << 200 << QStringLiteral("token");
    QTest::newRow("login, wrong password")
        << QByteArray("POST") << QStringLiteral("/v1/users/login")
        << QJsonObject { { QStringLiteral("email"), EMAIL },
                         { QStringLiteral("password"), QStringLiteral("x") } }
        << QByteArray() << 401 << QStringLiteral("error");
    QTest::newRow("access token") << QByteArray("POST") << QStringLiteral("/v1/instances/access-token")
                                  << QJsonObject { { QStringLiteral("instance_uuid"), m_uuid } }
                                  << API_TOKEN.toUtf8() << 200 << QStringLiteral("access_token");
    QTest::newRow("access token, unknown instance")
        << QByteArray("POST") << QStringLiteral("/v1/instances/access-token")
        << QJsonObject { { QStringLiteral("instance_uuid"), unknown } } << API_TOKEN.toUtf8() << 404
        << QStringLiteral("error");
    QTest::newRow("access token, no instance_uuid")
        << QByteArray("POST") << QStringLiteral("/v1/instances/access-token") << QJsonObject {}
        << API_TOKEN.toUtf8() << 400 << QStringLiteral("error");
    QTest::newRow("access token, wrong API token")
        << QByteArray("POST") << QStringLiteral("/v1/instances/access-token")
        << QJsonObject { { QStringLiteral("instance_uuid"), m_uuid } } << QByteArray("nope") << 401
        << QStringLiteral("error");
    QTest::newRow("instance details")
        << QByteArray("GET") << QStringLiteral("/v1/instances/") + m_uuid << QJsonObject {}
        << API_TOKEN.toUtf8() << 200 << QStringLiteral("adb_url");
    QTest::newRow("instance details, no credentials")
        << QByteArray("GET") << QStringLiteral("/v1/instances/") + m_uuid << QJsonObject {} << QByteArray()
        << 401 << QStringLiteral("error");
    QTest::newRow("unknown instance")
        << QByteArray("GET") << QStringLiteral("/v1/instances/") + unknown << QJsonObject {}
        << API_TOKEN.toUtf8() << 404 << QStringLiteral("error");
    QTest::newRow("unknown path") << QByteArray("GET") << QStringLiteral("/v2/whatever") << QJsonObject {}
                                  << API_TOKEN.toUtf8() << 404 << QStringLiteral("error");
    QTest::newRow("unknown admin path") << QByteArray("POST") << QStringLiteral("/_sim/nothing")
                                        << QJsonObject {} << QByteArray() << 404 << QStringLiteral("error");
}

void TestSimPlatform::rest()
{
    QFETCH(QByteArray, verb);
    QFETCH(QString, path);
    QFETCH(QJsonObject, body);
    QFETCH(QByteArray, apiToken);
    QFETCH(int, status);
    QFETCH(QString, expectedKey);
    QList<QPair<QByteArray, QByteArray>> headers;
    if (!apiToken.isEmpty())
        headers.append({ "x-api-token", apiToken });
    const HttpResult result = http(verb, path, body, headers);
    QCOMPARE(result.status, status);
    QVERIFY2(result.body.contains(expectedKey), QJsonDocument(result.body).toJson());
    if (path.endsWith(m_uuid) && status == 200)
        QCOMPARE(result.body.value(QStringLiteral("adb_url")),
                 m_sim.instance().value(QStringLiteral("adb_url")));
    if (path == QLatin1String("/v1/users/login") && status == 200) {
        const QJsonObject user = result.body.value(QStringLiteral("user")).toObject();
        QCOMPARE(user.value(QStringLiteral("email")).toString(), EMAIL);
        QVERIFY(user.contains(QStringLiteral("uuid")));
        QVERIFY(user.value(QStringLiteral("is_organization_manager")).isBool());
        QVERIFY(!user.value(QStringLiteral("organization")).toObject().isEmpty());
    }
}

void TestSimPlatform::sessionExpiry()
{
    const auto login = [this] {
        return http("POST", QStringLiteral("/v1/users/login"),
                    { { QStringLiteral("email"), EMAIL }, { QStringLiteral("password"), PASSWORD } })
            .body.value(QStringLiteral("token"))
            .toString();
    };
    const auto details = [this](const QString& token) {
        return http("GET", QStringLiteral("/v1/instances/") + m_uuid, {},
                    { { "Authorization", "Bearer " + token.toUtf8() } });
    };
    const QString token = login();
    QVERIFY(!token.isEmpty());
    QCOMPARE(details(token).status, 200);

    QCOMPARE(admin(QStringLiteral("/_sim/expire-sessions"), {}).status, 200);
    const HttpResult expired = details(token);
    QCOMPARE(expired.status, 401);
    // What makes a Qt client log in again.
    QCOMPARE(expired.error, QNetworkReply::AuthenticationRequiredError);
    QVERIFY(expired.wwwAuthenticate.startsWith("Bearer"));

    QCOMPARE(details(login()).status, 200);
}

void TestSimPlatform::restFaults()
{
    const QString path = QStringLiteral("/v1/instances/") + m_uuid;
    const QList<QPair<QByteArray, QByteArray>> auth { { "x-api-token", API_TOKEN.toUtf8() } };
    QCOMPARE(admin(QStringLiteral("/_sim/rest-fault"),
                   { { QStringLiteral("path"), QStringLiteral("/v1/instances/") },
                     { QStringLiteral("status"), 503 },
                     { QStringLiteral("count"), 2 } })
                 .status,
             200);
    QCOMPARE(http("GET", path, {}, auth).status, 503);
    QCOMPARE(http("POST", QStringLiteral("/v1/users/login"), {}).status, 401); // another path: not affected
    QCOMPARE(http("GET", path, {}, auth).status, 503);
    QCOMPARE(http("GET", path, {}, auth).status, 200);

    QCOMPARE(admin(QStringLiteral("/_sim/rest-fault"), { { QStringLiteral("no_answer"), true } }).status,
             200);
    const HttpResult unanswered = http("GET", path, {}, auth, 300);
    QCOMPARE(unanswered.status, 0);
    QCOMPARE(unanswered.error, QNetworkReply::OperationCanceledError);
    QCOMPARE(http("GET", path, {}, auth).status, 200);

    QCOMPARE(admin(QStringLiteral("/_sim/rest-fault"), { { QStringLiteral("status"), 200 } }).status, 400);
    QCOMPARE(
        http("POST", QStringLiteral("/_sim/link"), {}, { { "Content-Type", "application/json" } }).status,
        200);
}

void TestSimPlatform::requestLog()
{
    QCOMPARE(http("DELETE", QStringLiteral("/_sim/requests")).status, 200);
    http("POST", QStringLiteral("/v1/instances/access-token"),
         { { QStringLiteral("instance_uuid"), m_uuid } },
         { { "x-api-token", API_TOKEN.toUtf8() }, { "User-Agent", "kbtest/1.0" } });
    const QJsonArray requests
        = http("GET", QStringLiteral("/_sim/requests")).body.value(QStringLiteral("requests")).toArray();
    QCOMPARE(requests.size(), 1); // admin calls are not logged
    const QJsonObject entry = requests.at(0).toObject();
    QCOMPARE(entry.value(QStringLiteral("method")).toString(), QStringLiteral("POST"));
    QCOMPARE(entry.value(QStringLiteral("path")).toString(), QStringLiteral("/v1/instances/access-token"));
    const QJsonObject headers = entry.value(QStringLiteral("headers")).toObject();
    QCOMPARE(headers.value(QStringLiteral("x-api-token")).toString(), API_TOKEN);
    QCOMPARE(headers.value(QStringLiteral("user-agent")).toString(), QStringLiteral("kbtest/1.0"));
    QVERIFY(entry.value(QStringLiteral("body")).toString().contains(m_uuid));
}

void TestSimPlatform::handshake_data()
{
    QTest::addColumn<QString>("message"); // %1: a valid access token
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<QString>("connection"); // expected "connection" answer; empty: closed without one
    QTest::addColumn<int>("closeCode");

    const QString indented = QStringLiteral(
        "{\n    \"adbTunnelVersion\": 2,\n    \"token\": \"%1\",\n    \"type\": \"token\"\n}\n");
    QTest::newRow("valid token") << indented << QJsonObject {} << QStringLiteral("SUCCESS") << 0;
    QTest::newRow("version 1") << QStringLiteral(
        "{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":1}")
                               << QJsonObject {} << QStringLiteral("SUCCESS") << 0;
    QTest::newRow("wrong token") << QStringLiteral(
        "{\"type\":\"token\",\"token\":\"x%1\",\"adbTunnelVersion\":2}")
                                 << QJsonObject {} << QStringLiteral("FAILED") << 1008;
    QTest::newRow("version as a string")
        << QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":\"2\"}")
        << QJsonObject {} << QStringLiteral("FAILED") << 1008;
    QTest::newRow("not JSON") << QStringLiteral("token %1") << QJsonObject {} << QStringLiteral("FAILED")
                              << 1008;
    QTest::newRow("refused by fault, JSON")
        << indented << QJsonObject { { QStringLiteral("mode"), QStringLiteral("json") } }
        << QStringLiteral("FAILED") << 1008;
    QTest::newRow("refused by fault, close 1002")
        << indented
        << QJsonObject { { QStringLiteral("mode"), QStringLiteral("close") },
                         { QStringLiteral("code"), 1002 } }
        << QString() << 1002;
}

void TestSimPlatform::handshake()
{
    QFETCH(QString, message);
    QFETCH(QJsonObject, fault);
    QFETCH(QString, connection);
    QFETCH(int, closeCode);
    if (!fault.isEmpty()) {
        fault.insert(QStringLiteral("instance_uuid"), m_uuid);
        QCOMPARE(admin(QStringLiteral("/_sim/refuse-auth"), fault).status, 200);
    }
    const QString token = accessToken(m_uuid);
    QVERIFY(!token.isEmpty());
    auto socket
        = openWebSocket(m_sim.instance().value(QStringLiteral("adb_url")).toString(), message.arg(token));
    QVERIFY(socket);
    QSignalSpy texts(socket.get(), &QWebSocket::textMessageReceived);
    QSignalSpy disconnected(socket.get(), &QWebSocket::disconnected);
    if (!connection.isEmpty()) {
        QVERIFY(texts.wait(10000));
        const QJsonObject answer = QJsonDocument::fromJson(texts.at(0).at(0).toString().toUtf8()).object();
        QCOMPARE(answer.value(QStringLiteral("connection")).toString(), connection);
    }
    if (closeCode != 0) {
        QVERIFY(disconnected.count() > 0 || disconnected.wait(10000));
        QCOMPARE(int(socket->closeCode()), closeCode);
    }
}

void TestSimPlatform::adbOverWebSocket_data()
{
    QTest::addColumn<int>("version");
    QTest::newRow("version 1") << 1;
    QTest::newRow("version 2") << 2;
}

void TestSimPlatform::adbOverWebSocket()
{
    QFETCH(int, version);
    const QString auth = QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":%2}")
                             .arg(accessToken(m_uuid))
                             .arg(version);
    auto socket = openWebSocket(m_sim.instance().value(QStringLiteral("adb_url")).toString(), auth);
    QVERIFY(socket);
    QSignalSpy texts(socket.get(), &QWebSocket::textMessageReceived);
    QSignalSpy frames(socket.get(), &QWebSocket::binaryMessageReceived);
    QVERIFY(texts.wait(10000));

    socket->sendBinaryMessage(adbMessage(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::features=shell_v2"));
    const QByteArray cnxn = nextFrame(socket.get(), frames);
    QCOMPARE(AdbPacket::headerWord(cnxn, 0), quint32(AdbPacket::CNXN));
    QVERIFY(cnxn.mid(24).startsWith("device::ro.product.name="));
    QVERIFY(!cnxn.contains("shell_v2"));

    // 3 MB of output: at version 1 every write waits for our OKAY, at version 2 the cloud
    // acknowledges them itself and we send none.
    const qint64 size = 3000000;
    socket->sendBinaryMessage(adbMessage(
        AdbPacket::OPEN, 5, 0, QByteArray("exec:head -c ") + QByteArray::number(size) + " /dev/zero\0"));
    const QByteArray ready = nextFrame(socket.get(), frames);
    QCOMPARE(AdbPacket::headerWord(ready, 0), quint32(AdbPacket::OKAY));
    const quint32 deviceId = AdbPacket::headerWord(ready, 1);
    QCOMPARE(AdbPacket::headerWord(ready, 2), 5u);

    qint64 received = 0;
    bool closed = false;
    while (!closed) {
        const QByteArray frame = nextFrame(socket.get(), frames);
        QVERIFY2(!frame.isEmpty(), qPrintable(QStringLiteral("stalled after %1 bytes").arg(received)));
        // One whole ADB message per frame.
        QCOMPARE(qint64(frame.size()), 24 + qint64(AdbPacket::headerWord(frame, 3)));
        const quint32 command = AdbPacket::headerWord(frame, 0);
        QCOMPARE(AdbPacket::headerWord(frame, 1), deviceId);
        if (command == AdbPacket::WRTE) {
            received += frame.size() - 24;
            if (version == 1)
                socket->sendBinaryMessage(adbMessage(AdbPacket::OKAY, 5, deviceId));
        } else {
            QCOMPARE(command, quint32(AdbPacket::CLSE));
            closed = true;
        }
    }
    QCOMPARE(received, size);
    socket->sendBinaryMessage(adbMessage(AdbPacket::CLSE, 5, deviceId));
    socket->close();
}

void TestSimPlatform::closeAfterBytes()
{
    const QString uuid = m_sim.instance(1).value(QStringLiteral("uuid")).toString();
    const QString auth = QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":2}")
                             .arg(accessToken(uuid));
    auto socket = openWebSocket(m_sim.instance(1).value(QStringLiteral("adb_url")).toString(), auth);
    QVERIFY(socket);
    QSignalSpy texts(socket.get(), &QWebSocket::textMessageReceived);
    QSignalSpy frames(socket.get(), &QWebSocket::binaryMessageReceived);
    QSignalSpy disconnected(socket.get(), &QWebSocket::disconnected);
    QVERIFY(texts.wait(10000));

    const QByteArray cnxn = adbMessage(AdbPacket::CNXN, 0x01000001, 4096, "host::");
    QCOMPARE(admin(QStringLiteral("/_sim/close"),
                   { { QStringLiteral("instance_uuid"), uuid },
                     { QStringLiteral("after_bytes"), cnxn.size() + 1 },
                     { QStringLiteral("code"), 4001 } })
                 .status,
             200);
    socket->sendBinaryMessage(cnxn); // not yet: the device's answer crosses the limit
    QVERIFY(disconnected.wait(10000));
    QCOMPARE(int(socket->closeCode()), 4001);
    QCOMPARE(frames.size(), 1);
}

void TestSimPlatform::linkDelay()
{
    const QString uuid = m_sim.instance(1).value(QStringLiteral("uuid")).toString();
    QCOMPARE(admin(QStringLiteral("/_sim/link"),
                   { { QStringLiteral("instance_uuid"), uuid }, { QStringLiteral("rtt_ms"), 400 } })
                 .body.value(QStringLiteral("instances"))
                 .toArray()
                 .at(1)
                 .toObject()
                 .value(QStringLiteral("rtt_ms"))
                 .toInt(),
             400);
    const QString auth = QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":1}")
                             .arg(accessToken(uuid));
    auto socket = openWebSocket(m_sim.instance(1).value(QStringLiteral("adb_url")).toString(), auth);
    QVERIFY(socket);
    QSignalSpy texts(socket.get(), &QWebSocket::textMessageReceived);
    QSignalSpy frames(socket.get(), &QWebSocket::binaryMessageReceived);
    QVERIFY(texts.wait(10000));
    QElapsedTimer clock;
    clock.start();
    socket->sendBinaryMessage(adbMessage(AdbPacket::CNXN, 0x01000001, 4096, "host::"));
    QVERIFY(!nextFrame(socket.get(), frames).isEmpty());
    // A lower bound only: the link may add, never remove.
    QVERIFY2(clock.elapsed() >= 400, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(http("POST", QStringLiteral("/_sim/reset")).status, 200);
}

void TestSimPlatform::https()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString cert = dir.filePath(QStringLiteral("cert.pem"));
    const QString key = dir.filePath(QStringLiteral("key.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  { QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                    QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                    QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                    QStringLiteral("-keyout"), key, QStringLiteral("-out"), cert, QStringLiteral("-days"),
                    QStringLiteral("1"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1") });
    if (!openssl.waitForFinished(30000) || openssl.exitCode() != 0)
        QSKIP("openssl cannot make a certificate here");

    SimProcess sim;
    QString error;
    QVERIFY2(sim.start({ QStringLiteral("--api-token"), API_TOKEN, QStringLiteral("--tls-cert"), cert,
                         QStringLiteral("--tls-key"), key },
                       &error),
             qPrintable(error));
    QVERIFY(sim.baseUrl().startsWith(QLatin1String("https://127.0.0.1:")));
    const QString uuid = sim.instance().value(QStringLiteral("uuid")).toString();
    const HttpResult token = http("POST", QStringLiteral("/v1/instances/access-token"),
                                  { { QStringLiteral("instance_uuid"), uuid } },
                                  { { "x-api-token", API_TOKEN.toUtf8() } }, 0, sim.baseUrl());
    QCOMPARE(token.status, 200);
    const QString adbUrl = sim.instance().value(QStringLiteral("adb_url")).toString();
    QVERIFY(adbUrl.startsWith(QLatin1String("wss://")));
    auto socket = openWebSocket(adbUrl,
                                QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":2}")
                                    .arg(token.body.value(QStringLiteral("access_token")).toString()));
    QVERIFY(socket);
    QSignalSpy texts(socket.get(), &QWebSocket::textMessageReceived);
    QVERIFY(texts.wait(10000));
    QVERIFY(texts.at(0).at(0).toString().contains(QLatin1String("SUCCESS")));
    socket->close();
    sim.stop();
}

void TestSimPlatform::sessionTtlAndCleanExit()
{
    SimProcess sim;
    QString error;
    QVERIFY2(sim.start({ QStringLiteral("--email"), EMAIL, QStringLiteral("--password"), PASSWORD,
                         QStringLiteral("--session-ttl-ms"), QStringLiteral("1") },
                       &error),
             qPrintable(error));
    const QString uuid = sim.instance().value(QStringLiteral("uuid")).toString();
    const QString token
        = http("POST", QStringLiteral("/v1/users/login"),
               { { QStringLiteral("email"), EMAIL }, { QStringLiteral("password"), PASSWORD } }, {}, 0,
               sim.baseUrl())
              .body.value(QStringLiteral("token"))
              .toString();
    QVERIFY(!token.isEmpty());
    QTRY_COMPARE(http("GET", QStringLiteral("/v1/instances/") + uuid, {},
                      { { "Authorization", "Bearer " + token.toUtf8() } }, 0, sim.baseUrl())
                     .status,
                 401);

    // A command still running on the device, and the temporary sandbox, are gone with the simulator.
    const QString sandbox = http("GET", QStringLiteral("/_sim/state"), {}, {}, 0, sim.baseUrl())
                                .body.value(QStringLiteral("instances"))
                                .toArray()
                                .at(0)
                                .toObject()
                                .value(QStringLiteral("sandbox"))
                                .toString();
    QVERIFY(QFileInfo(sandbox).isDir());
    const QString accessToken
        = http("POST", QStringLiteral("/v1/instances/access-token"),
               { { QStringLiteral("instance_uuid"), uuid } },
               { { "x-api-token", sim.ready.value(QStringLiteral("api_token")).toString().toUtf8() } }, 0,
               sim.baseUrl())
              .body.value(QStringLiteral("access_token"))
              .toString();
    auto socket = openWebSocket(
        sim.instance().value(QStringLiteral("adb_url")).toString(),
        QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":2}").arg(accessToken));
    QVERIFY(socket);
    QSignalSpy texts(socket.get(), &QWebSocket::textMessageReceived);
    QSignalSpy frames(socket.get(), &QWebSocket::binaryMessageReceived);
    QVERIFY(texts.wait(10000));
    socket->sendBinaryMessage(adbMessage(AdbPacket::CNXN, 0x01000001, 4096, "host::"));
    socket->sendBinaryMessage(adbMessage(AdbPacket::OPEN, 1, 0, "exec:echo $$; exec sleep 300"));
    QByteArray pid;
    while (pid.isEmpty()) {
        const QByteArray frame = nextFrame(socket.get(), frames);
        QVERIFY(!frame.isEmpty());
        if (AdbPacket::headerWord(frame, 0) == AdbPacket::WRTE)
            pid = frame.mid(24).trimmed();
    }
    QVERIFY(QFileInfo::exists(QStringLiteral("/proc/") + QString::fromLatin1(pid)));
    sim.stop();
    QCOMPARE(sim.process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(sim.process().exitCode(), 0);
    QVERIFY(!QFileInfo::exists(QStringLiteral("/proc/") + QString::fromLatin1(pid)));
    QVERIFY(!QFileInfo::exists(sandbox));
}

QTEST_GUILESS_MAIN(TestSimPlatform)
#include "tst_simplatform.moc"
