// The emulated device on its raw TCP port, driven by the real adb.

#include "simprocess.h"

#include "adbprotocol/AdbPacket.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

class TestSimDevice : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void shell_data();
    void shell();
    void pushPull_data();
    void pushPull();
    void sandboxEscape_data();
    void sandboxEscape();
    void unknownServiceIsRefused();
    void malformedMessages_data();
    void malformedMessages();
    void relayToTcpDevice();

private:
    AdbResult adb(const QStringList& arguments) const
    {
        return m_adb->run(QStringList { QStringLiteral("-s"), m_serial } + arguments);
    }
    static QByteArray readFile(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
    }
    static void writeFile(const QString& path, const QByteArray& data)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(data), data.size());
    }

    QTemporaryDir m_work;
    QString m_deviceRoot;
    QString m_serial;
    quint16 m_devicePort = 0;
    SimProcess m_sim;
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

    m_adb = std::make_unique<AdbServer>();
    m_serial = QStringLiteral("127.0.0.1:%1").arg(m_devicePort);
    const AdbResult connected = m_adb->run({ QStringLiteral("connect"), m_serial });
    QVERIFY2(connected.out.contains("connected to"), connected.out + connected.err);
    const AdbResult waited
        = m_adb->run({ QStringLiteral("-s"), m_serial, QStringLiteral("wait-for-device") }, 60000);
    QCOMPARE(waited.exitCode, 0);
}

void TestSimDevice::cleanupTestCase()
{
    if (m_adb)
        m_adb->stop();
    m_sim.stop();
}

void TestSimDevice::shell_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("expected");
    const auto row
        = [](const char* name, const char* service, const char* command, const QByteArray& expected) {
              QTest::newRow(name) << QString::fromLatin1(service) << QString::fromLatin1(command) << expected;
          };
    row("stderr reaches the host", "shell", "echo oops >&2", "oops\n");
    row("exec-out keeps bare line ends", "exec-out", "printf 'a\\nb'", "a\nb");
    row("runs in the sandbox", "shell", "ls -d sdcard data/local/tmp", "data/local/tmp\nsdcard\n");
    row("getprop in a pipeline", "shell", "getprop ro.build.version.sdk | tr 3 X", "XX\n");
    row("getprop unknown", "shell", "getprop no.such.prop", "\n");
    row("reboot does not reach the host", "shell", "reboot 2>&1",
        "reboot: not supported on the emulated device\n");
    // Larger than several WRTEs, so flow control is exercised on the way out.
    row("3 MiB of output", "exec-out", "head -c 3145728 /dev/zero | tr '\\0' x | wc -c", "3145728\n");
}

void TestSimDevice::shell()
{
    QFETCH(QString, service);
    QFETCH(QString, command);
    QFETCH(QByteArray, expected);
    QCOMPARE(adb({ service, command }).out, expected);
}

void TestSimDevice::pushPull_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("one below a sync chunk") << qint64(64 * 1024 - 1);
    QTest::newRow("one above a sync chunk") << qint64(64 * 1024 + 1);
    QTest::newRow("above maxdata") << qint64(1024 * 1024 + 7);
}

void TestSimDevice::pushPull()
{
    QFETCH(qint64, size);
    QByteArray data(size + 3, Qt::Uninitialized);
    QRandomGenerator(quint32(size)).fillRange(reinterpret_cast<quint32*>(data.data()), data.size() / 4);
    data.truncate(size);
    const QString local = m_work.filePath(QStringLiteral("push.bin"));
    writeFile(local, data);
    const QString remote = QStringLiteral("/sdcard/dir %1/file.bin").arg(size);
    const AdbResult pushed = adb({ QStringLiteral("push"), local, remote });
    QVERIFY2(pushed.exitCode == 0, pushed.out + pushed.err);
    QVERIFY(readFile(m_deviceRoot + remote) == data);

    const QString back = m_work.filePath(QStringLiteral("pull.bin"));
    const AdbResult pulled = adb({ QStringLiteral("pull"), remote, back });
    QVERIFY2(pulled.exitCode == 0, pulled.out + pulled.err);
    QVERIFY(readFile(back) == data);
}

void TestSimDevice::sandboxEscape_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("remote");
    const auto row = [](const char* name, const char* command, const QString& remote) {
        QTest::newRow(name) << QString::fromLatin1(command) << remote;
    };
    row("push above the root", "push", QStringLiteral("/../outside/escaped.txt"));
    row("push through dot-dot", "push", QStringLiteral("sdcard/../../../outside/escaped.txt"));
    row("push through a symlink", "push", QStringLiteral("/sdcard/link/escaped.txt"));
    row("pull through a symlink", "pull", QStringLiteral("/sdcard/link/secret.txt"));
    row("pull above the root", "pull", QStringLiteral("/../outside/secret.txt"));
    row("pull a host path", "pull", m_work.filePath(QStringLiteral("outside/secret.txt")));
}

