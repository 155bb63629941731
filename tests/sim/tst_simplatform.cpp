// The simulator's REST API, admin API and instance WebSockets: HTTP from Qt, the WebSocket byte by byte.

#include "testkit.h"

#include "adbprotocol/AdbPacket.h"
#include "network/websocketframe.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QtEndian>
#include <QTest>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

QByteArray adbMessage(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload = QByteArray())
{
    return AdbPacket(command, arg0, arg1, payload).toByteArray();
}

QString authMessage(const QString& token, int version = 2)
{
    return QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":%2}")
        .arg(token, QString::number(version));
}

// A client frame, masked as a client's must be. The daemon's own codec builds it: its masking is
// checked against Qt's WebSocket server by tst_websocket.
QByteArray clientFrame(WebSocketFrame::OpCode opCode, const QByteArray& payload, bool isFinal = true)
{
    return WebSocketFrame::encodeMasked(opCode, payload, 0x12345678, isFinal);
}

// An instance WebSocket spoken byte by byte: exactly what the cloud half sends, and what
// QWebSocket would never send.
struct RawTunnel
{
    QTcpSocket socket;

    // Exactly `size` bytes, or fewer when nothing more comes within the timeout.
    QByteArray read(qint64 size, int timeoutMs = 10000)
    {
        QByteArray bytes;
        while (bytes.size() < size) {
            if (socket.bytesAvailable() == 0 && !socket.waitForReadyRead(timeoutMs))
                break;
            bytes += socket.read(size - bytes.size());
        }
        return bytes;
    }
    // The payload of the text frame that comes next, a short one as all the simulator's answers
    // are; empty for anything else.
    QByteArray text()
    {
        const QByteArray header = read(2);
        return header.size() == 2 && quint8(header.at(0)) == 0x81 && header.at(1) < 126 ? read(header.at(1))
                                                                                        : QByteArray();
    }
    // The close code of the close frame that comes next; 0 for anything else.
    int closeCode()
    {
        const QByteArray header = read(4);
        return header.size() == 4 && quint8(header.at(0)) == 0x88
            ? qFromBigEndian<quint16>(reinterpret_cast<const uchar*>(header.constData() + 2))
            : 0;
    }
    qint64 kernelSendQueue() const
    {
        int queued = 0;
        return ioctl(int(socket.socketDescriptor()), SIOCOUTQ, &queued) == 0 ? queued : -1;
    }
};

qint64 residentBytes(qint64 pid)
{
    QFile statm(QStringLiteral("/proc/%1/statm").arg(pid));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    return statm.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE); // resident pages
}

} // namespace

class TestSimPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void restErrors_data();
    void restErrors();
    void handshake_data();
    void handshake();
    void stopEndsShellsAndSandbox();
    void frameRules_data();
    void frameRules();
    void cloudFaults_data();
    void cloudFaults();
    void cleanup();

private:
    // An instance WebSocket past the upgrade and the authentication message `auth`; without one,
    // past a valid version 1 authentication. Null when either failed.
    std::unique_ptr<RawTunnel> openRawTunnel(const QString& auth = QString());
    HttpResult http(const QByteArray& verb, const QString& path, const QByteArray& body = QByteArray(),
                    const QByteArray& apiToken = QByteArray())
    {
        return TestKit::http(verb, QUrl(m_sim.baseUrl() + path), body, apiToken);
    }
    HttpResult admin(const QString& what, const QByteArray& body = "{}")
    {
        return http("POST", QStringLiteral("/_sim/") + what, body);
    }
    QString accessToken();

    SimProcess m_sim;
    QString m_uuid;
    QByteArray m_apiToken;
};

void TestSimPlatform::initTestCase()
{
    QString error;
    QVERIFY2(m_sim.start({}, &error), qPrintable(error));
    m_uuid = m_sim.instance().value(QStringLiteral("uuid")).toString();
    m_apiToken = m_sim.ready.value(QStringLiteral("api_token")).toString().toLatin1();
}

QString TestSimPlatform::accessToken()
{
    return http("POST", QStringLiteral("/v1/instances/access-token"),
                "{\"instance_uuid\":\"" + m_uuid.toLatin1() + "\"}", m_apiToken)
        .json()
        .value(QStringLiteral("access_token"))
        .toString();
}

