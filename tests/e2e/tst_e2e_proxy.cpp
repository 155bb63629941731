// Tunnels through real proxies that the test starts on loopback: Debian's danted for SOCKS5 and
// tinyproxy for HTTP. What went through a proxy is read from the proxy's own log.
#include "e2efixture.h"

#include <QtTest>

#include <unistd.h>

namespace {

const QString PROXY_USER = QStringLiteral("kbproxy");
const QString PROXY_PASSWORD = QStringLiteral("s3cret");

struct Proxy
{
    quint16 port = 0;
    QString logPath;

    QByteArray log() const { return TestKit::readFile(logPath); }
};

// danted for SOCKS5, tinyproxy for HTTP, on a free loopback port; port 0 when it does not listen.
Proxy startProxy(E2eFixture& fixture, bool socks, bool withPassword)
{
    const QString name = socks ? QStringLiteral("danted") : QStringLiteral("tinyproxy");
    const Proxy proxy { TestKit::freeLoopbackPort(), fixture.path(name + QStringLiteral(".log")) };
    const QString configPath = fixture.path(name + QStringLiteral(".conf"));
    const QByteArray port = QByteArray::number(proxy.port);
    QByteArray config;
    if (socks) {
        config = "logoutput: " + proxy.logPath.toUtf8() + "\ninternal: 127.0.0.1 port = " + port
            + "\nexternal: lo\nclientmethod: none\nsocksmethod: none\n";
        if (::geteuid() == 0)
            config += "user.privileged: root\nuser.unprivileged: nobody\n";
        // "data" writes what crosses each connection to the log, so that the HTTP request lines
        // inside the SOCKS connections can be checked.
        config += "client pass {\n from: 127.0.0.0/8 to: 0.0.0.0/0\n log: connect disconnect error\n}\n"
                  "socks pass {\n from: 127.0.0.0/8 to: 127.0.0.0/8\n command: connect\n"
                  " log: connect disconnect error data\n}\n";
    } else {
        // The WebSocket goes through CONNECT, which tinyproxy only allows to listed ports.
        config = "Port " + port
            + "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 600\nMaxClients 50\nLogLevel Connect\nLogFile \""
            + proxy.logPath.toUtf8() + "\"\nConnectPort " + QByteArray::number(fixture.platformPort()) + "\n";
        if (withPassword)
            config += "BasicAuth " + PROXY_USER.toUtf8() + " " + PROXY_PASSWORD.toUtf8() + "\n";
    }
    if (!TestKit::writeFile(configPath, config))
        return {};
    // danted gets its own pid file too: the default one is the system service's.
    if (socks)
        fixture.startProcess(QStringLiteral("/usr/sbin/danted"),
                             { QStringLiteral("-f"), configPath, QStringLiteral("-p"),
                               fixture.path(QStringLiteral("danted.pid")) });
    else
        fixture.startProcess(QStringLiteral("/usr/bin/tinyproxy"),
                             { QStringLiteral("-d"), QStringLiteral("-c"), configPath });
    return TestKit::waitForListener(proxy.port) ? proxy : Proxy {};
}

} // namespace

