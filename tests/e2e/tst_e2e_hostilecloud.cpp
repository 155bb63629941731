// Retain mode against a cloud that reads slowly, goes silent or sends what no platform should: the
// daemon's memory stays bounded, it keeps answering its clients, and the tunnel comes back once
// the cloud behaves again.
#include "e2efixture.h"

#include <QElapsedTimer>
#include <QtTest>

class TestE2eHostileCloud : public QObject
{
    Q_OBJECT

private:
    E2eFixture m_fixture;
    QString m_uuid;
    QString m_serial;
    qint64 m_pid = 0;

    int cloudFault(const QString& mode, qint64 bytesPerSecond = 1)
    {
        return m_fixture.admin(QStringLiteral("cloud-fault"),
                               { { QStringLiteral("instance_uuid"), m_uuid },
                                 { QStringLiteral("mode"), mode },
                                 { QStringLiteral("bytes_per_second"), bytesPerSecond } });
    }
    QByteArray echoOk() const { return m_fixture.shell(m_serial, QStringLiteral("echo ok")); }
    void checkPeak(const char* what, qint64 bound)
    {
        const qint64 peak = E2eFixture::memoryOf(m_pid, "VmHWM");
        qInfo("daemon peak RSS after %s: %.1f MiB", what, double(peak) / MiB);
        if (!SANITIZED)
            QVERIFY2(peak > 0 && peak <= bound, qPrintable(QString::number(double(peak) / MiB)));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_serial = m_fixture.startAndConnect();
        QVERIFY(!m_serial.isEmpty());
        m_uuid = m_fixture.instanceUuid();
        m_pid = m_fixture.daemonPid();
        QVERIFY(m_pid > 0);
        if (SANITIZED)
            qInfo() << "sanitizer build: 32 MiB push at 2 MB/s, memory figures reported but not checked";
    }

    void cleanup() { QCOMPARE(cloudFault(QStringLiteral("none")), 200); }

    // The cloud takes the push at a sixteenth of what the ADB server offers: the daemon's queue
    // towards it must push back on the ADB server instead of holding the file.
    void pushIntoThrottledCloud()
    {
        const qint64 size = SANITIZED ? 32 * MiB : 256 * MiB;
        const qint64 rate = SANITIZED ? 2000000 : 16000000;
        const QString local = m_fixture.makeFile(QStringLiteral("push.bin"), size);
        const QString remote = QStringLiteral("/data/local/tmp/push.bin");
        QCOMPARE(cloudFault(QStringLiteral("read-throttle"), rate), 200);

        QElapsedTimer timer;
        timer.start();
        const E2eFixture::Result push = m_fixture.adbOn(m_serial, { QStringLiteral("push"), local, remote },
                                                        int(size / rate + 120) * 1000);
        QVERIFY2(push.exitCode == 0, (push.out + push.err + m_fixture.log().right(3000)).constData());
        qInfo("%lld MiB pushed into a cloud reading %lld bytes/s in %.1f s", size / MiB, rate,
              timer.elapsed() / 1000.0);
        QCOMPARE(TestKit::sha256(m_fixture.onDevice(m_uuid, remote)), TestKit::sha256(local));
        QFile::remove(local);
        checkPeak("the throttled push", 96 * MiB);
    }

    void misbehavingCloud_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<QByteArray>("warning");
        QTest::newRow("oversized-frame")
            << QStringLiteral("oversized-frame") << QByteArray("exceeds the limit");
        // The fragments' bytes are no ADB packet: the bridge drops the WebSocket at the first one,
        // long before the message would reach the WebSocket's own limit.
        QTest::newRow("endless-fragments")
            << QStringLiteral("endless-fragments") << QByteArray("Invalid message from device");
        QTest::newRow("garbage") << QStringLiteral("garbage") << QByteArray("Reserved bits set in a frame");
        // Noticed only after 15 s of silence and 15 s more without a pong.
        QTest::newRow("stall") << QStringLiteral("stall") << QByteArray("not even an answer to a ping");
    }

    // The fault hits a connected tunnel. The daemon drops that WebSocket with the warning, answers
    // "getinstances" all along, and once the cloud is sane again reconnects on its own.
    void misbehavingCloud()
    {
        QFETCH(QString, mode);
        QFETCH(QByteArray, warning);
        QCOMPARE(echoOk(), QByteArray("ok\n"));
        const qsizetype logStart = m_fixture.log().size();
        const int successes = m_fixture.tunnelSuccesses(m_uuid);

        QElapsedTimer timer;
        timer.start();
        QCOMPARE(cloudFault(mode), 200);
        bool answered = true;
        const bool dropped = QTest::qWaitFor(
            [&] {
                answered = answered && !m_fixture.instance(m_uuid).isEmpty();
                return !answered || m_fixture.log().mid(logStart).contains(warning);
            },
            60000);
        QVERIFY2(answered, "getinstances went unanswered while the cloud misbehaved");
        QVERIFY2(dropped, m_fixture.log().mid(logStart).right(3000).constData());
        const qint64 noticed = timer.elapsed();

        QCOMPARE(cloudFault(QStringLiteral("none")), 200);
        QTRY_VERIFY_WITH_TIMEOUT(m_fixture.tunnelSuccesses(m_uuid) > successes, 60000 - int(noticed));
        QTRY_COMPARE_WITH_TIMEOUT(m_fixture.state(m_uuid), QStringLiteral("CONNECTED"), 30000);
        QTRY_COMPARE_WITH_TIMEOUT(echoOk(), QByteArray("ok\n"), 60000);
        qInfo("%s: dropped after %.1f s, reconnected and working after %.1f s", qPrintable(mode),
              noticed / 1000.0, timer.elapsed() / 1000.0);
        checkPeak(qPrintable(mode), 128 * MiB);
    }
};

QTEST_GUILESS_MAIN(TestE2eHostileCloud)
#include "tst_e2e_hostilecloud.moc"
