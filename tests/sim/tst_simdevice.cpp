// The emulated device on its raw TCP port, driven by the real adb: the modern profile, and the
// legacy one for the cases whose dialect differs.

#include "testkit.h"

#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/PacketReader.h"

#include <QDir>
#include <QFile>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtEndian>
#include <QTest>

class TestSimDevice : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void shell_data();
    void shell();
    void interactiveShell();
    void delayedAck_data();
    void delayedAck();
    void syncPaths_data();
    void syncPaths();
    void malformedMessages_data();
    void malformedMessages();

private:
    AdbResult adb(const QStringList& arguments, bool legacy = false) const
    {
        return m_adb->run(QStringList { QStringLiteral("-s"), legacy ? m_legacySerial : m_serial }
                          + arguments);
    }
    QString connectDevice(const SimProcess& sim) const
    {
        const QString serial
            = QStringLiteral("127.0.0.1:%1").arg(sim.instance().value(QStringLiteral("device_port")).toInt());
        const AdbResult connected = m_adb->run({ QStringLiteral("connect"), serial });
        if (!connected.out.contains("connected to"))
            return QString();
        const AdbResult waited
            = m_adb->run({ QStringLiteral("-s"), serial, QStringLiteral("wait-for-device") }, 60000);
        return waited.exitCode == 0 ? serial : QString();
    }

    QTemporaryDir m_work;
    QString m_deviceRoot;
    QString m_serial;
    quint16 m_devicePort = 0;
    SimProcess m_sim;
    SimProcess m_legacySim;
    QString m_legacySerial;
    // Declared last, so destroyed first: the adb server ends before the simulators, and they
    // before their sandbox goes.
    std::unique_ptr<AdbServer> m_adb;
};

void TestSimDevice::initTestCase()
{
    QVERIFY(m_work.isValid());
    QVERIFY(QDir(m_work.path()).mkpath(QStringLiteral("sandbox")));
    QVERIFY(QDir(m_work.path()).mkpath(QStringLiteral("outside")));
    QString error;
    QVERIFY2(m_sim.start({ QStringLiteral("--sandbox"), m_work.filePath(QStringLiteral("sandbox")) }, &error),
             qPrintable(error));
    m_devicePort = quint16(m_sim.instance().value(QStringLiteral("device_port")).toInt());
    QVERIFY(m_devicePort != 0);
    m_deviceRoot = m_work.filePath(QStringLiteral("sandbox/"))
        + m_sim.instance().value(QStringLiteral("uuid")).toString();
    QVERIFY(QFileInfo(m_deviceRoot + QStringLiteral("/sdcard")).isDir());

    QVERIFY2(m_legacySim.start({ QStringLiteral("--device-profile"), QStringLiteral("legacy") }, &error),
             qPrintable(error));

    m_adb = std::make_unique<AdbServer>();
    m_serial = connectDevice(m_sim);
    QVERIFY(!m_serial.isEmpty());
    m_legacySerial = connectDevice(m_legacySim);
    QVERIFY(!m_legacySerial.isEmpty());
}

void TestSimDevice::shell_data()
{
    QTest::addColumn<bool>("legacy");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QByteArray>("err");
    QTest::addColumn<int>("exitCode");
    const auto row = [](const char* name, bool legacy, const char* command, const QByteArray& out,
                        const QByteArray& err = QByteArray(), int exitCode = 0) {
        QTest::newRow(name) << legacy << QString::fromLatin1(command) << out << err << exitCode;
    };
    row("legacy: one stream, no exit status", true, "echo out; echo err >&2; exit 3", "out\nerr\n");
    row("killed by a signal", false, "kill -TERM $$", "", "", 128 + 15);
    row("reboot does not reach the host", false, "reboot", "",
        "reboot: not supported on the emulated device\n", 1);
}

void TestSimDevice::shell()
{
    QFETCH(bool, legacy);
    QFETCH(QString, command);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, err);
    QFETCH(int, exitCode);
    const AdbResult result = adb({ QStringLiteral("shell"), command }, legacy);
    QCOMPARE(result.out, out);
    QCOMPARE(result.err, err);
    QCOMPARE(result.exitCode, exitCode);
}

