// The emulated device on its raw TCP port, driven by the real adb.

#include "simprocess.h"

#include "adbprotocol/AdbPacket.h"

#include <QCryptographicHash>
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
    void list();
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
    QString sandboxPath(const QString& devicePath) const { return m_deviceRoot + devicePath; }
    static QByteArray sha256(const QString& path)
    {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return QByteArray();
        QCryptographicHash hash(QCryptographicHash::Sha256);
        hash.addData(&file);
        return hash.result().toHex();
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
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("echo") << QStringList { QStringLiteral("shell"), QStringLiteral("echo"),
                                           QStringLiteral("hi") }
                          << QByteArray("hi\n");
    QTest::newRow("stderr reaches the host")
        << QStringList { QStringLiteral("shell"), QStringLiteral("echo oops >&2") } << QByteArray("oops\n");
    QTest::newRow("exec-out") << QStringList { QStringLiteral("exec-out"), QStringLiteral("printf 'a\\nb'") }
                              << QByteArray("a\nb");
    QTest::newRow("runs in the sandbox")
        << QStringList { QStringLiteral("shell"), QStringLiteral("ls -d sdcard data/local/tmp") }
        << QByteArray("data/local/tmp\nsdcard\n");
    QTest::newRow("getprop model") << QStringList { QStringLiteral("shell"),
                                                    QStringLiteral("getprop ro.product.model") }
                                   << QByteArray("Kestrelbox Virtual Device\n");
    QTest::newRow("getprop sdk in a pipeline")
        << QStringList { QStringLiteral("shell"), QStringLiteral("getprop ro.build.version.sdk | tr 3 X") }
        << QByteArray("XX\n");
    QTest::newRow("getprop unknown") << QStringList { QStringLiteral("shell"),
                                                      QStringLiteral("getprop no.such.prop") }
                                     << QByteArray("\n");
    QTest::newRow("reboot does not reach the host")
        << QStringList { QStringLiteral("shell"), QStringLiteral("reboot 2>&1") }
        << QByteArray("reboot: not supported on the emulated device\n");
    // Larger than several WRTEs, so flow control is exercised on the way out.
    QTest::newRow("3 MiB of output") << QStringList {
        QStringLiteral("exec-out"), QStringLiteral("head -c 3145728 /dev/zero | tr '\\0' x | wc -c")
    } << QByteArray("3145728\n");
}

void TestSimDevice::shell()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, expected);
    const AdbResult result = adb(arguments);
    QCOMPARE(result.out, expected);
}

void TestSimDevice::pushPull_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("one byte") << qint64(1);
    QTest::newRow("one below a sync chunk") << qint64(64 * 1024 - 1);
    QTest::newRow("one above a sync chunk") << qint64(64 * 1024 + 1);
    QTest::newRow("above maxdata") << qint64(1024 * 1024 + 7);
    QTest::newRow("64 MiB") << qint64(64 * 1024 * 1024);
}

void TestSimDevice::pushPull()
{
    QFETCH(qint64, size);
    const QString local = m_work.filePath(QStringLiteral("push-%1.bin").arg(size));
    {
        QFile file(local);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QRandomGenerator generator { quint32(size) };
        QByteArray block(1024 * 1024, Qt::Uninitialized);
        for (qint64 written = 0; written < size;) {
            const qint64 n = std::min<qint64>(block.size(), size - written);
            generator.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
            QCOMPARE(file.write(block.constData(), n), n);
            written += n;
        }
    }
    const QString remote = QStringLiteral("/sdcard/dir %1/file.bin").arg(size);
    const AdbResult pushed = adb({ QStringLiteral("push"), local, remote });
    QVERIFY2(pushed.exitCode == 0, pushed.out + pushed.err);
    QCOMPARE(sha256(sandboxPath(remote)), sha256(local));

    const QString back = m_work.filePath(QStringLiteral("pull-%1.bin").arg(size));
    const AdbResult pulled = adb({ QStringLiteral("pull"), remote, back });
    QVERIFY2(pulled.exitCode == 0, pulled.out + pulled.err);
    QCOMPARE(QFileInfo(back).size(), size);
    QCOMPARE(sha256(back), sha256(local));
    QFile::remove(local);
    QFile::remove(back);
    QFile::remove(sandboxPath(remote));
}

void TestSimDevice::list()
{
    QVERIFY(QDir(m_deviceRoot).mkpath(QStringLiteral("sdcard/listing/sub")));
    QFile file(sandboxPath(QStringLiteral("/sdcard/listing/file.txt")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("12345");
    file.close();
    const AdbResult result = adb({ QStringLiteral("ls"), QStringLiteral("/sdcard/listing") });
    QCOMPARE(result.exitCode, 0);
    const QList<QByteArray> lines = result.out.trimmed().split('\n');
    QStringList names;
    for (const QByteArray& line : lines) {
        const QList<QByteArray> fields = line.split(' ');
        QCOMPARE(fields.size(), 4);
        names.append(QString::fromUtf8(fields.at(3)));
        if (fields.at(3) == "file.txt") {
            QCOMPARE(fields.at(0), QByteArray("000081a4").left(4) + fields.at(0).mid(4)); // regular file
            QCOMPARE(fields.at(1).toUInt(nullptr, 16), 5u);
        }
    }
    names.sort();
    QCOMPARE(names,
             QStringList({ QStringLiteral("."), QStringLiteral(".."), QStringLiteral("file.txt"),
                           QStringLiteral("sub") }));
}

void TestSimDevice::sandboxEscape_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("remote");
    QTest::newRow("push above the root")
        << QStringLiteral("push") << QStringLiteral("/../outside/escaped.txt");
    QTest::newRow("push through dot-dot")
        << QStringLiteral("push") << QStringLiteral("sdcard/../../../outside/escaped.txt");
    QTest::newRow("push through a symlink")
        << QStringLiteral("push") << QStringLiteral("/sdcard/link/escaped.txt");
    QTest::newRow("pull through a symlink")
        << QStringLiteral("pull") << QStringLiteral("/sdcard/link/secret.txt");
    QTest::newRow("pull above the root")
        << QStringLiteral("pull") << QStringLiteral("/../outside/secret.txt");
    QTest::newRow("pull a host path")
        << QStringLiteral("pull") << m_work.filePath(QStringLiteral("outside/secret.txt"));
}

void TestSimDevice::sandboxEscape()
{
    QFETCH(QString, command);
    QFETCH(QString, remote);
    const QString outside = m_work.filePath(QStringLiteral("outside"));
    QFile secret(outside + QStringLiteral("/secret.txt"));
    QVERIFY(secret.open(QIODevice::WriteOnly));
    secret.write("secret");
    secret.close();
    QFile::remove(m_deviceRoot + QStringLiteral("/sdcard/link"));
    QVERIFY(QFile::link(outside, m_deviceRoot + QStringLiteral("/sdcard/link")));
    const QString local = m_work.filePath(QStringLiteral("escape.txt"));
    QFile::remove(local);
    if (command == QLatin1String("push")) {
        QFile file(local);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("escaped");
    }

    const AdbResult result = adb({ command, command == QLatin1String("push") ? local : remote,
                                   command == QLatin1String("push") ? remote : local });
    QVERIFY2(result.exitCode != 0, result.out + result.err);
    QVERIFY(!QFile::exists(outside + QStringLiteral("/escaped.txt")));
    if (command == QLatin1String("pull"))
        QVERIFY(!QFile::exists(local));
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