void TestSimDevice::sandboxEscape()
{
    QFETCH(QString, command);
    QFETCH(QString, remote);
    const QString outside = m_work.filePath(QStringLiteral("outside"));
    writeFile(outside + QStringLiteral("/secret.txt"), "secret");
    QFile::remove(m_deviceRoot + QStringLiteral("/sdcard/link"));
    QVERIFY(QFile::link(outside, m_deviceRoot + QStringLiteral("/sdcard/link")));
    const QString local = m_work.filePath(QStringLiteral("escape.txt"));
    const bool push = command == QLatin1String("push");
    QFile::remove(local);
    if (push)
        writeFile(local, "escaped");

    const AdbResult result = adb({ command, push ? local : remote, push ? remote : local });
    QVERIFY2(result.exitCode != 0, result.out + result.err);
    QVERIFY(!QFile::exists(outside + QStringLiteral("/escaped.txt")));
    QCOMPARE(QFile::exists(local), push);
    QCOMPARE(adb({ QStringLiteral("shell"), QStringLiteral("echo still serving") }).out,
             QByteArray("still serving\n"));
}

void TestSimDevice::unknownServiceIsRefused()
{
    // "reboot:" is a device service this device does not offer.
    const AdbResult result = adb({ QStringLiteral("reboot") });
    QVERIFY(result.exitCode != 0);
    QCOMPARE(adb({ QStringLiteral("shell"), QStringLiteral("echo ok") }).out, QByteArray("ok\n"));
}

void TestSimDevice::malformedMessages_data()
{
    const QByteArray cnxn = AdbPacket(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::").toByteArray();
    QByteArray badMagic = AdbPacket(AdbPacket::CNXN, 0x01000001, 4096, "host::").toByteArray();
    badMagic[20] = 0;
    QByteArray huge = AdbPacket(AdbPacket::WRTE, 1, 1, QByteArray()).toByteArray();
    huge[14] = 0x7f; // data_length of several megabytes

    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("dropped");
    QTest::newRow("bad magic") << badMagic << true;
    QTest::newRow("OPEN before CNXN")
        << AdbPacket(AdbPacket::OPEN, 1, 0, "shell:echo\0").toByteArray() << true;
    QTest::newRow("payload beyond any maxdata") << cnxn + huge << true;
    QTest::newRow("unknown command") << cnxn + AdbPacket(0x4B4E554A, 0, 0, QByteArray()).toByteArray()
                                     << true;
    QTest::newRow("OPEN with id 0") << cnxn + AdbPacket(AdbPacket::OPEN, 0, 0, "shell:\0").toByteArray()
                                    << true;
    QTest::newRow("garbage") << QByteArray(100, '\xff') << true;
    QTest::newRow("WRTE to an unknown stream")
        << cnxn + AdbPacket(AdbPacket::WRTE, 7, 99, "data").toByteArray() << false;
}

void TestSimDevice::malformedMessages()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, dropped);
    QTcpSocket socket;
    QSignalSpy disconnected(&socket, &QTcpSocket::disconnected);
    socket.connectToHost(QHostAddress::LocalHost, m_devicePort);
    QVERIFY(socket.waitForConnected(10000));
    socket.write(bytes);
    if (dropped) {
        QVERIFY(disconnected.wait(10000));
    } else {
        // Answered with CNXN, then a CLSE for the host's stream 7.
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += socket.readAll())
                                     .contains(AdbPacket(AdbPacket::CLSE, 0, 7, QByteArray()).toByteArray()),
                                 10000);
        QCOMPARE(socket.state(), QAbstractSocket::ConnectedState);
    }
    QCOMPARE(adb({ QStringLiteral("shell"), QStringLiteral("echo ok") }).out, QByteArray("ok\n"));
}

void TestSimDevice::relayToTcpDevice()
{
    // A second simulator whose instance relays to the first one's device, as it would to an
    // emulator's adbd.
    SimProcess relay;
    QString error;
    QVERIFY2(relay.start({ QStringLiteral("--device"), QStringLiteral("tcp:127.0.0.1:%1").arg(m_devicePort) },
                         &error),
             qPrintable(error));
    const QString serial
        = QStringLiteral("127.0.0.1:%1").arg(relay.instance().value(QStringLiteral("device_port")).toInt());
    QVERIFY(m_adb->run({ QStringLiteral("connect"), serial }).out.contains("connected to"));
    QCOMPARE(m_adb->run({ QStringLiteral("-s"), serial, QStringLiteral("wait-for-device") }, 60000).exitCode,
             0);
    const AdbResult result = m_adb->run(
        { QStringLiteral("-s"), serial, QStringLiteral("shell"), QStringLiteral("getprop ro.serialno") });
    QCOMPARE(result.out, m_sim.instance().value(QStringLiteral("uuid")).toString().toUtf8() + '\n');
    m_adb->run({ QStringLiteral("disconnect"), serial });
    relay.stop();
}

QTEST_GUILESS_MAIN(TestSimDevice)
#include "tst_simdevice.moc"