void TestSimDevice::interactiveShell()
{
    // adb asks for a terminal only when its own input is one: script(1) gives it one, of the size
    // stty sets, and passes our keys and the screen through.
    QProcess process;
    process.setProcessEnvironment(m_adb->environment());
    process.start(
        QStringLiteral("script"),
        { QStringLiteral("-qec"),
          QStringLiteral("stty rows 30 cols 100; exec '%1' -s %2 shell").arg(TestKit::adbPath(), m_serial),
          QStringLiteral("/dev/null") });
    const auto killScript = qScopeGuard([&process] {
        process.kill();
        process.waitForFinished(5000);
    });
    QByteArray screen;
    const auto read = [&] { return screen += process.readAllStandardOutput(); };

    QTRY_VERIFY_WITH_TIMEOUT(read().endsWith("$ "), 20000);
    // The terminal echoes, and its size is the host terminal's.
    process.write("echo $((6*7)); stty size; sleep 60\r");
    QTRY_VERIFY2_WITH_TIMEOUT(read().contains("echo $((6*7)); stty size; sleep 60\r\n42\r\n30 100\r\n"),
                              screen.constData(), 20000);
    screen.clear();
    process.write("\x03");
    QTRY_VERIFY2_WITH_TIMEOUT(read().endsWith("^C\r\nkbsim_x86_64:/ $ "), screen.constData(), 20000);
    process.write("exit 5\r");
    QVERIFY(process.waitForFinished(20000));
    QCOMPARE(process.exitCode(), 5);
}

void TestSimDevice::delayedAck_data()
{
    // Debian's adb never advertises delayed_ack: a few raw messages play a current host.
    QTest::addColumn<QByteArray>("hostFeatures");
    QTest::addColumn<quint32>("window");
    QTest::newRow("delayed_ack, AOSP's initial window")
        << QByteArray("shell_v2,delayed_ack") << quint32(32 << 20);
    QTest::newRow("delayed_ack, a window of a few writes") << QByteArray("delayed_ack") << quint32(200000);
    QTest::newRow("classic host") << QByteArray("shell_v2") << quint32(0);
}

void TestSimDevice::delayedAck()
{
    QFETCH(QByteArray, hostFeatures);
    QFETCH(quint32, window);
    const bool delayed = window != 0;
    constexpr qsizetype OUTPUT = 3000000;
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, m_devicePort);
    QVERIFY(socket.waitForConnected(10000));
    PacketReader reader;
    const auto nextPacket = [&](AdbPacket* packet) {
        QTRY_VERIFY_WITH_TIMEOUT((reader.append(socket.readAll()), reader.packetAvailable()), 20000);
        *packet = reader.read();
    };
    const auto okayPayload = [](qint32 bytes) {
        QByteArray payload(4, Qt::Uninitialized);
        qToLittleEndian(bytes, payload.data());
        return payload;
    };
    socket.write(
        AdbPacket(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::features=" + hostFeatures).toByteArray());
    AdbPacket packet(AdbPacket::CLSE, 0, 0, QByteArray());
    nextPacket(&packet);
    QCOMPARE(packet.command(), quint32(AdbPacket::CNXN));

    // An OPEN whose window disagrees with the negotiation is refused.
    socket.write(AdbPacket(AdbPacket::OPEN, 9, delayed ? 0 : 4096, "exec:echo\0").toByteArray());
    nextPacket(&packet);
    QCOMPARE(packet.command(), quint32(AdbPacket::CLSE));
    QCOMPARE(packet.arg1(), quint32(9));

    socket.write(
        AdbPacket(AdbPacket::OPEN, 1, window, "exec:head -c " + QByteArray::number(OUTPUT) + " /dev/zero\0")
            .toByteArray());
    nextPacket(&packet);
    QCOMPARE(packet.command(), quint32(AdbPacket::OKAY));
    const QByteArray ready(packet.getPayload(), qsizetype(packet.dataLength()));
    QCOMPARE(ready, delayed ? okayPayload(32 << 20) : QByteArray());
    const quint32 deviceId = packet.arg0();

    // The host acknowledges only once the device has used its whole window (classic: each
    // write): a device that overran the window, or stopped short of it, fails here.
    qsizetype received = 0;
    qint64 unacknowledged = 0;
    while (received < OUTPUT) {
        nextPacket(&packet);
        QCOMPARE(packet.command(), quint32(AdbPacket::WRTE));
        received += packet.dataLength();
        unacknowledged += packet.dataLength();
        QVERIFY(unacknowledged < qint64(window) + 256 * 1024 || !delayed);
        if (!delayed || unacknowledged >= window || received == OUTPUT) {
            socket.write(AdbPacket(AdbPacket::OKAY, 1, deviceId,
                                   delayed ? okayPayload(qint32(unacknowledged)) : QByteArray())
                             .toByteArray());
            unacknowledged = 0;
        }
    }
    nextPacket(&packet);
    QCOMPARE(packet.command(), quint32(AdbPacket::CLSE));
}

void TestSimDevice::syncPaths_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("remote");
    QTest::addColumn<bool>("allowed");
    const auto row = [](const char* name, const char* command, const QString& remote, bool allowed = false) {
        QTest::newRow(name) << QString::fromLatin1(command) << remote << allowed;
    };
    // fixed_push_mkdir: the host leaves the missing directories to the device.
    row("push into new directories", "push", QStringLiteral("/sdcard/new dir/sub/pushed.txt"), true);
    row("push above the root", "push", QStringLiteral("/../outside/escaped.txt"));
    row("push through dot-dot", "push", QStringLiteral("sdcard/../../../outside/escaped.txt"));
    row("push through a symlink", "push", QStringLiteral("/sdcard/link/escaped.txt"));
    row("pull through a symlink", "pull", QStringLiteral("/sdcard/link/secret.txt"));
    row("pull above the root", "pull", QStringLiteral("/../outside/secret.txt"));
    row("pull a host path", "pull", m_work.filePath(QStringLiteral("outside/secret.txt")));
}

