// Files through the tunnel arrive byte for byte, at both tunnel protocol versions and over a
// link with a round trip.
#include "e2efixture.h"

#include <QDir>
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
        const QList<qint64> all { 0, 1024, 10 << 20, 100 << 20 };
        QTest::newRow("v2, no delay") << 2 << 0 << all;
        QTest::newRow("v1, no delay") << 1 << 0 << all;
        QTest::newRow("v2, 50 ms") << 2 << 50 << all;
        QTest::newRow("v1, 50 ms") << 1 << 50 << all;
    }

    void pushAndPull()
    {
        QFETCH(int, version);
        QFETCH(int, rttMs);
        QFETCH(QList<qint64>, sizes);

        E2eFixture fixture;
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_VERSION"), QString::number(version));
        QVERIFY(fixture.startSimulator({ QStringLiteral("--rtt-ms"), QString::number(rttMs) }));
        fixture.useApiToken();
        const QString uuid = fixture.instanceUuid();
        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("connect"), uuid }).exitCode, 0);
        const QJsonObject entry = fixture.waitForState(uuid, QStringLiteral("CONNECTED"));
        const QString serial = entry.value(QStringLiteral("adb_serial")).toString();
        QVERIFY2(!serial.isEmpty(), fixture.log().right(3000).constData());

        for (const qint64 size : sizes) {
            const QString name = QStringLiteral("file-%1.bin").arg(size);
            const QString local = fixture.makeFile(name, size);
            const QString remote = QStringLiteral("/data/local/tmp/") + name;
            const E2eFixture::Result push = fixture.adb(
                { QStringLiteral("-s"), serial, QStringLiteral("push"), local, remote }, 300000);
            QVERIFY2(push.exitCode == 0, (push.err + "\n" + fixture.log().right(4000)).constData());

            const QString pulled = fixture.path(QStringLiteral("pulled-") + name);
            const E2eFixture::Result pull = fixture.adb(
                { QStringLiteral("-s"), serial, QStringLiteral("pull"), remote, pulled }, 300000);
            QVERIFY2(pull.exitCode == 0, (pull.err + "\n" + fixture.log().right(4000)).constData());
            QCOMPARE(QFileInfo(pulled).size(), size);
            QCOMPARE(E2eFixture::sha256(pulled), E2eFixture::sha256(local));
            QFile::remove(pulled);
            QFile::remove(local);
        }

        const E2eFixture::Result listing = fixture.adb(
            { QStringLiteral("-s"), serial, QStringLiteral("ls"), QStringLiteral("/data/local/tmp") });
        QCOMPARE(listing.exitCode, 0);
        QVERIFY2(listing.out.count("file-") == sizes.size(), (listing.out + listing.err).constData());
    }
};

QTEST_GUILESS_MAIN(TestE2eTransfer)
#include "tst_e2e_transfer.moc"
