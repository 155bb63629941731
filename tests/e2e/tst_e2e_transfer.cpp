// Files through the tunnel arrive byte for byte, at both tunnel protocol versions and over a
// link with a round trip; what a current device offers besides files (shell protocol, forward
// and reverse streams) works through both versions too.
#include "e2efixture.h"

#include <QtTest>

class TestE2eTransfer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pushAndPull_data()
    {
        QTest::addColumn<int>("version");
        QTest::addColumn<int>("rttMs");
        QTest::addColumn<QList<qint64>>("sizes");
        QTest::addColumn<QString>("profile");
        const QList<qint64> all { 0, 1024, 10 << 20, 100 << 20 };
        const QString modern = QStringLiteral("modern");
        QTest::newRow("v2, no delay") << 2 << 0 << all << modern;
        QTest::newRow("v1, no delay") << 1 << 0 << all << modern;
        QTest::newRow("v2, 50 ms") << 2 << 50 << all << modern;
        // An old device: sync v1 and one WRTE at a time on its side too.
        QTest::newRow("v2, legacy device")
            << 2 << 0 << QList<qint64> { 1024, 10 << 20 } << QStringLiteral("legacy");
    }

    void pushAndPull()
    {
        QFETCH(int, version);
        QFETCH(int, rttMs);
        QFETCH(QList<qint64>, sizes);
        QFETCH(QString, profile);

        E2eFixture fixture;
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_VERSION"), QString::number(version));
        const QString serial = fixture.startAndConnect({ QStringLiteral("--rtt-ms"), QString::number(rttMs),
                                                         QStringLiteral("--device-profile"), profile });
        QVERIFY(!serial.isEmpty());

        for (const qint64 size : sizes) {
            const QString failed = fixture.roundTrip(serial, QStringLiteral("file-%1.bin").arg(size), size);
            QVERIFY2(failed.isEmpty(), qPrintable(failed));
        }

        const E2eFixture::Result listing
            = fixture.adbOn(serial, { QStringLiteral("ls"), QStringLiteral("/data/local/tmp") });
        QCOMPARE(listing.exitCode, 0);
        QVERIFY2(listing.out.count("file-") == sizes.size(), (listing.out + listing.err).constData());
    }

    void modernDevice_data()
    {
        QTest::addColumn<int>("version");
        QTest::newRow("v1") << 1;
        QTest::newRow("v2") << 2;
    }

    void modernDevice()
    {
        QFETCH(int, version);
        E2eFixture fixture;
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_VERSION"), QString::number(version));
        const QString serial = fixture.startAndConnect();
        QVERIFY(!serial.isEmpty());
        const auto adb = [&](const QStringList& arguments) { return fixture.adbOn(serial, arguments); };

        const QByteArray features = adb({ QStringLiteral("features") }).out;
        for (const char* feature : { "shell_v2", "cmd", "stat_v2", "ls_v2", "abb_exec" })
            QVERIFY2(features.contains(feature), features.constData());
        const E2eFixture::Result shell
            = adb({ QStringLiteral("shell"), QStringLiteral("echo out; echo err >&2; exit 3") });
        QCOMPARE(shell.out, QByteArray("out\n"));
        QCOMPARE(shell.err, QByteArray("err\n"));
        QCOMPARE(shell.exitCode, 3);

        // A streamed install: abb_exec with the APK on the stream.
        const QString apk = fixture.path(QStringLiteral("demo.apk"));
        QVERIFY(TestKit::writeFile(apk, "package=com.example.tunnel\n" + QByteArray(200000, 'k')));
        const E2eFixture::Result install = adb({ QStringLiteral("install"), apk });
        QVERIFY2(install.out.contains("Performing Streamed Install\nSuccess"),
                 (install.out + install.err).constData());
        QVERIFY(adb({ QStringLiteral("uninstall"), QStringLiteral("com.example.tunnel") })
                    .out.contains("Success"));

        // Both stream directions: the host opens for `adb forward`, the device for `adb reverse`.
        EchoServer echo;
        const QString target = echo.adbTarget();
        const quint16 forwarded = TestKit::freeLoopbackPort();
        QCOMPARE(adb({ QStringLiteral("forward"), QStringLiteral("tcp:%1").arg(forwarded), target }).exitCode,
                 0);
        QVERIFY(TestKit::echoesThrough(forwarded, 2 * 1024 * 1024, 1));
        const E2eFixture::Result reverse
            = adb({ QStringLiteral("reverse"), QStringLiteral("tcp:0"), target });
        QVERIFY2(reverse.exitCode == 0, (reverse.out + reverse.err).constData());
        QVERIFY(TestKit::echoesThrough(quint16(reverse.out.trimmed().toUInt()), 2 * 1024 * 1024, 2));
    }
};

QTEST_GUILESS_MAIN(TestE2eTransfer)
#include "tst_e2e_transfer.moc"
