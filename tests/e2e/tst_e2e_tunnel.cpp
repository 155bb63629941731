// A user's view of tunnels: connect, use the device, get refused, disconnect, and no secret in
// the log along the way. Losing the tunnel and stopping the daemon are in tst_e2e_faults.
#include "e2efixture.h"

#include <QJsonDocument>
#include <QtTest>

class TestE2eTunnel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void connectUseDisconnect_data()
    {
        QTest::addColumn<bool>("apiToken");
        QTest::newRow("api token") << true;
        QTest::newRow("email and password") << false;
    }

    // Connect on a port of the user's choice, use the device, disconnect; with every log category
    // and the ADB trace switched on, and yet no secret reaches the log file: not the password,
    // not the API token, not a session token, not an instance access token.
    void connectUseDisconnect()
    {
        QFETCH(bool, apiToken);
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        const QString password = fixture.ready().value(QStringLiteral("password")).toString();
        const QString token = fixture.ready().value(QStringLiteral("api_token")).toString();
        if (apiToken)
            fixture.useApiToken();
        else
            fixture.writeAuth({ { QStringLiteral("email"), fixture.ready().value(QStringLiteral("email")) },
                                { QStringLiteral("password"), password } });
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_DEBUG"), QStringLiteral("1"));
        fixture.setEnv(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*=true"));
        const QString uuid = fixture.instanceUuid();

        // Without the option the daemon picks a free port; connecting without it is what every
        // other case does.
        const quint16 port = TestKit::freeLoopbackPort();
        const E2eFixture::Result connect
            = fixture.kbadbtunneld({ QStringLiteral("connect"), uuid, QStringLiteral("--adb-serial-port"),
                                     QString::number(port), QStringLiteral("--wait") });
        QCOMPARE(connect.exitCode, 0);
        QCOMPARE(connect.json().value(QStringLiteral("running")).toBool(), true);
        QCOMPARE(connect.json().value(QStringLiteral("state")).toString(), QStringLiteral("CONNECTED"));
        const QString serial = connect.json().value(QStringLiteral("adb_serial")).toString();
        QCOMPARE(serial, QStringLiteral("localhost:%1").arg(port));
        QCOMPARE(fixture.shell(serial, QStringLiteral("echo hello; echo $((6*7))")),
                 QByteArray("hello\n42\n"));
        QVERIFY(fixture.devices().contains(serial.toUtf8() + "\tdevice"));

        if (!apiToken) {
            // An expired session and a dropped WebSocket: the restarted tunnel logs in again.
            QCOMPARE(fixture.admin(QStringLiteral("expire-sessions")), 200);
            QCOMPARE(fixture.dropWebSocket(uuid), 200);
            QTRY_VERIFY_WITH_TIMEOUT(
                QJsonDocument(fixture.requests()).toJson().count("\"/v1/users/login\"") >= 2, 30000);
            QTRY_VERIFY_WITH_TIMEOUT(fixture.tunnelSuccesses(uuid) >= 2, 30000);
            QCOMPARE(fixture.state(uuid), QStringLiteral("CONNECTED"));
            QTRY_COMPARE_WITH_TIMEOUT(fixture.shell(serial, QStringLiteral("echo again")),
                                      QByteArray("again\n"), 30000);
        }
        // "disconnect" detaches the device and forgets the instance.
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("disconnect"), uuid }).exitCode, 0);
        QVERIFY(fixture.instance(uuid).isEmpty());
        QVERIFY(!fixture.devices().contains(serial.toUtf8()));
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("stop") }).exitCode, 0);

        // Every token the daemon presented: headers of the REST calls, the WebSocket handshakes.
        QStringList secrets { apiToken ? token : password };
        const QJsonArray requests = fixture.requests();
        QVERIFY(!requests.isEmpty());
        for (const QJsonValue& request : requests) {
            const QJsonObject headers = request.toObject().value(QStringLiteral("headers")).toObject();
            const QString authorization = headers.value(QStringLiteral("authorization")).toString();
            if (authorization.startsWith(QLatin1String("Bearer ")))
                secrets.append(authorization.mid(7));
            if (headers.contains(QStringLiteral("x-api-token")))
                secrets.append(headers.value(QStringLiteral("x-api-token")).toString());
            for (const QJsonValue& message : request.toObject().value(QStringLiteral("messages")).toArray()) {
                const QJsonObject auth = message.isObject()
                    ? message.toObject()
                    : QJsonDocument::fromJson(message.toString().toUtf8()).object();
                if (auth.contains(QStringLiteral("token")))
                    secrets.append(auth.value(QStringLiteral("token")).toString());
            }
        }
        secrets.removeAll(QString());
        secrets.removeDuplicates();
        // What the platform expects: the API token header, or the session token as a bearer token;
        // and a request for the instance access token.
        const QByteArray dump = QJsonDocument(requests).toJson();
        QVERIFY(dump.contains(apiToken ? "x-api-token" : "Bearer "));
        QVERIFY(dump.contains("/v1/instances/access-token"));
        // The API token, or the password and a session token; and the instance access token.
        QVERIFY2(secrets.size() >= (apiToken ? 2 : 3), qPrintable(secrets.join(QLatin1Char(' '))));

        const QByteArray log = fixture.log();
        QVERIFY(log.contains("[tunnel.debug]"));
        QVERIFY(log.contains("ADB MESSAGE"));
        for (const QString& secret : secrets)
            QVERIFY2(!log.contains(secret.toUtf8()),
                     qPrintable(QStringLiteral("secret in the log: ") + secret));
    }

    void refusedAuthenticationFailsAtOnce_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("json refusal on the websocket") << "json";
        QTest::newRow("websocket closed with 1008") << "close";
    }

    void refusedAuthenticationFailsAtOnce()
    {
        QFETCH(QString, how);
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        const QString uuid = fixture.instanceUuid();
        fixture.useApiToken();
        QCOMPARE(fixture.admin(QStringLiteral("refuse-auth"),
                               { { QStringLiteral("mode"), how }, { QStringLiteral("count"), 5 } }),
                 200);
        QVERIFY(fixture.connectInstance(uuid).isEmpty());
        const QJsonObject entry = fixture.instance(uuid);
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
