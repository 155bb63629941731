// AdbClient's device commands, run by Debian's adb against the simulator's emulated device.
#include "androidtools/adbclient.h"
#include "scriptedadb.h"
#include "testkit.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using TestKit::sha256;

class TestAdbClientDevice : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    SimProcess m_simulator;
    std::unique_ptr<AdbServer> m_adb;
    TestToolsProvider m_tools;
    QString m_serial;
    QString m_sandbox;

private Q_SLOTS:
    void initTestCase()
    {
        m_tools.adbPath = TestKit::adbPath();
        AndroidToolsProvider::setInstance(&m_tools);
        // Read once per process: every wait for a device checks it twice, 2 s apart.
        qputenv(AdbClient::MAX_ADB_CONNECT_ATTEMPTS_ENV, "2");
        // Every adb this process runs talks to a server of its own, with its keys in the test
        // directory: the user's adb server and devices are never touched.
        m_adb = std::make_unique<AdbServer>(m_dir.path());
        m_adb->applyToThisProcess();
        QVERIFY(m_adb->start());

        QString error;
        QVERIFY2(m_simulator.start({ QStringLiteral("--sandbox"), m_dir.path() + QStringLiteral("/sandbox") },
                                   &error),
                 qPrintable(error));
        const QJsonObject instance = m_simulator.instance();
        m_serial = QStringLiteral("127.0.0.1:%1").arg(instance.value(QStringLiteral("device_port")).toInt());
        m_sandbox
            = m_dir.path() + QStringLiteral("/sandbox/") + instance.value(QStringLiteral("uuid")).toString();

        AdbClient client(m_serial);
        QSignalSpy success(&client, &AdbClient::connectSuccess);
        client.connectToAdb();
        QCOMPARE(success.size(), 1);
        QVERIFY(client.isConnected());
    }

    void cleanupTestCase()
    {
        m_adb.reset();
        m_simulator.stop();
        AndroidToolsProvider::setInstance(nullptr);
    }

    void pushPullAndShell()
    {
        AdbClient client(m_serial);
        const QString local = m_dir.path() + QStringLiteral("/payload.bin");
        QVERIFY(TestKit::writeFile(local, TestKit::randomBytes(3 << 20, 7919)));
        QVERIFY(client.push(local, QStringLiteral("/data/local/tmp/payload.bin")));
        QCOMPARE(sha256(m_sandbox + QStringLiteral("/data/local/tmp/payload.bin")), sha256(local));

        const QString back = m_dir.path() + QStringLiteral("/back.bin");
        QVERIFY(client.pull(QStringLiteral("/data/local/tmp/payload.bin"), back));
        QCOMPARE(sha256(back), sha256(local));

        QSignalSpy progress(&client, &AdbClient::pullProgress);
        QSignalSpy succeeded(&client, &AdbClient::pullSucceeded);
        QVERIFY(
            client.pullAsync(QStringLiteral("/data/local/tmp/payload.bin"), back + QStringLiteral(".async")));
        QVERIFY(succeeded.wait(30000));
        QCOMPARE(sha256(back + QStringLiteral(".async")), sha256(local));

        QVERIFY(!client.pull(QStringLiteral("/data/local/tmp/missing.bin"), back));

        QString output;
        QVERIFY(client.shell({ QStringLiteral("echo"), QStringLiteral("hello"), QStringLiteral("&&"),
                               QStringLiteral("echo"), QStringLiteral("world") },
                             30000, &output));
        QCOMPARE(output.trimmed(), QStringLiteral("hello\nworld"));
        QCOMPARE(client.getProp(m_serial, QStringLiteral("ro.product.model")),
                 QStringLiteral("Kestrelbox Virtual Device"));
        QVERIFY(!client.getAndroidVersion().isEmpty());
    }

    void installAndUninstall()
    {
        AdbClient client(m_serial);
        const QString apk = m_dir.path() + QStringLiteral("/com.example.demo.apk");
        QFile file(apk);
        QVERIFY(file.open(QIODevice::WriteOnly));
        // A streamed install carries no file name: the simulator reads the package's from the APK.
        file.write("package=com.example.demo\n" + QByteArray(4096, 'k'));
        file.close();
        QVERIFY(client.install(apk, true));
        QString packages;
        QVERIFY(client.shell({ QStringLiteral("pm"), QStringLiteral("list"), QStringLiteral("packages") },
                             30000, &packages));
        QVERIFY(packages.contains(QLatin1String("package:com.example.demo")));
        QVERIFY(client.uninstall(QStringLiteral("com.example.demo"), false));
        QVERIFY(!client.uninstall(QStringLiteral("com.example.demo"), false));
        QVERIFY(client.uninstall(QStringLiteral("com.example.demo"), true));
    }

    void connectToClosedPort()
    {
        AdbClient client(QStringLiteral("127.0.0.1:%1").arg(TestKit::freeLoopbackPort()));
        QTest::ignoreMessage(QtDebugMsg,
                             QRegularExpression(QStringLiteral("device not found yet on 127.0.0.1:")));
        QCOMPARE(client.getState(), AdbClient::DISCONNECTED);

        // adb connect reports the refused connection but exits with 0, so after the wait the
        // connection is reported as made.
        QSignalSpy successSpy(&client, &AdbClient::connectSuccess);
        QSignalSpy errorSpy(&client, &AdbClient::connectError);
        QTest::ignoreMessage(QtWarningMsg, "Max attempts reached to get the device connected");
        client.connectToAdb();
        QCOMPARE(successSpy.count(), 1);
        QCOMPARE(errorSpy.count(), 0);
        QVERIFY(!client.isConnected());
    }
};

QTEST_GUILESS_MAIN(TestAdbClientDevice)
#include "tst_adbclientdevice.moc"
