// Retain mode under real work: a slow local reader slows the cloud instead of filling the daemon,
// and streams the ADB server gives up on, or whole ADB servers that go, leave no memory behind.
#include "e2efixture.h"

#include <QEventLoop>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
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

QString connectAndWait(const E2eFixture& fixture, const QString& uuid)
{
    if (fixture.kbadbtunneld({ QStringLiteral("connect"), uuid }).exitCode != 0)
        return {};
    return fixture.waitForState(uuid, QStringLiteral("CONNECTED"), 60000)
        .value(QStringLiteral("adb_serial"))
        .toString();
}

bool deviceIsBack(const E2eFixture& fixture, const QString& serial)
{
    return fixture.adb({ QStringLiteral("-s"), serial, QStringLiteral("get-state") }, 30000).out.trimmed()
        == "device";
}

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
    QString hostPath(const QString& devicePath) const
    {
        return m_fixture.path(QStringLiteral("sandbox/") + m_uuid + devicePath);
    }
    QByteArray adbCommand() const
    {
        return QStringLiteral("'%1' -s '%2'").arg(E2eFixture::adbPath(), m_serial).toUtf8();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_fixture.startSimulator());
        m_fixture.useApiToken();
        m_uuid = m_fixture.instanceUuid();
        m_serial = connectAndWait(m_fixture, m_uuid);
        QVERIFY2(!m_serial.isEmpty(), m_fixture.log().right(3000).constData());
        m_pid = m_fixture.daemonPid();
        QVERIFY(m_pid > 0);
        if (SANITIZED)
            qInfo() << "sanitizer build: smaller transfers, memory figures reported but not checked";
    }

    // The consumer is ~10x slower than the link: what the daemon holds stays near its watermark.
    void slowConsumerGetsEverything()
    {
        const qint64 size = SANITIZED ? 64 * MiB : 512 * MiB;
        const QString remote = deviceFile(QStringLiteral("slow.bin"), size);
        const QByteArray expected = E2eFixture::sha256(hostPath(remote));
        QProcess pipeline;
        // The environment carries the script, so that the shell line needs no quoting of it.
        QProcessEnvironment environment = m_fixture.environment();
        environment.insert(QStringLiteral("KB_CONSUMER"), SLOW_CONSUMER);
        pipeline.setProcessEnvironment(environment);
        pipeline.start(QStringLiteral("/bin/sh"),
                       { QStringLiteral("-c"),
                         QString::fromUtf8(adbCommand() + " exec-out cat ." + remote.toUtf8()
                                           + " | python3 -c \"$KB_CONSUMER\"") });
        QVERIFY(pipeline.waitForStarted());
        QVERIFY(pipeline.waitForFinished(int(size / (24 * 1000 * 1000) + 120) * 1000));
        const QList<QByteArray> result = pipeline.readAllStandardOutput().trimmed().split(' ');
        QCOMPARE(result.size(), 2);
        QCOMPARE(result.at(0).toLongLong(), size);
        QCOMPARE(result.at(1), expected);

        const qint64 peak = E2eFixture::memoryOf(m_pid, "VmHWM");
        qInfo("daemon peak RSS after %lld MiB to a 24 MB/s reader: %.1f MiB", size / MiB, double(peak) / MiB);
        if (!SANITIZED)
            QVERIFY2(peak <= 96 * MiB, qPrintable(QString::number(double(peak) / MiB)));
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
        QCOMPARE(m_fixture.adb({ QStringLiteral("-s"), m_serial, QStringLiteral("pull"), remote, pulled })
                     .exitCode,
                 0);
        const qint64 start = E2eFixture::memoryOf(m_pid, "VmRSS");

        for (int i = 0; i < pulls; ++i) {
            QFile::remove(pulled);
            QProcess adb;
            adb.setProcessEnvironment(m_fixture.environment());
            adb.start(E2eFixture::adbPath(),
                      { QStringLiteral("-s"), m_serial, QStringLiteral("pull"), remote, pulled });
            QVERIFY(adb.waitForStarted());
            // Killed once the transfer is under way, with the device's writes held for it.
            QVERIFY2(QTest::qWaitFor([&] { return QFileInfo(pulled).size() >= 2 * MiB; }, 60000),
                     qPrintable(QStringLiteral("pull %1 did not start").arg(i)));
            adb.kill();
            QVERIFY(adb.waitForFinished());
        }
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(m_fixture.adb({ QStringLiteral("kill-server") }).exitCode, 0);
            // The tunnel's own "adb connect" may start the new server first; either way one runs.
            m_fixture.adb({ QStringLiteral("start-server") });
            QTRY_VERIFY_WITH_TIMEOUT(deviceIsBack(m_fixture, m_serial), 60000);
        }

        const qint64 end = E2eFixture::memoryOf(m_pid, "VmRSS");
        qInfo("daemon RSS: %.1f MiB before %d interrupted pulls and 3 adb server restarts, %.1f MiB after",
              double(start) / MiB, pulls, double(end) / MiB);
        if (!SANITIZED)
            QVERIFY2(end - start <= 24 * MiB, qPrintable(QString::number(double(end - start) / MiB)));

        const QString local = m_fixture.makeFile(QStringLiteral("final.bin"), size);
        const QString target = QStringLiteral("/data/local/tmp/final.bin");
        QCOMPARE(
            m_fixture.adb({ QStringLiteral("-s"), m_serial, QStringLiteral("push"), local, target }).exitCode,
            0);
        QCOMPARE(E2eFixture::sha256(hostPath(target)), E2eFixture::sha256(local));
        QFile::remove(pulled);
        QCOMPARE(m_fixture.adb({ QStringLiteral("-s"), m_serial, QStringLiteral("pull"), remote, pulled })
                     .exitCode,
                 0);
        QCOMPARE(E2eFixture::sha256(pulled), E2eFixture::sha256(hostPath(remote)));
        QCOMPARE(m_fixture.instance(m_uuid).value(QStringLiteral("state")).toString(),
                 QStringLiteral("CONNECTED"));
    }

    // At version 1 the device's CLSE comes last when the client closes first; those sessions
    // must go too. Each connection: connect, 1 KiB echoed by a server the device reaches, close.
    void shortForwardConnectionsAtVersion1()
    {
        const int connections = SANITIZED ? 500 : 5000;
        E2eFixture fixture;
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_VERSION"), QStringLiteral("1"));
        QVERIFY(fixture.startSimulator({ QStringLiteral("--device-profile"), QStringLiteral("modern") }));
        fixture.useApiToken();
        const QString serial = connectAndWait(fixture, fixture.instanceUuid());
        QVERIFY2(!serial.isEmpty(), fixture.log().right(3000).constData());
        const qint64 pid = fixture.daemonPid();

        QTcpServer echo;
        QVERIFY(echo.listen(QHostAddress::LocalHost, 0));
        connect(&echo, &QTcpServer::newConnection, &echo, [&echo] {
            while (QTcpSocket* peer = echo.nextPendingConnection()) {
                connect(peer, &QTcpSocket::readyRead, peer, [peer] { peer->write(peer->readAll()); });
                connect(peer, &QTcpSocket::disconnected, peer, &QObject::deleteLater);
            }
        });
        const quint16 local = E2eFixture::freePort();
        QCOMPARE(
            fixture
                .adb({ QStringLiteral("-s"), serial, QStringLiteral("forward"),
                       QStringLiteral("tcp:%1").arg(local), QStringLiteral("tcp:%1").arg(echo.serverPort()) })
                .exitCode,
            0);

        const QByteArray payload(1024, 'e');
        // Driven by the socket's own signals: QTest::qWaitFor sleeps in steps that would cost
        // more than the exchange itself.
        auto exchange = [&] {
            QTcpSocket client;
            QByteArray back;
            QEventLoop loop;
            QTimer::singleShot(10000, &loop, &QEventLoop::quit);
            connect(&client, &QTcpSocket::connected, &loop, [&] { client.write(payload); });
            connect(&client, &QTcpSocket::readyRead, &loop, [&] {
                back += client.readAll();
                if (back.size() >= payload.size())
                    loop.quit();
            });
            connect(&client, &QTcpSocket::errorOccurred, &loop, &QEventLoop::quit);
            client.connectToHost(QHostAddress::LocalHost, local);
            loop.exec();
            client.disconnectFromHost();
            return back == payload;
        };
        // A first round settles what the first connections allocate for good.
        for (int i = 0; i < 200; ++i)
            QVERIFY2(exchange(), qPrintable(QString::number(i)));
        const qint64 start = E2eFixture::memoryOf(pid, "VmRSS");
        for (int i = 0; i < connections; ++i)
            QVERIFY2(exchange(), qPrintable(QString::number(i)));
        const qint64 end = E2eFixture::memoryOf(pid, "VmRSS");
        qInfo("daemon RSS: %.1f MiB before %d short forward connections at version 1, %.1f MiB after",
              double(start) / MiB, connections, double(end) / MiB);
        if (!SANITIZED)
            QVERIFY2(end - start <= 4 * MiB, qPrintable(QString::number(double(end - start) / MiB)));
    }
};

QTEST_GUILESS_MAIN(TestE2eFlowControl)
#include "tst_e2e_flowcontrol.moc"