void TestSimDevice::syncPaths()
{
    QFETCH(QString, command);
    QFETCH(QString, remote);
    QFETCH(bool, allowed);
    const QString outside = m_work.filePath(QStringLiteral("outside"));
    QVERIFY(TestKit::writeFile(outside + QStringLiteral("/secret.txt"), "secret"));
    QFile::remove(m_deviceRoot + QStringLiteral("/sdcard/link"));
    QVERIFY(QFile::link(outside, m_deviceRoot + QStringLiteral("/sdcard/link")));
    const QString local = m_work.filePath(QStringLiteral("local.txt"));
    const bool push = command == QLatin1String("push");
    QFile::remove(local);
    if (push)
        QVERIFY(TestKit::writeFile(local, "pushed"));

    const AdbResult result = adb({ command, push ? local : remote, push ? remote : local });
    if (allowed) {
        QVERIFY2(result.exitCode == 0, result.out + result.err);
        QCOMPARE(TestKit::readFile(m_deviceRoot + remote), QByteArray("pushed"));
        return;
    }
    QVERIFY2(result.exitCode != 0, result.out + result.err);
    QVERIFY(!QFile::exists(outside + QStringLiteral("/escaped.txt")));
    QCOMPARE(QFile::exists(local), push);
    QCOMPARE(adb({ QStringLiteral("shell"), QStringLiteral("echo still serving") }).out,
             QByteArray("still serving\n"));
}

void TestSimDevice::malformedMessages_data()
{
    const QByteArray cnxn = AdbPacket(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::").toByteArray();
    QByteArray badMagic = AdbPacket(AdbPacket::CNXN, 0x01000001, 4096, "host::").toByteArray();
    badMagic[20] = 0;
    QByteArray huge = AdbPacket(AdbPacket::WRTE, 1, 1, QByteArray()).toByteArray();
    huge[14] = 0x7f; // data_length of several megabytes

    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("bad magic") << badMagic;
    QTest::newRow("OPEN before CNXN") << AdbPacket(AdbPacket::OPEN, 1, 0, "shell:echo\0").toByteArray();
    QTest::newRow("payload beyond any maxdata") << cnxn + huge;
    QTest::newRow("unknown command") << cnxn + AdbPacket(0x4B4E554A, 0, 0, QByteArray()).toByteArray();
    QTest::newRow("OPEN with id 0") << cnxn + AdbPacket(AdbPacket::OPEN, 0, 0, "shell:\0").toByteArray();
}

void TestSimDevice::malformedMessages()
{
    QFETCH(QByteArray, bytes);
    QTcpSocket socket;
    QSignalSpy disconnected(&socket, &QTcpSocket::disconnected);
    socket.connectToHost(QHostAddress::LocalHost, m_devicePort);
    QVERIFY(socket.waitForConnected(10000));
    socket.write(bytes);
    QVERIFY(disconnected.wait(10000));
    QCOMPARE(adb({ QStringLiteral("shell"), QStringLiteral("echo ok") }).out, QByteArray("ok\n"));
}

QTEST_GUILESS_MAIN(TestSimDevice)
#include "tst_simdevice.moc"
