// The simulator's REST API, admin API and instance WebSockets, with plain Qt clients.

#include "simprocess.h"

#include "adbprotocol/AdbPacket.h"

#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTest>
#include <QWebSocket>

namespace {

const QByteArray API_TOKEN = "test-api-token";

struct HttpResult
{
    int status = 0;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QJsonObject body;
};

QByteArray adbMessage(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload = QByteArray())
{
    return AdbPacket(command, arg0, arg1, payload).toByteArray();
}

QString authMessage(const QString& token, int version = 2)
{
    return QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":%2}")
        .arg(token, QString::number(version));
}

// An instance WebSocket past the handshake, and the binary frames it receives.
struct Tunnel
{
    QWebSocket socket;
    QSignalSpy frames { &socket, &QWebSocket::binaryMessageReceived };

    QByteArray next()
    {
        if (frames.isEmpty() && !frames.wait(10000))
            return QByteArray();
        return frames.takeFirst().at(0).toByteArray();
    }
};

} // namespace

class TestSimPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void badCommandLine();
    void restErrors_data();
    void restErrors();
    void restFaults();
    void handshake_data();
    void handshake();
    void adbOverWebSocket_data();
    void adbOverWebSocket();
    void stopEndsShellsAndSandbox();

private:
    HttpResult http(const QByteArray& verb, const QString& path, const QByteArray& body = QByteArray(),
                    const QByteArray& apiToken = QByteArray(), int timeoutMs = 0,
                    const QString& base = QString());
    HttpResult admin(const QString& what, const QByteArray& body = "{}")
    {
        return http("POST", QStringLiteral("/_sim/") + what, body);
    }
    QString accessToken(const SimProcess& sim, int index);
    std::unique_ptr<Tunnel> openTunnel(const SimProcess& sim, int index, int version = 2);

    QNetworkAccessManager m_manager;
    SimProcess m_sim;
    QString m_uuid;
};

void TestSimPlatform::initTestCase()
{
    QString error;
    QVERIFY2(m_sim.start({ QStringLiteral("--instances"), QStringLiteral("2"), QStringLiteral("--api-token"),
                           QString::fromLatin1(API_TOKEN), QStringLiteral("--email"),
                           QStringLiteral("dev@example.com"), QStringLiteral("--password"),
                           QStringLiteral("s3cret") },
                         &error),
             qPrintable(error));
    m_uuid = m_sim.instance().value(QStringLiteral("uuid")).toString();
}

