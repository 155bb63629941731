// Tunnels through real proxies that the test starts on loopback: Debian's danted for SOCKS5 and
// tinyproxy for HTTP. What went through a proxy is read from the proxy's own log.
#include "e2efixture.h"

#include <QTcpSocket>
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

void writeFile(const QString& path, const QByteArray& content)
{
    QVERIFY(TestKit::writeFile(path, content));
}

QByteArray linesOf(const QString& path, const QList<QByteArray>& names)
{
    QByteArray lines;
    for (const QByteArray& line : TestKit::readFile(path).split('\n')) {
        if (names.contains(line.left(line.indexOf(':'))))
            lines += line + '\n';
    }
    return lines;
}

// danted checks SOCKS5 user names and passwords against the system's password database. It
// gets a database of its own in a private mount namespace: /etc/passwd and /etc/shadow are
// bind-mounted over for that one process, the machine's files stay as they are. That takes
// root and unshare(1); elsewhere the password rows are skipped.
bool canGiveDantedItsOwnUsers()
{
    return ::geteuid() == 0 && QFile::exists(QStringLiteral("/usr/bin/unshare"));
}

void startDanted(E2eFixture& fixture, const Proxy& proxy, bool withPassword)
{
    QByteArray config = "logoutput: " + proxy.logPath.toUtf8() + "\n"
        + "internal: 127.0.0.1 port = " + QByteArray::number(proxy.port) + "\n" + "external: lo\n"
        + "clientmethod: none\n" + "socksmethod: " + (withPassword ? "username" : "none") + "\n";
    if (::geteuid() == 0)
        config += "user.privileged: root\nuser.unprivileged: nobody\n";
    // "data" writes what crosses each connection to the log, so that the HTTP request lines
    // inside the SOCKS connections can be checked.
    config += "client pass {\n from: 127.0.0.0/8 to: 0.0.0.0/0\n log: connect disconnect error\n}\n"
              "socks pass {\n from: 127.0.0.0/8 to: 127.0.0.0/8\n command: connect\n"
              " log: connect disconnect error data\n}\n";
    const QString configPath = fixture.path(QStringLiteral("danted.conf"));
    writeFile(configPath, config);

    // Its own pid file too: the default one is the system service's.
    const QStringList danted { QStringLiteral("/usr/sbin/danted"), QStringLiteral("-f"), configPath,
                               QStringLiteral("-p"), fixture.path(QStringLiteral("danted.pid")) };
    if (!withPassword) {
        fixture.startProcess(danted.first(), danted.mid(1));
        return;
    }
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  { QStringLiteral("passwd"), QStringLiteral("-6"), PROXY_PASSWORD });
    openssl.waitForFinished(10000);
    const QByteArray hash = openssl.readAllStandardOutput().trimmed();
    const QString passwd = fixture.path(QStringLiteral("passwd"));
    const QString shadow = fixture.path(QStringLiteral("shadow"));
    writeFile(passwd,
              linesOf(QStringLiteral("/etc/passwd"), { "root", "nobody" }) + PROXY_USER.toUtf8()
                  + ":x:4242:4242::/nonexistent:/usr/sbin/nologin\n");
    writeFile(shadow,
              "root:*:19000:0:99999:7:::\nnobody:*:19000:0:99999:7:::\n" + PROXY_USER.toUtf8() + ":" + hash
                  + ":19000:0:99999:7:::\n");
    // unshare and sh exec into danted, so the process the fixture stops is danted itself.
    fixture.startProcess(
        QStringLiteral("/usr/bin/unshare"),
        QStringList {
            QStringLiteral("-m"), QStringLiteral("--propagation"), QStringLiteral("private"),
            QStringLiteral("sh"), QStringLiteral("-c"),
            QStringLiteral("mount --bind \"$1\" /etc/passwd && mount --bind \"$2\" /etc/shadow && shift 2 "
                           "&& exec \"$@\""),
            QStringLiteral("sh"), passwd, shadow }
            + danted);
}

void startTinyproxy(E2eFixture& fixture, const Proxy& proxy, bool withPassword)
{
    QByteArray config = "Port " + QByteArray::number(proxy.port)
        + "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 600\nMaxClients 50\nLogLevel Connect\n" + "LogFile \""
        + proxy.logPath.toUtf8()
        + "\"\n"
        // The WebSocket goes through CONNECT, which tinyproxy only allows to listed ports.
        + "ConnectPort " + QByteArray::number(fixture.platformPort()) + "\n";
    if (withPassword)
        config += "BasicAuth " + PROXY_USER.toUtf8() + " " + PROXY_PASSWORD.toUtf8() + "\n";
    const QString configPath = fixture.path(QStringLiteral("tinyproxy.conf"));
    writeFile(configPath, config);
    fixture.startProcess(QStringLiteral("/usr/bin/tinyproxy"),
                         { QStringLiteral("-d"), QStringLiteral("-c"), configPath });
}

// danted for SOCKS5, tinyproxy for HTTP, on a free loopback port; port 0 when it does not listen.
Proxy startProxy(E2eFixture& fixture, bool socks, bool withPassword)
{
    Proxy proxy { TestKit::freeLoopbackPort(),
                  fixture.path(socks ? QStringLiteral("danted.log") : QStringLiteral("tinyproxy.log")) };
    if (socks)
        startDanted(fixture, proxy, withPassword);
    else
        startTinyproxy(fixture, proxy, withPassword);
    if (!TestKit::waitForListener(proxy.port))
        proxy.port = 0;
    return proxy;
}

} // namespace

class TestE2eProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tunnelThroughProxy_data()
    {
        QTest::addColumn<QString>("scheme");
        // Empty: the proxy wants none. "url", "environment": it wants them and gets them that
        // way. "wrong": it gets a wrong password. "down": no proxy listens.
        QTest::addColumn<QString>("credentials");

        QTest::newRow("socks5") << "socks5" << QString();
        QTest::newRow("socks5, user and password in the url") << "socks5"
                                                              << "url";
        QTest::newRow("socks5, user and password from the environment") << "socks5"
                                                                        << "environment";
        QTest::newRow("http") << "http" << QString();
        QTest::newRow("http, user and password from the environment") << "http"
                                                                      << "environment";
        QTest::newRow("nothing listens") << "socks5"
                                         << "down";
        QTest::newRow("socks5, wrong password") << "socks5"
                                                << "wrong";
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
        if (socks && wantsPassword && !canGiveDantedItsOwnUsers())
            QSKIP("danted's user name check needs a private mount namespace (root and unshare)");

        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        Proxy proxy { TestKit::freeLoopbackPort(), QString() };
        if (!down) {
            proxy = startProxy(fixture, socks, wantsPassword);
            QVERIFY2(proxy.port != 0, "the proxy did not start");
        }
        QString userInfo;
        if (credentials == QLatin1String("url"))
            userInfo = PROXY_USER + QLatin1Char(':') + PROXY_PASSWORD + QLatin1Char('@');
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
            if (wantsPassword)
                QVERIFY(log.contains("username%" + PROXY_USER.toUtf8() + "@"));
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
