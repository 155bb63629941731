// Retain mode under real work: a slow local reader slows the cloud instead of filling the daemon,
// and streams the ADB server gives up on, or whole ADB servers that go, leave no memory behind.
// Against a cloud that reads slowly or sends what no platform should, the daemon's
// memory stays bounded, it keeps answering its clients, and the tunnel comes back once the cloud
// behaves again.
#include "e2efixture.h"

#include <QElapsedTimer>
#include <QtTest>

namespace {

// Rates a pipe's reader at ~24 MB/s and prints the byte count and SHA-256 of what it read.
const QString SLOW_CONSUMER = QStringLiteral(R"(
import hashlib, sys, time
rate, data, h, n, t0 = 24e6, sys.stdin.buffer, hashlib.sha256(), 0, time.monotonic()
while True:
    b = data.read(256 * 1024)
    if not b:
        break
    h.update(b)
    n += len(b)
    ahead = n / rate - (time.monotonic() - t0)
    if ahead > 0:
        time.sleep(ahead)
print(n, h.hexdigest())
)");

} // namespace

class TestE2eFlowControl : public QObject
{
    Q_OBJECT

private:
    E2eFixture m_fixture;
    QString m_uuid;
    QString m_serial;
    qint64 m_pid = 0;

    // A file of `size` bytes in the device's /data/local/tmp; returns its device path.
    QString deviceFile(const QString& name, qint64 size)
    {
        m_fixture.makeFile(QStringLiteral("sandbox/%1/data/local/tmp/%2").arg(m_uuid, name), size);
        return QStringLiteral("/data/local/tmp/") + name;
    }
    QString hostPath(const QString& devicePath) const { return m_fixture.onDevice(m_uuid, devicePath); }
    int cloudFault(const QString& mode, qint64 bytesPerSecond = 1)
    {
        return m_fixture.admin(QStringLiteral("cloud-fault"),
                               { { QStringLiteral("instance_uuid"), m_uuid },
                                 { QStringLiteral("mode"), mode },
                                 { QStringLiteral("bytes_per_second"), bytesPerSecond } });
    }
    QByteArray echoOk() const { return m_fixture.shell(m_serial, QStringLiteral("echo ok")); }
    // The daemon's peak RSS over its whole life, so every case's bound holds for all before it.
    void checkPeak(const QString& what, qint64 bound)
    {
        const qint64 peak = E2eFixture::memoryOf(m_pid, "VmHWM");
        qInfo("daemon peak RSS after %s: %.1f MiB", qPrintable(what), double(peak) / MiB);
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
            qInfo() << "sanitizer build: smaller transfers, memory figures reported but not checked";
    }

    void cleanup() { QCOMPARE(cloudFault(QStringLiteral("none")), 200); }

    // The consumer is ~10x slower than the link: what the daemon holds stays near its watermark.
    void slowConsumerGetsEverything()
    {
        const qint64 size = SANITIZED ? 64 * MiB : 512 * MiB;
        const QString remote = deviceFile(QStringLiteral("slow.bin"), size);
        const QByteArray expected = TestKit::sha256(hostPath(remote));
        QProcess pipeline;
        // The environment carries the script, so that the shell line needs no quoting of it.
        QProcessEnvironment environment = m_fixture.environment();
        environment.insert(QStringLiteral("KB_CONSUMER"), SLOW_CONSUMER);
        pipeline.setProcessEnvironment(environment);
        pipeline.start(QStringLiteral("/bin/sh"),
                       { QStringLiteral("-c"),
                         QStringLiteral("'%1' -s '%2' exec-out cat .%3 | python3 -c \"$KB_CONSUMER\"")
                             .arg(TestKit::adbPath(), m_serial, remote) });
        QVERIFY(pipeline.waitForStarted());
        QVERIFY(pipeline.waitForFinished(int(size / (24 * 1000 * 1000) + 120) * 1000));
        const QList<QByteArray> result = pipeline.readAllStandardOutput().trimmed().split(' ');
        QCOMPARE(result.size(), 2);
        QCOMPARE(result.at(0).toLongLong(), size);
        QCOMPARE(result.at(1), expected);

        checkPeak(QStringLiteral("%1 MiB to a 24 MB/s reader").arg(size / MiB), 96 * MiB);
        QVERIFY(!m_fixture.log().contains("overran"));
    }