HttpResult TestSimPlatform::http(const QByteArray& verb, const QString& path, const QByteArray& body,
                                 const QByteArray& apiToken, int timeoutMs, const QString& base)
{
    QNetworkRequest request(QUrl((base.isEmpty() ? m_sim.baseUrl() : base) + path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    if (!apiToken.isEmpty())
        request.setRawHeader("x-api-token", apiToken);
    request.setTransferTimeout(timeoutMs);
    std::unique_ptr<QNetworkReply> reply(m_manager.sendCustomRequest(request, verb, body));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    if (!finished.wait(30000))
        qWarning("no reply");
    HttpResult result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.error = reply->error();
    if (reply->isOpen())
        result.body = QJsonDocument::fromJson(reply->readAll()).object();
    return result;
}

QString TestSimPlatform::accessToken(const SimProcess& sim, int index)
{
    const QString uuid = sim.instance(index).value(QStringLiteral("uuid")).toString();
    return http("POST", QStringLiteral("/v1/instances/access-token"),
                "{\"instance_uuid\":\"" + uuid.toLatin1() + "\"}",
                sim.ready.value(QStringLiteral("api_token")).toString().toLatin1(), 0, sim.baseUrl())
        .body.value(QStringLiteral("access_token"))
        .toString();
}

std::unique_ptr<Tunnel> TestSimPlatform::openTunnel(const SimProcess& sim, int index, int version)
{
    auto tunnel = std::make_unique<Tunnel>();
    QSignalSpy connected(&tunnel->socket, &QWebSocket::connected);
    QSignalSpy texts(&tunnel->socket, &QWebSocket::textMessageReceived);
    tunnel->socket.open(QUrl(sim.instance(index).value(QStringLiteral("adb_url")).toString()));
    if (!connected.wait(10000))
        return nullptr;
    tunnel->socket.sendTextMessage(authMessage(accessToken(sim, index), version));
    if (!texts.wait(10000) || !texts.at(0).at(0).toString().contains(QLatin1String("SUCCESS")))
        return nullptr;
    return tunnel;
}

void TestSimPlatform::badCommandLine()
{
    SimProcess sim;
    QString error;
    QVERIFY(!sim.start({ QStringLiteral("--instances"), QStringLiteral("0") }, &error));
    QVERIFY(sim.process().waitForFinished(10000) || sim.process().state() == QProcess::NotRunning);
    QCOMPARE(sim.process().exitCode(), 1);
    QVERIFY(error.contains(QLatin1String("--instances")));
}

void TestSimPlatform::restErrors_data()
{
    QTest::addColumn<QByteArray>("verb");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("apiToken");
    QTest::addColumn<int>("status");

    const auto row = [](const char* name, const char* verb, const QString& path, const QByteArray& body,
                        const QByteArray& apiToken, int status) {
        QTest::newRow(name) << QByteArray(verb) << path << body << apiToken << status;
    };
    const QString accessToken = QStringLiteral("/v1/instances/access-token");
    const QByteArray forInstance = "{\"instance_uuid\":\"" + m_uuid.toLatin1() + "\"}";
    row("login, wrong password", "POST", QStringLiteral("/v1/users/login"),
        R"({"email":"dev@example.com","password":"x"})", {}, 401);
    row("access token, unknown instance", "POST", accessToken,
        R"({"instance_uuid":"00000000-0000-0000-0000-000000000000"})", API_TOKEN, 404);
    row("access token, no instance_uuid", "POST", accessToken, "{}", API_TOKEN, 400);
    row("access token, body not JSON", "POST", accessToken, "instance_uuid", API_TOKEN, 400);
    row("access token, wrong API token", "POST", accessToken, forInstance, "nope", 401);
    row("instance details, no credentials", "GET", QStringLiteral("/v1/instances/") + m_uuid, {}, {}, 401);
    row("unknown path", "GET", QStringLiteral("/v2/whatever"), {}, API_TOKEN, 404);
    row("unknown admin path", "POST", QStringLiteral("/_sim/nothing"), "{}", {}, 404);
}

void TestSimPlatform::restErrors()
{
    QFETCH(QByteArray, verb);
    QFETCH(QString, path);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, apiToken);
    QFETCH(int, status);
    const HttpResult result = http(verb, path, body, apiToken);
    QCOMPARE(result.status, status);
    QVERIFY2(result.body.contains(QStringLiteral("error")), QJsonDocument(result.body).toJson());
}

void TestSimPlatform::restFaults()
{
    const QString path = QStringLiteral("/v1/instances/") + m_uuid;
    QCOMPARE(
        admin(QStringLiteral("rest-fault"), R"({"path":"/v1/instances/","status":503,"count":2})").status,
        200);
    QCOMPARE(http("GET", path, {}, API_TOKEN).status, 503);
    QCOMPARE(http("POST", QStringLiteral("/v1/users/login"), "{}").status, 401); // another path: not affected
    QCOMPARE(http("GET", path, {}, API_TOKEN).status, 503);
    QCOMPARE(http("GET", path, {}, API_TOKEN).status, 200);

    QCOMPARE(admin(QStringLiteral("rest-fault"), R"({"no_answer":true})").status, 200);
    const HttpResult unanswered = http("GET", path, {}, API_TOKEN, 300);
    QCOMPARE(unanswered.status, 0);
    QCOMPARE(unanswered.error, QNetworkReply::OperationCanceledError);
    QCOMPARE(http("GET", path, {}, API_TOKEN).status, 200);

    QCOMPARE(admin(QStringLiteral("rest-fault"), R"({"status":200})").status, 400);
    QCOMPARE(admin(QStringLiteral("link"), {}).status, 200); // an empty body is fine
}

void TestSimPlatform::handshake_data()
{
    QTest::addColumn<QString>("message"); // %1: a valid access token
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QString>("connection"); // expected "connection" answer; empty: closed without one
    QTest::addColumn<int>("closeCode");

    const QString indented = QStringLiteral(
        "{\n    \"adbTunnelVersion\": 2,\n    \"token\": \"%1\",\n    \"type\": \"token\"\n}\n");
    const QString success = QStringLiteral("SUCCESS");
    const QString failed = QStringLiteral("FAILED");
    QTest::newRow("valid token") << indented << QByteArray() << success << 0;
    QTest::newRow("version 1") << authMessage(QStringLiteral("%1"), 1) << QByteArray() << success << 0;
    QTest::newRow("wrong token") << authMessage(QStringLiteral("x%1")) << QByteArray() << failed << 1008;
    QTest::newRow("version as a string")
        << QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":\"2\"}") << QByteArray()
        << failed << 1008;
    QTest::newRow("not JSON") << QStringLiteral("token %1") << QByteArray() << failed << 1008;
    QTest::newRow("refused by fault, JSON") << indented << QByteArray(R"("mode":"json")") << failed << 1008;
    QTest::newRow("refused by fault, close 1002")
        << indented << QByteArray(R"("mode":"close","code":1002)") << QString() << 1002;
}

