// No secret reaches the log file, even with every log category and the ADB trace switched on:
// not the password, not the API token, not a session token, not an instance access token.
#include "e2efixture.h"

#include <QJsonDocument>
#include <QtTest>

class TestE2eSecrets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logHoldsNoSecret_data()
    {
        QTest::addColumn<bool>("apiToken");
        QTest::newRow("api token") << true;
        QTest::newRow("email and password") << false;
    }

    void logHoldsNoSecret()
    {
        QFETCH(bool, apiToken);
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        const QString password = fixture.ready().value(QStringLiteral("password")).toString();
        const QString token = fixture.ready().value(QStringLiteral("api_token")).toString();
        if (apiToken)
            fixture.useApiToken();
        else
            fixture.useCredentials(fixture.ready().value(QStringLiteral("email")).toString(), password);
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_DEBUG"), QStringLiteral("1"));
        fixture.setEnv(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*=true"));
        const QString uuid = fixture.instanceUuid();

        const QString serial = fixture.connectInstance(uuid);
        QVERIFY(!serial.isEmpty());
        QCOMPARE(fixture.shell(serial, QStringLiteral("echo hi")), QByteArray("hi\n"));
        if (!apiToken) {
            // An expired session and a dropped WebSocket: the restarted tunnel logs in again.
            QCOMPARE(fixture.admin(QStringLiteral("expire-sessions")), 200);
            QCOMPARE(fixture.dropWebSocket(uuid), 200);
            const auto logins = [&fixture] {
                int count = 0;
                const QJsonArray all = fixture.requests();
                for (const QJsonValue& request : all)
                    count += request.toObject().value(QStringLiteral("path")).toString()
                        == QLatin1String("/v1/users/login");
                return count;
            };
            QTRY_VERIFY_WITH_TIMEOUT(logins() >= 2, 30000);
            QTRY_VERIFY_WITH_TIMEOUT(fixture.tunnelSuccesses(uuid) >= 2, 30000);
            QCOMPARE(fixture.state(uuid), QStringLiteral("CONNECTED"));
            QTRY_COMPARE_WITH_TIMEOUT(fixture.shell(serial, QStringLiteral("echo again")),
                                      QByteArray("again\n"), 30000);
        }
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("disconnect"), uuid }).exitCode, 0);
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
        // The session token went out as a bearer token.
        QVERIFY(apiToken || QJsonDocument(requests).toJson().contains("Bearer "));
        // The API token, or the password and a session token; and the instance access token.
        QVERIFY2(secrets.size() >= (apiToken ? 2 : 3), qPrintable(secrets.join(QLatin1Char(' '))));

        const QByteArray log = fixture.log();
        QVERIFY(log.contains("[tunnel.debug]"));
        QVERIFY(log.contains("ADB MESSAGE"));
        for (const QString& secret : secrets)
            QVERIFY2(!log.contains(secret.toUtf8()),
                     qPrintable(QStringLiteral("secret in the log: ") + secret));
    }
};

QTEST_GUILESS_MAIN(TestE2eSecrets)
#include "tst_e2e_secrets.moc"