    // Streams killed mid-transfer and ADB servers that go do not leave their queues behind.
    void interruptedPullsAndServerRestarts()
    {
        const qint64 size = SANITIZED ? 16 * MiB : 64 * MiB;
        const int pulls = SANITIZED ? 20 : 100;
        const QString remote = deviceFile(QStringLiteral("interrupted.bin"), size);
        const QString pulled = m_fixture.path(QStringLiteral("pulled.bin"));
        // A complete pull first: what the first transfer allocates for good is not a leak.
        QCOMPARE(m_fixture.adbOn(m_serial, { QStringLiteral("pull"), remote, pulled }).exitCode, 0);
        const qint64 start = E2eFixture::memoryOf(m_pid, "VmRSS");

        for (int i = 0; i < pulls; ++i) {
            QFile::remove(pulled);
            const std::unique_ptr<QProcess> adb = m_fixture.startAdb(
                { QStringLiteral("-s"), m_serial, QStringLiteral("pull"), remote, pulled });
            QCOMPARE(adb->state(), QProcess::Running);
            // Killed once the transfer is under way, with the device's writes held for it.
            QVERIFY2(QTest::qWaitFor([&] { return QFileInfo(pulled).size() >= 2 * MiB; }, 60000),
                     qPrintable(QStringLiteral("pull %1 did not start").arg(i)));
            adb->kill();
            QVERIFY(adb->waitForFinished());
        }
        // The tunnel notices each server that dropped its connection and connects the new one.
        for (int i = 0; i < 3; ++i) {
            const qsizetype connects = m_fixture.log().count("Connect local ADB to");
            // The tunnel's own "adb connect" may start the new server first and win the race for
            // the port; either way one fresh server runs.
            QCOMPARE(m_fixture.adb({ QStringLiteral("kill-server") }).exitCode, 0);
            m_fixture.adb({ QStringLiteral("start-server") });
            QTRY_VERIFY_WITH_TIMEOUT(m_fixture.deviceIsBack(m_serial), 60000);
            QVERIFY(m_fixture.log().count("Connect local ADB to") > connects);
        }

        const qint64 end = E2eFixture::memoryOf(m_pid, "VmRSS");
        qInfo("daemon RSS: %.1f MiB before %d interrupted pulls and 3 adb server restarts, %.1f MiB after",
              double(start) / MiB, pulls, double(end) / MiB);
        if (!SANITIZED)
            QVERIFY2(end - start <= 24 * MiB, qPrintable(QString::number(double(end - start) / MiB)));

        QFile::remove(pulled);
        QCOMPARE(m_fixture.adbOn(m_serial, { QStringLiteral("pull"), remote, pulled }).exitCode, 0);
        QCOMPARE(TestKit::sha256(pulled), TestKit::sha256(hostPath(remote)));
        const QString failed = m_fixture.roundTrip(m_serial, QStringLiteral("final.bin"), size);
        QVERIFY2(failed.isEmpty(), qPrintable(failed));
        QCOMPARE(m_fixture.state(m_uuid), QStringLiteral("CONNECTED"));
    }

    // At version 1 the device's CLSE comes last when the client closes first; those sessions
    // must go too. Each connection: connect, 1 KiB echoed by a server the device reaches, close.
    void shortForwardConnectionsAtVersion1()
    {
        const int connections = SANITIZED ? 500 : 5000;
        E2eFixture fixture;
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_VERSION"), QStringLiteral("1"));
        const QString serial
            = fixture.startAndConnect({ QStringLiteral("--device-profile"), QStringLiteral("modern") });
        QVERIFY(!serial.isEmpty());
        const qint64 pid = fixture.daemonPid();

        EchoServer echo;
        const quint16 local = TestKit::freeLoopbackPort();
        QCOMPARE(
            fixture
                .adbOn(serial,
                       { QStringLiteral("forward"), QStringLiteral("tcp:%1").arg(local), echo.adbTarget() })
                .exitCode,
            0);
        const auto exchange
            = [local](int i) { return TestKit::echoesThrough(local, 1024, quint32(i), 10000); };
        // A first round settles what the first connections allocate for good.
        for (int i = 0; i < 200; ++i)
            QVERIFY2(exchange(i), qPrintable(QString::number(i)));
        const qint64 start = E2eFixture::memoryOf(pid, "VmRSS");
        for (int i = 0; i < connections; ++i)
            QVERIFY2(exchange(i), qPrintable(QString::number(i)));
        const qint64 end = E2eFixture::memoryOf(pid, "VmRSS");
        qInfo("daemon RSS: %.1f MiB before %d short forward connections at version 1, %.1f MiB after",
              double(start) / MiB, connections, double(end) / MiB);
        if (!SANITIZED)
            QVERIFY2(end - start <= 4 * MiB, qPrintable(QString::number(double(end - start) / MiB)));
    }

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
        checkPeak(QStringLiteral("the throttled push"), 96 * MiB);
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
        // A silent cloud is a dropped WebSocket once the pings go unanswered: tst_websocket checks
        // that, and the drop's aftermath is the rows' above.
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
        checkPeak(mode, 128 * MiB);
    }
};

QTEST_GUILESS_MAIN(TestE2eFlowControl)
#include "tst_e2e_flowcontrol.moc"
