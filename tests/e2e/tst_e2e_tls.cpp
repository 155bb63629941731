// The platform over HTTPS and WSS with a self-signed certificate made by the test: what the
// daemon refuses, what KB_TRUSTED_HOSTS lets through, and what the log says about it.
#include "e2efixture.h"

#include <QtTest>

class TestE2eTls : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void selfSignedPlatform_data()
    {
        QTest::addColumn<QString>("trustedHosts"); // null: unset
        QTest::addColumn<QString>("restHost"); // the host the daemon uses for REST calls
        QTest::addColumn<bool>("connects");
        QTest::addColumn<QByteArray>("refusal"); // the log line that tells why, when refused

        QTest::newRow("nothing trusted")
            << QString() << "127.0.0.1" << false << QByteArray("Failed to retrieve instance access token:");
        QTest::newRow("another host trusted")
            << "localhost"
            << "127.0.0.1" << false << QByteArray("Failed to retrieve instance access token:");
        QTest::newRow("platform host trusted") << "other.test,,127.0.0.1"
                                               << "127.0.0.1" << true << QByteArray();
        // REST through a trusted name, the WebSocket URL the platform hands out is not.
        QTest::newRow("only the REST host trusted")
            << "localhost"
            << "localhost" << false << QByteArray("SSL error report:");
    }

    void selfSignedPlatform()
    {
        QFETCH(QString, trustedHosts);
        QFETCH(QString, restHost);
        QFETCH(bool, connects);
        QFETCH(QByteArray, refusal);

        E2eFixture fixture;
        const QString openssl = TestKit::makeSelfSignedCertificate(fixture.path(QString()));
        QVERIFY2(openssl.isEmpty(), qPrintable(openssl));
        QVERIFY(
            fixture.startSimulator({ QStringLiteral("--tls-cert"), fixture.path(QStringLiteral("cert.pem")),
                                     QStringLiteral("--tls-key"), fixture.path(QStringLiteral("key.pem")) }));
        QUrl base(fixture.ready().value(QStringLiteral("base_url")).toString());
        QCOMPARE(base.scheme(), QStringLiteral("https"));
        base.setHost(restHost);
        fixture.setEnv(QStringLiteral("KB_PLATFORM_BASE_URL"), base.toString());
        if (!trustedHosts.isNull())
            fixture.setEnv(QStringLiteral("KB_TRUSTED_HOSTS"), trustedHosts);
        fixture.useApiToken();

        const QString uuid = fixture.instanceUuid();
        const QString serial = fixture.connectInstance(uuid);
        const QByteArray log = fixture.log();
        QVERIFY2(fixture.state(uuid) == (connects ? QLatin1String("CONNECTED") : QLatin1String("FAILED")),
                 log.right(4000).constData());

        if (connects) {
            QVERIFY(log.contains("SSL Error: \"127.0.0.1\" is trusted, ignoring error"));
            const QString failed = fixture.roundTrip(serial, QStringLiteral("tls.bin"), 1 << 20);
            QVERIFY2(failed.isEmpty(), qPrintable(failed));
            return;
        }
        // The report names the problem and carries the certificate for the user to inspect.
        QVERIFY(log.contains("SSL Error(s):"));
        QVERIFY(log.contains("The certificate is self-signed, and untrusted"));
        QVERIFY(log.contains("-----BEGIN CERTIFICATE-----"));
        QVERIFY(log.contains("SSL Error: reject connection"));
        QVERIFY2(log.contains(refusal), log.right(4000).constData());
        QVERIFY(log.contains("adb tunnel will not restart for device"));
    }
};

QTEST_GUILESS_MAIN(TestE2eTls)
#include "tst_e2e_tls.moc"
