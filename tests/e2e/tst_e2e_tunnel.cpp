// A user's view of tunnels: connect, use the device, get refused, disconnect. Losing the
// tunnel and stopping the daemon are in tst_e2e_faults.
#include "e2efixture.h"

#include <QJsonDocument>
#include <QtTest>

class TestE2eTunnel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void connectWithApiToken()
    {
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        const QString uuid = fixture.instanceUuid();

        // Without the option the daemon picks a free port; connecting without it is what every
        // other case does.
        const quint16 port = TestKit::freeLoopbackPort();
        const E2eFixture::Result connect = fixture.kbadbtunneld(
            { QStringLiteral("connect"), uuid, QStringLiteral("--adb-serial-port"), QString::number(port) });
        QCOMPARE(connect.exitCode, 0);
        QCOMPARE(connect.json().value(QStringLiteral("running")).toBool(), true);

        const QJsonObject entry = fixture.waitForState(uuid, QStringLiteral("CONNECTED"));
        QCOMPARE(entry.value(QStringLiteral("state")).toString(), QStringLiteral("CONNECTED"));
        const QString serial = entry.value(QStringLiteral("adb_serial")).toString();
        QCOMPARE(serial, QStringLiteral("localhost:%1").arg(port));

        QCOMPARE(fixture.shell(serial, QStringLiteral("echo hello; echo $((6*7))")),
                 QByteArray("hello\n42\n"));
        QVERIFY(fixture.devices().contains(serial.toUtf8() + "\tdevice"));

        // The daemon sent what the platform expects: the API token header and our user agent.
        const QJsonArray requests = fixture.requests();
        QVERIFY(!requests.isEmpty());
        const QByteArray dump = QJsonDocument(requests).toJson();
        QVERIFY(dump.contains("x-api-token"));
        QVERIFY(dump.contains("/v1/instances/access-token"));

        // "disconnect" detaches the device and forgets the instance.
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("disconnect"), uuid }).exitCode, 0);
        QVERIFY(fixture.instance(uuid).isEmpty());
        QVERIFY(!fixture.devices().contains(serial.toUtf8()));
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
        QCOMPARE(entry.value(QStringLiteral("adb_serial")).toString(), QString());
        const QByteArray log = fixture.log();
        QVERIFY(log.contains("Authentication error: "));
        QVERIFY(log.contains("adb tunnel will not restart for device"));
        QCOMPARE(log.count("Attempting to create tunnel."), 1);
    }
};

QTEST_GUILESS_MAIN(TestE2eTunnel)
#include "tst_e2e_tunnel.moc"