std::unique_ptr<RawTunnel> TestSimPlatform::openRawTunnel(const QString& auth)
{
    auto tunnel = std::make_unique<RawTunnel>();
    const QUrl url(m_sim.instance().value(QStringLiteral("adb_url")).toString());
    tunnel->socket.connectToHost(url.host(), quint16(url.port()));
    if (!tunnel->socket.waitForConnected(10000))
        return nullptr;
    // The nonce and answer of RFC 6455 1.3's example.
    tunnel->socket.write(
        "GET " + url.path().toLatin1()
        + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    QByteArray head;
    while (!head.endsWith("\r\n\r\n")) {
        const QByteArray byte = tunnel->read(1);
        if (byte.isEmpty())
            return nullptr;
        head += byte;
    }
    if (!head.startsWith("HTTP/1.1 101 ")
        || !head.contains("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo="))
        return nullptr;
    tunnel->socket.write(
        clientFrame(WebSocketFrame::Text, (auth.isEmpty() ? authMessage(accessToken(), 1) : auth).toUtf8()));
    if (!auth.isEmpty())
        return tunnel;
    return tunnel->text().contains("SUCCESS") ? std::move(tunnel) : nullptr;
}

void TestSimPlatform::cleanup()
{
    admin(QStringLiteral("reset"));
}

void TestSimPlatform::frameRules_data()
{
    QTest::addColumn<QByteArray>("send");
    QTest::addColumn<QByteArray>("pong"); // expected answer; empty: a close frame with closeCode
    QTest::addColumn<int>("closeCode");

    // The device answers the reassembled CNXN with a binary frame, after the pong.
    const QByteArray cnxn = adbMessage(AdbPacket::CNXN, 0x01000001, 4096, "host::");
    QTest::newRow("fragmented message with a ping between")
        << clientFrame(WebSocketFrame::Binary, cnxn.left(10), false) + clientFrame(WebSocketFrame::Ping, "p")
            + clientFrame(WebSocketFrame::Continuation, cnxn.mid(10, 20), false)
            + clientFrame(WebSocketFrame::Continuation, cnxn.mid(30))
        << QByteArray("\x8A\x01p\x82") << 0;
    // The codec refuses these; the simulator decides the limit it reads with, that its clients
    // must mask, and to close with the codec's code.
    QTest::newRow("frame announcing more than 16 MiB")
        << WebSocketFrame::encodeHeader(WebSocketFrame::Binary, 16 * 1024 * 1024 + 1, true, true)
        << QByteArray() << 1009;
    QTest::newRow("unmasked frame") << WebSocketFrame::encode(WebSocketFrame::Binary, "abc") << QByteArray()
                                    << 1002;
}

void TestSimPlatform::frameRules()
{
    QFETCH(QByteArray, send);
    QFETCH(QByteArray, pong);
    QFETCH(int, closeCode);
    auto tunnel = openRawTunnel();
    QVERIFY(tunnel);
    tunnel->socket.write(send);
    if (!pong.isEmpty())
        QCOMPARE(tunnel->read(pong.size()), pong);
    else
        QCOMPARE(tunnel->closeCode(), closeCode);
}

void TestSimPlatform::cloudFaults_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<bool>("armFirst"); // armed before the WebSocket opens, else while it relays
    QTest::newRow("read throttle") << QStringLiteral("read-throttle") << false;
    QTest::newRow("oversized frame") << QStringLiteral("oversized-frame") << true;
    QTest::newRow("endless fragments") << QStringLiteral("endless-fragments") << false;
}

void TestSimPlatform::cloudFaults()
{
    QFETCH(QString, mode);
    QFETCH(bool, armFirst);
    const qint64 rate = 20000;
    const auto arm = [&](const QString& armed) {
        return admin(QStringLiteral("cloud-fault"),
                     QStringLiteral(R"({"instance_uuid":"%1","mode":"%2","bytes_per_second":%3})")
                         .arg(m_uuid, armed)
                         .arg(rate)
                         .toUtf8())
            .json()
            .value(QStringLiteral("instances"))[0][QStringLiteral("cloud_fault")][QStringLiteral("mode")]
            .toString();
    };
    std::unique_ptr<RawTunnel> tunnel;
    if (!armFirst)
        QVERIFY(tunnel = openRawTunnel());
    QCOMPARE(arm(mode), mode);
    if (armFirst)
        QVERIFY(tunnel = openRawTunnel());

    if (mode == QLatin1String("read-throttle")) {
        // About a second's worth of pings: the pongs measure how fast the cloud reads.
        const int pings = 150;
        const QByteArray ping = clientFrame(WebSocketFrame::Ping, QByteArray(125, 'p'));
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < pings; ++i)
            tunnel->socket.write(ping);
        QCOMPARE(tunnel->read(qint64(pings) * 127).size(), qint64(pings) * 127);
        const double seconds = double(clock.elapsed()) / 1000;
        QVERIFY2(seconds > 0.6 * pings * ping.size() / rate && seconds < 5,
                 qPrintable(QStringLiteral("%1 s for %2 bytes").arg(seconds).arg(pings * ping.size())));
        // A frame that goes on: the bytes the cloud does not read stay in our kernel's send queue.
        tunnel->socket.write(WebSocketFrame::encodeHeader(WebSocketFrame::Binary, 8 * 1024 * 1024, true, true)
                             + QByteArray(4 * 1024 * 1024, 'd'));
        QTRY_VERIFY_WITH_TIMEOUT(tunnel->kernelSendQueue() > 512 * 1024, 10000);
    } else if (mode == QLatin1String("oversized-frame")) {
        QCOMPARE(tunnel->read(10), QByteArray("\x82\x7F\0\0\0\0\x20\0\0\0", 10));
        qint64 received = 0;
        while (received < 64 * 1024 * 1024) {
            const QByteArray chunk = tunnel->read(1024 * 1024);
            QVERIFY(!chunk.isEmpty());
            received += chunk.size();
        }
        const qint64 rss = residentBytes(m_sim.process().processId());
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // A sanitizer's shadow memory dwarfs the simulator's own: only print it.
        qInfo("simulator RSS %lld bytes after 64 MiB of one frame (not checked under a sanitizer)", rss);
        QVERIFY(rss > 0);
#else
        QVERIFY2(rss > 0 && rss < 128 * 1024 * 1024, qPrintable(QString::number(rss)));
#endif
    } else {
        for (int frame = 0; frame < 40; ++frame) {
            const QByteArray header = tunnel->read(10);
            QCOMPARE(quint8(header.at(0)), quint8(frame == 0 ? 0x02 : 0x00)); // never FIN
            QCOMPARE(qFromBigEndian<quint64>(reinterpret_cast<const uchar*>(header.constData() + 2)), 65536u);
            QCOMPARE(tunnel->read(65536).size(), 65536);
        }
    }
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
    row("login, wrong password", "POST", QStringLiteral("/v1/users/login"),
        R"({"email":")" + m_sim.ready.value(QStringLiteral("email")).toString().toUtf8()
            + R"(","password":"x"})",
        {}, 401);
    row("access token, no instance_uuid", "POST", accessToken, "{}", m_apiToken, 400);
    row("access token, body not JSON", "POST", accessToken, "instance_uuid", m_apiToken, 400);
    row("instance details, no credentials", "GET", QStringLiteral("/v1/instances/") + m_uuid, {}, {}, 401);
    row("unknown path", "GET", QStringLiteral("/v2/whatever"), {}, m_apiToken, 404);
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
    QVERIFY2(result.json().contains(QStringLiteral("error")), result.body.constData());
}

