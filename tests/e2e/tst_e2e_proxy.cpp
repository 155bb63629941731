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

Proxy startDanted(E2eFixture& fixture, bool withPassword)
{
    Proxy proxy;
    proxy.port = E2eFixture::freePort();
    proxy.logPath = fixture.path(QStringLiteral("danted.log"));
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
    } else {
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
                  "root:*:19000:0:99999:7:::\nnobody:*:19000:0:99999:7:::\n" + PROXY_USER.toUtf8() + ":"
                      + hash + ":19000:0:99999:7:::\n");
        // unshare and sh exec into danted, so the process the fixture stops is danted itself.
        fixture.startProcess(
            QStringLiteral("/usr/bin/unshare"),
            QStringList { QStringLiteral("-m"), QStringLiteral("--propagation"), QStringLiteral("private"),
                          QStringLiteral("sh"), QStringLiteral("-c"),
                          QStringLiteral(
                              "mount --bind \"$1\" /etc/passwd && mount --bind \"$2\" /etc/shadow && shift 2 "
                              "&& exec \"$@\""),
                          QStringLiteral("sh"), passwd, shadow }
                + danted);
    }
    if (!TestKit::waitForListener(proxy.port))
        proxy.port = 0;
    return proxy;
}

Proxy startTinyproxy(E2eFixture& fixture, quint16 platformPort, bool withPassword)
{
    Proxy proxy;
    proxy.port = E2eFixture::freePort();
    proxy.logPath = fixture.path(QStringLiteral("tinyproxy.log"));
    QByteArray config = "Port " + QByteArray::number(proxy.port)
        + "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 600\nMaxClients 50\nLogLevel Connect\n" + "LogFile \""
        + proxy.logPath.toUtf8()
        + "\"\n"
        // The WebSocket goes through CONNECT, which tinyproxy only allows to listed ports.
        + "ConnectPort " + QByteArray::number(platformPort) + "\n";
    if (withPassword)
        config += "BasicAuth " + PROXY_USER.toUtf8() + " " + PROXY_PASSWORD.toUtf8() + "\n";
    const QString configPath = fixture.path(QStringLiteral("tinyproxy.conf"));
    writeFile(configPath, config);
    fixture.startProcess(QStringLiteral("/usr/bin/tinyproxy"),
                         { QStringLiteral("-d"), QStringLiteral("-c"), configPath });
    if (!TestKit::waitForListener(proxy.port))
        proxy.port = 0;
    return proxy;
}

quint16 platformPort(const E2eFixture& fixture)
{
    return quint16(QUrl(fixture.ready().value(QStringLiteral("base_url")).toString()).port());
}

} // namespace

