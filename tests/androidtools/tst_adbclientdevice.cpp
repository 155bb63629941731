// AdbClient's device commands, run by Debian's adb against the simulator's emulated device.
#include "androidtools/adbclient.h"
#include "androidtools/androidtoolsprovider.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

class FixedToolsProvider : public AndroidToolsProvider
{
public:
    QString getAdbPath() override { return QStringLiteral("/usr/lib/android-sdk/platform-tools/adb"); }
    QString getAaptPath() override { return {}; }
};

QByteArray sha256(const QString& path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256);
}

} // namespace

class TestAdbClientDevice : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QProcess m_simulator;
    FixedToolsProvider m_tools;
    QString m_serial;
    QString m_sandbox;

private Q_SLOTS:
    void initTestCase()
    {
        AndroidToolsProvider::setInstance(&m_tools);
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const quint16 adbPort = probe.serverPort();
        probe.close();
        // Every adb this process runs talks to a server of its own, with its keys in the test
        // directory: the user's adb server and devices are never touched.
        qputenv("ANDROID_ADB_SERVER_PORT", QByteArray::number(adbPort));
        qunsetenv("ADB_SERVER_SOCKET");
        qunsetenv("ANDROID_SERIAL");
        qputenv("HOME", m_dir.path().toLocal8Bit());

        m_simulator.start(QStringLiteral(KBPLATFORM_SIM_PATH),
                          { QStringLiteral("--sandbox"), m_dir.path() + QStringLiteral("/sandbox") });
        QVERIFY(m_simulator.waitForReadyRead(10000));
        const QJsonObject ready = QJsonDocument::fromJson(m_simulator.readLine()).object();
        const QJsonObject instance = ready.value(QStringLiteral("instances")).toArray().first().toObject();
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
        QProcess::execute(m_tools.getAdbPath(), { QStringLiteral("kill-server") });
        m_simulator.terminate();
        if (!m_simulator.waitForFinished(5000))
            m_simulator.kill();
        AndroidToolsProvider::setInstance(nullptr);
    }

    void pushPullAndShell()
    {
        AdbClient client(m_serial);
        const QString local = m_dir.path() + QStringLiteral("/payload.bin");
        {
            QFile file(local);
            QVERIFY(file.open(QIODevice::WriteOnly));
            QByteArray bytes(3 << 20, '\0');
            for (int i = 0; i < bytes.size(); ++i)
                bytes[i] = char((quint32(i) * 7919u) >> 3);
            file.write(bytes);
        }
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

    void disconnectDetachesTheDevice()
    {
        AdbClient client(m_serial);
        QVERIFY(client.isConnected());
        client.disconnectFromAdb();
        QVERIFY(!client.isConnected());
        QSignalSpy success(&client, &AdbClient::connectSuccess);
        client.connectToAdb();
        QCOMPARE(success.size(), 1);
        QVERIFY(client.isConnected());
    }
};

QTEST_GUILESS_MAIN(TestAdbClientDevice)
#include "tst_adbclientdevice.moc"