void TestSimPlatform::handshake_data()
{
    QTest::addColumn<QString>("message"); // %1: a valid access token
    QTest::addColumn<QString>("connection"); // the "connection" answer expected
    QTest::addColumn<int>("closeCode"); // the close that follows a refusal

    const QString indented = QStringLiteral(
        "{\n    \"adbTunnelVersion\": 2,\n    \"token\": \"%1\",\n    \"type\": \"token\"\n}\n");
    const QString success = QStringLiteral("SUCCESS");
    const QString failed = QStringLiteral("FAILED");
    QTest::newRow("valid token") << indented << success << 0;
    QTest::newRow("wrong token") << authMessage(QStringLiteral("x%1")) << failed << 1008;
    QTest::newRow("version as a string")
        << QStringLiteral("{\"type\":\"token\",\"token\":\"%1\",\"adbTunnelVersion\":\"2\"}") << failed
        << 1008;
    QTest::newRow("not JSON") << QStringLiteral("token %1") << failed << 1008;
}

void TestSimPlatform::handshake()
{
    QFETCH(QString, message);
    QFETCH(QString, connection);
    QFETCH(int, closeCode);
    const QString token = accessToken();
    QVERIFY(!token.isEmpty());
    auto tunnel = openRawTunnel(message.arg(token));
    QVERIFY(tunnel);
    const QJsonObject answer = QJsonDocument::fromJson(tunnel->text()).object();
    QCOMPARE(answer.value(QStringLiteral("connection")).toString(), connection);
    if (closeCode != 0)
        QCOMPARE(tunnel->closeCode(), closeCode);
}

void TestSimPlatform::stopEndsShellsAndSandbox()
{
    SimProcess sim;
    QString error;
    QVERIFY2(sim.start({}, &error), qPrintable(error));
    const QJsonObject state
        = TestKit::http("GET", QUrl(sim.baseUrl() + QStringLiteral("/_sim/state"))).json();
    const QString sandbox = state.value(QStringLiteral("instances"))[0][QStringLiteral("sandbox")].toString();
    QVERIFY(QFileInfo(sandbox).isDir());
    // A shell that would outlive the test, started on the device's own port; it leaves its pid in
    // the sandbox.
    QTcpSocket device;
    device.connectToHost(QHostAddress::LocalHost,
                         quint16(sim.instance().value(QStringLiteral("device_port")).toInt()));
    QVERIFY(device.waitForConnected(10000));
    device.write(adbMessage(AdbPacket::CNXN, 0x01000001, 4096, "host::")
                 + adbMessage(AdbPacket::OPEN, 1, 0, "exec:echo $$ > pid; exec sleep 300"));
    QByteArray pid;
    QTRY_VERIFY_WITH_TIMEOUT(!(pid = TestKit::readFile(sandbox + QStringLiteral("/pid")).trimmed()).isEmpty(),
                             10000);
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