class TestE2eProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tunnelThroughProxy_data()
    {
        QTest::addColumn<QString>("scheme");
        QTest::addColumn<bool>("proxyWantsPassword");
        QTest::addColumn<QString>("credentials"); // "url", "environment" or empty

        QTest::newRow("socks5") << "socks5" << false << QString();
        QTest::newRow("socks5, user and password in the url") << "socks5" << true << "url";
        QTest::newRow("socks5, user and password from the environment") << "socks5" << true << "environment";
        QTest::newRow("http") << "http" << false << QString();
        QTest::newRow("http, user and password from the environment") << "http" << true << "environment";
    }

    void tunnelThroughProxy()
    {
        QFETCH(QString, scheme);
        QFETCH(bool, proxyWantsPassword);
        QFETCH(QString, credentials);
        const bool socks = scheme == QLatin1String("socks5");
        if (socks && proxyWantsPassword && !canGiveDantedItsOwnUsers())
            QSKIP("danted's user name check needs a private mount namespace (root and unshare)");

        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        const Proxy proxy = socks ? startDanted(fixture, proxyWantsPassword)
                                  : startTinyproxy(fixture, platformPort(fixture), proxyWantsPassword);
        QVERIFY2(proxy.port != 0, "the proxy did not start");

        QString url = QStringLiteral("%1://127.0.0.1:%2").arg(scheme).arg(proxy.port);
        if (credentials == QLatin1String("url"))
            url = QStringLiteral("%1://%2:%3@127.0.0.1:%4")
                      .arg(scheme, PROXY_USER, PROXY_PASSWORD)
                      .arg(proxy.port);
        if (credentials == QLatin1String("environment")) {
            // Whatever the URL says, the environment wins.
            url = QStringLiteral("%1://nobody:wrong@127.0.0.1:%2").arg(scheme).arg(proxy.port);
            fixture.setEnv(QStringLiteral("KBSAAS_PROXY_USERNAME"), PROXY_USER);
            fixture.setEnv(QStringLiteral("KBSAAS_PROXY_PASSWORD"), PROXY_PASSWORD);
        }
        fixture.writeConfig({ { QStringLiteral("proxy"), url } });

        const QString uuid = fixture.instanceUuid();
        const QString serial = fixture.connectInstance(uuid);
        QVERIFY2(!serial.isEmpty(), fixture.log().right(3000).constData());
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getdaemoninfo") })
                     .json()
                     .value(QStringLiteral("proxy"))
                     .toString(),
                 QStringLiteral("127.0.0.1:%1").arg(proxy.port));

        const QString local = fixture.makeFile(QStringLiteral("through-proxy.bin"), 256 << 10);
        const QString remote = QStringLiteral("/data/local/tmp/through-proxy.bin");
        const QString pulled = fixture.path(QStringLiteral("pulled.bin"));
        QCOMPARE(
            fixture.adb({ QStringLiteral("-s"), serial, QStringLiteral("push"), local, remote }).exitCode, 0);
        QCOMPARE(
            fixture.adb({ QStringLiteral("-s"), serial, QStringLiteral("pull"), remote, pulled }).exitCode,
            0);
        QCOMPARE(E2eFixture::sha256(pulled), E2eFixture::sha256(local));

        // The proxy saw both REST calls and the WebSocket upgrade.
        const QByteArray log = proxy.log();
        const QByteArray platform = "127.0.0.1:" + QByteArray::number(platformPort(fixture));
        if (socks) {
            QVERIFY2(log.contains("POST /v1/instances/access-token"), log.right(3000).constData());
            QVERIFY(log.contains("GET /v1/instances/" + uuid.toUtf8() + " "));
            QVERIFY(log.contains("GET /v1/instances/" + uuid.toUtf8() + "/adb "));
            if (proxyWantsPassword)
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
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        fixture.writeConfig({ { QStringLiteral("proxy"), QStringLiteral("http://proxy host:3128") } });
        const QString serial = fixture.connectInstance(fixture.instanceUuid());
        QVERIFY2(!serial.isEmpty(), fixture.log().right(3000).constData());
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getdaemoninfo") })
                     .json()
                     .value(QStringLiteral("proxy"))
                     .toString(),
                 QString());
        const QByteArray log = fixture.log();
        QVERIFY(log.contains("[warning] Proxy url from config is invalid \"http://proxy host:3128\""));
        QVERIFY(log.contains("No proxy used"));
    }

    void unusableProxyFailsTheTunnel_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("nothing listens") << "down";
        QTest::newRow("socks5, wrong password") << "socks5";
        QTest::newRow("http, wrong password") << "http";
    }

    void unusableProxyFailsTheTunnel()
    {
        QFETCH(QString, how);
        if (how == QLatin1String("socks5") && !canGiveDantedItsOwnUsers())
            QSKIP("danted's user name check needs a private mount namespace (root and unshare)");

        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        QString url = QStringLiteral("socks5://127.0.0.1:%1").arg(E2eFixture::freePort());
        if (how != QLatin1String("down")) {
            const Proxy proxy = how == QLatin1String("socks5")
                ? startDanted(fixture, true)
                : startTinyproxy(fixture, platformPort(fixture), true);
            QVERIFY(proxy.port != 0);
            url = QStringLiteral("%1://%2:wrong@127.0.0.1:%3").arg(how, PROXY_USER).arg(proxy.port);
        }
        fixture.writeConfig({ { QStringLiteral("proxy"), url } });

        const QString uuid = fixture.instanceUuid();
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("connect"), uuid }).exitCode, 0);
        const QJsonObject entry = fixture.waitForState(uuid, QStringLiteral("FAILED"), 60000);
        QCOMPARE(entry.value(QStringLiteral("state")).toString(), QStringLiteral("FAILED"));
        QVERIFY(fixture.log().contains("Failed to retrieve instance access token:"));
        // doctor, too, goes through the proxy or not at all.
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("doctor") }).exitCode, 2);
        // Nothing reached the platform, and the daemon still answers.
        QVERIFY(fixture.adminGet(QStringLiteral("requests"))
                    .value(QStringLiteral("requests"))
                    .toArray()
                    .isEmpty());
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getdaemoninfo") }).exitCode, 0);
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("getinstances") }).exitCode, 0);
    }
};

QTEST_GUILESS_MAIN(TestE2eProxy)
#include "tst_e2e_proxy.moc"