class TestE2eProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tunnelThroughProxy_data()
    {
        QTest::addColumn<QString>("scheme");
        // Empty: the proxy wants none. "environment": it wants them and gets them from there.
        // "wrong": it gets a wrong password in the URL. "down": no proxy listens.
        QTest::addColumn<QString>("credentials");

        QTest::newRow("socks5") << "socks5" << QString();
        QTest::newRow("http") << "http" << QString();
        QTest::newRow("http, user and password from the environment") << "http"
                                                                      << "environment";
        QTest::newRow("nothing listens") << "socks5"
                                         << "down";
        QTest::newRow("http, wrong password") << "http"
                                              << "wrong";
    }

    // A usable proxy carries the REST calls and the WebSocket; an unusable one fails the tunnel
    // and nothing goes around it.
    void tunnelThroughProxy()
    {
        QFETCH(QString, scheme);
        QFETCH(QString, credentials);
        const bool socks = scheme == QLatin1String("socks5");
        const bool down = credentials == QLatin1String("down");
        const bool wantsPassword = !credentials.isEmpty() && !down;
        const bool usable = !down && credentials != QLatin1String("wrong");

        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        Proxy proxy { TestKit::freeLoopbackPort(), QString() };
        if (!down) {
            proxy = startProxy(fixture, socks, wantsPassword);
            QVERIFY2(proxy.port != 0, "the proxy did not start");
        }
        QString userInfo;
        if (credentials == QLatin1String("wrong"))
            userInfo = PROXY_USER + QStringLiteral(":wrong@");
        if (credentials == QLatin1String("environment")) {
            // Whatever the URL says, the environment wins.
            userInfo = QStringLiteral("nobody:wrong@");
            fixture.setEnv(QStringLiteral("KBSAAS_PROXY_USERNAME"), PROXY_USER);
            fixture.setEnv(QStringLiteral("KBSAAS_PROXY_PASSWORD"), PROXY_PASSWORD);
        }
        const QString url
            = scheme + QStringLiteral("://") + userInfo + QStringLiteral("127.0.0.1:%1").arg(proxy.port);
        fixture.writeConfig({ { QStringLiteral("proxy"), url } });
        const QString uuid = fixture.instanceUuid();

        if (!usable) {
            QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("connect"), uuid }).exitCode, 0);
            QTRY_COMPARE_WITH_TIMEOUT(fixture.state(uuid), QStringLiteral("FAILED"), 60000);
            QVERIFY(fixture.log().contains("Failed to retrieve instance access token:"));
            // doctor, too, goes through the proxy or not at all.
            QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("doctor") }).exitCode, 2);
            // Nothing reached the platform, and the daemon still answers.
            QVERIFY(fixture.requests().isEmpty());
            QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getdaemoninfo") }).exitCode, 0);
            QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getinstances") }).exitCode, 0);
            return;
        }
        const QString serial = fixture.connectInstance(uuid);
        QVERIFY2(!serial.isEmpty(), fixture.log().right(3000).constData());
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getdaemoninfo") })
                     .json()
                     .value(QStringLiteral("proxy"))
                     .toString(),
                 QStringLiteral("127.0.0.1:%1").arg(proxy.port));
        const QString failed = fixture.roundTrip(serial, QStringLiteral("through-proxy.bin"), 256 << 10);
        QVERIFY2(failed.isEmpty(), qPrintable(failed));

        // The proxy saw both REST calls and the WebSocket upgrade.
        const QByteArray log = proxy.log();
        const QByteArray platform = "127.0.0.1:" + QByteArray::number(fixture.platformPort());
        if (socks) {
            QVERIFY2(log.contains("POST /v1/instances/access-token"), log.right(3000).constData());
            QVERIFY(log.contains("GET /v1/instances/" + uuid.toUtf8() + " "));
            QVERIFY(log.contains("GET /v1/instances/" + uuid.toUtf8() + "/adb "));
        } else {
            QVERIFY2(log.contains("POST http://" + platform + "/v1/instances/access-token"),
                     log.right(3000).constData());
            QVERIFY(log.contains("GET http://" + platform + "/v1/instances/" + uuid.toUtf8() + " "));
            QVERIFY(log.contains("CONNECT " + platform + " "));
        }

        // doctor's authenticated request takes the same way.
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("doctor") }).exitCode, 0);
        QVERIFY(proxy.log().contains("/v1/instances/00000000-0000-0000-0000-000000000000 "));
    }

    void invalidProxyUrlMeansNoProxy()
    {
        E2eFixture fixture;
        fixture.writeConfig({ { QStringLiteral("proxy"), QStringLiteral("http://proxy host:3128") } });
        QVERIFY(!fixture.startAndConnect().isEmpty());
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getdaemoninfo") })
                     .json()
                     .value(QStringLiteral("proxy"))
                     .toString(),
                 QString());
        const QByteArray log = fixture.log();
        QVERIFY(log.contains("[warning] Proxy url from config is invalid \"http://proxy host:3128\""));
        QVERIFY(log.contains("No proxy used"));
    }
};

QTEST_GUILESS_MAIN(TestE2eProxy)
#include "tst_e2e_proxy.moc"
