// A user's view of tunnels: connect, use the device, lose it, get it back, disconnect.
#include "e2efixture.h"

#include <QJsonDocument>
#include <QTcpServer>
#include <QtTest>

namespace {

QString serialOf(const QJsonObject& entry)
{
    return entry.value(QStringLiteral("adb_serial")).toString();
}

} // namespace

class TestE2eTunnel : public QObject
{
    Q_OBJECT

private:
    // Starts a one-instance simulator, connects its instance with the API token and waits for
    // the tunnel; returns the ADB serial (empty when it never came up).
    static QString connectOne(E2eFixture& fixture)
    {
        if (!fixture.startSimulator())
            return {};
        fixture.useApiToken();
        return fixture.connectInstance(fixture.instanceUuid());
    }

    static void checkShell(const E2eFixture& fixture, const QString& serial)
    {
        QCOMPARE(fixture.shell(serial, QStringLiteral("echo hello; echo $((6*7))")),
                 QByteArray("hello\n42\n"));
    }

private Q_SLOTS:
    void connectWithApiToken()
    {
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        const QString uuid = fixture.instanceUuid();

        // Without the option the daemon picks a free port; connecting without it is what every
        // other case does.
        const quint16 port = E2eFixture::freePort();
        const E2eFixture::Result connect = fixture.kbadbtunneld(
            { QStringLiteral("connect"), uuid, QStringLiteral("--adb-serial-port"), QString::number(port) });
        QCOMPARE(connect.exitCode, 0);
        QCOMPARE(connect.json().value(QStringLiteral("running")).toBool(), true);

        const QJsonObject entry = fixture.waitForState(uuid, QStringLiteral("CONNECTED"));
        QCOMPARE(entry.value(QStringLiteral("state")).toString(), QStringLiteral("CONNECTED"));
        QCOMPARE(serialOf(entry), QStringLiteral("localhost:%1").arg(port));

        checkShell(fixture, serialOf(entry));
        const E2eFixture::Result devices = fixture.adb({ QStringLiteral("devices") });
        QVERIFY(devices.out.contains(serialOf(entry).toUtf8() + "\tdevice"));

        // The daemon sent what the platform expects: the API token header and our user agent.
        const QJsonArray requests
            = fixture.adminGet(QStringLiteral("requests")).value(QStringLiteral("requests")).toArray();
        QVERIFY(!requests.isEmpty());
        const QByteArray dump = QJsonDocument(requests).toJson();
        QVERIFY(dump.contains("x-api-token"));
        QVERIFY(dump.contains("/v1/instances/access-token"));

        // "disconnect" detaches the device and forgets the instance.
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("disconnect"), uuid }).exitCode, 0);
        QVERIFY(fixture.instance(uuid).isEmpty());
        QVERIFY(!fixture.adb({ QStringLiteral("devices") }).out.contains(serialOf(entry).toUtf8()));
    }

    void refusedAuthenticationFailsAtOnce_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("bad api token") << "token";
        QTest::newRow("json refusal on the websocket") << "json";
        QTest::newRow("websocket closed with 1008") << "close";
        QTest::newRow("unknown instance") << "unknown";
    }

    void refusedAuthenticationFailsAtOnce()
    {
        QFETCH(QString, how);
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        QString uuid = fixture.instanceUuid();
        if (how == QLatin1String("token")) {
            fixture.writeAuth({ { QStringLiteral("api_token"), QStringLiteral("wrong") } });
        } else {
            fixture.useApiToken();
        }
        if (how == QLatin1String("json") || how == QLatin1String("close")) {
            QCOMPARE(fixture.admin(QStringLiteral("refuse-auth"),
                                   { { QStringLiteral("mode"), how }, { QStringLiteral("count"), 5 } }),
                     200);
        }
        if (how == QLatin1String("unknown"))
            uuid = QStringLiteral("00000000-0000-0000-0000-000000000000");

        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("connect"), uuid }).exitCode, 0);
        const QJsonObject entry = fixture.waitForState(uuid, QStringLiteral("FAILED"));
        QCOMPARE(entry.value(QStringLiteral("state")).toString(), QStringLiteral("FAILED"));
        QCOMPARE(serialOf(entry), QString());
        const QByteArray log = fixture.log();
        QVERIFY(log.contains("Authentication error: "));
        QVERIFY(log.contains("adb tunnel will not restart for device"));
        QCOMPARE(log.count("Attempting to create tunnel."), 1);
    }

    void platformDropsTheWebSocket()
    {
        E2eFixture fixture;
        const QString serial = connectOne(fixture);
        QVERIFY(!serial.isEmpty());
        const QString uuid = fixture.instanceUuid();

        // Drop it in the middle of a push: that push may fail, the tunnel comes back by itself.
        const QString file = fixture.makeFile(QStringLiteral("drop.bin"), 8 << 20);
        QCOMPARE(fixture.admin(QStringLiteral("close"),
                               { { QStringLiteral("instance_uuid"), uuid },
                                 { QStringLiteral("after_bytes"), 2 << 20 } }),
                 200);
        fixture.adb({ QStringLiteral("-s"), serial, QStringLiteral("push"), file,
                      QStringLiteral("/data/local/tmp/drop.bin") });
        QTRY_VERIFY_WITH_TIMEOUT(fixture.log().count("Tunnel init successfully for device") >= 2, 30000);
        QCOMPARE(fixture.instance(uuid).value(QStringLiteral("state")).toString(),
                 QStringLiteral("CONNECTED"));
        QCOMPARE(serialOf(fixture.instance(uuid)), serial); // the restart reuses the port

        QTRY_VERIFY_WITH_TIMEOUT(
            fixture.adb({ QStringLiteral("-s"), serial, QStringLiteral("get-state") }).out.trimmed()
                == "device",
            30000);
        const E2eFixture::Result push = fixture.adb({ QStringLiteral("-s"), serial, QStringLiteral("push"),
                                                      file, QStringLiteral("/data/local/tmp/again.bin") });
        QCOMPARE(push.exitCode, 0);
        QCOMPARE(E2eFixture::sha256(fixture.path(QStringLiteral("sandbox")) + QStringLiteral("/") + uuid
                                    + QStringLiteral("/data/local/tmp/again.bin")),
                 E2eFixture::sha256(file));
    }

    void stopLeavesNoStaleDevice()
    {
        E2eFixture fixture;
        const QString serial = connectOne(fixture);
        QVERIFY(!serial.isEmpty());
        QVERIFY(fixture.adb({ QStringLiteral("devices") }).out.contains(serial.toUtf8()));
        const E2eFixture::Result stop = fixture.kbadbtunneld({ QStringLiteral("stop") });
        QCOMPARE(stop.json().value(QStringLiteral("running")).toBool(true), false);
        QVERIFY(!fixture.adb({ QStringLiteral("devices") }).out.contains(serial.toUtf8()));
    }
};

QTEST_GUILESS_MAIN(TestE2eTunnel)
#include "tst_e2e_tunnel.moc"