void TestSimPlatform::handshake()
{
    QFETCH(QString, message);
    QFETCH(QByteArray, fault);
    QFETCH(QString, connection);
    QFETCH(int, closeCode);
    if (!fault.isEmpty())
        QCOMPARE(admin(QStringLiteral("refuse-auth"),
                       "{\"instance_uuid\":\"" + m_uuid.toLatin1() + "\"," + fault + '}')
                     .status,
                 200);
    const QString token = accessToken(m_sim, 0);
    QVERIFY(!token.isEmpty());
    QWebSocket socket;
    QSignalSpy connected(&socket, &QWebSocket::connected);
    QSignalSpy texts(&socket, &QWebSocket::textMessageReceived);
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);
    socket.open(QUrl(m_sim.instance().value(QStringLiteral("adb_url")).toString()));
    QVERIFY(connected.wait(10000));
    socket.sendTextMessage(message.arg(token));
    if (!connection.isEmpty()) {
        QVERIFY(texts.wait(10000));
        const QJsonObject answer = QJsonDocument::fromJson(texts.at(0).at(0).toString().toUtf8()).object();
        QCOMPARE(answer.value(QStringLiteral("connection")).toString(), connection);
    }
    if (closeCode != 0) {
        QVERIFY(disconnected.count() > 0 || disconnected.wait(10000));
        QCOMPARE(int(socket.closeCode()), closeCode);
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
    auto tunnel = openTunnel(m_sim, 0, version);
    QVERIFY(tunnel);
    tunnel->socket.sendBinaryMessage(
        adbMessage(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::features=shell_v2"));
    const QByteArray cnxn = tunnel->next();
    QCOMPARE(AdbPacket::headerWord(cnxn, 0), quint32(AdbPacket::CNXN));
    QVERIFY(cnxn.mid(24).startsWith("device::ro.product.name="));
    QVERIFY(cnxn.contains(";features=shell_v2,"));

    // 3 MB of output: at version 1 every write waits for our OKAY, at version 2 the cloud
    // acknowledges them itself and we send none.
    const qint64 size = 3000000;
    tunnel->socket.sendBinaryMessage(adbMessage(
        AdbPacket::OPEN, 5, 0, QByteArray("exec:head -c ") + QByteArray::number(size) + " /dev/zero\0"));
    const QByteArray ready = tunnel->next();
    QCOMPARE(AdbPacket::headerWord(ready, 0), quint32(AdbPacket::OKAY));
    const quint32 deviceId = AdbPacket::headerWord(ready, 1);
    QCOMPARE(AdbPacket::headerWord(ready, 2), 5u);

    qint64 received = 0;
    for (;;) {
        const QByteArray frame = tunnel->next();
        QVERIFY2(!frame.isEmpty(), qPrintable(QStringLiteral("stalled after %1 bytes").arg(received)));
        // One whole ADB message per frame.
        QCOMPARE(qint64(frame.size()), 24 + qint64(AdbPacket::headerWord(frame, 3)));
        QCOMPARE(AdbPacket::headerWord(frame, 1), deviceId);
        if (AdbPacket::headerWord(frame, 0) != AdbPacket::WRTE) {
            QCOMPARE(AdbPacket::headerWord(frame, 0), quint32(AdbPacket::CLSE));
            break;
        }
        received += frame.size() - 24;
        if (version == 1)
            tunnel->socket.sendBinaryMessage(adbMessage(AdbPacket::OKAY, 5, deviceId));
    }
    QCOMPARE(received, size);
}

void TestSimPlatform::stopEndsShellsAndSandbox()
{
    SimProcess sim;
    QString error;
    QVERIFY2(sim.start({}, &error), qPrintable(error));
    const QJsonObject state = http("GET", QStringLiteral("/_sim/state"), {}, {}, 0, sim.baseUrl()).body;
    const QString sandbox = state.value(QStringLiteral("instances"))[0][QStringLiteral("sandbox")].toString();
    QVERIFY(QFileInfo(sandbox).isDir());
    auto tunnel = openTunnel(sim, 0);
    QVERIFY(tunnel);
    tunnel->socket.sendBinaryMessage(adbMessage(AdbPacket::CNXN, 0x01000001, 4096, "host::"));
    tunnel->socket.sendBinaryMessage(adbMessage(AdbPacket::OPEN, 1, 0, "exec:echo $$; exec sleep 300"));
    QByteArray pid;
    while (pid.isEmpty()) {
        const QByteArray frame = tunnel->next();
        QVERIFY(!frame.isEmpty());
        if (AdbPacket::headerWord(frame, 0) == AdbPacket::WRTE)
            pid = frame.mid(24).trimmed();
    }
    const QString proc = QStringLiteral("/proc/") + QString::fromLatin1(pid);
    QVERIFY(QFileInfo::exists(proc));
    sim.stop();
    QCOMPARE(sim.process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(sim.process().exitCode(), 0);
    QVERIFY(!QFileInfo::exists(proc));
    QVERIFY(!QFileInfo::exists(sandbox));
}

QTEST_GUILESS_MAIN(TestSimPlatform)
#include "tst_simplatform.moc"
