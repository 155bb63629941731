#include "scriptedadb.h"
#include "testkit.h"

#include "androidtools/adbclient.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <memory>

namespace {

const QString SERIAL = QStringLiteral("127.0.0.1:5555");
const QString GET_STATE = QStringLiteral("-s 127.0.0.1:5555 get-state");

} // namespace

class tst_AdbClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        AndroidToolsProvider::setInstance(&m_provider);
        // Read once per process: every wait in this test checks the device twice, 2 s apart.
        qputenv(AdbClient::MAX_ADB_CONNECT_ATTEMPTS_ENV, "2");
    }

    void init()
    {
        m_adb = std::make_unique<ScriptedAdb>();
        m_provider.adbPath = m_adb->path();
    }

    void getState_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<AdbClient::DeviceState>("expected");
        QTest::addColumn<QString>("warning");

        QTest::newRow("device") << QStringLiteral("script") << AdbClient::CONNECTED << QString();
        QTest::newRow("crash after printing device")
            << QStringLiteral("crash") << AdbClient::DISCONNECTED
            << QStringLiteral("^\\[adb\\]\\[get-state\\] error for 127.0.0.1:5555");
        // adb's limits are fixed: this row costs the full 30 s.
        QTest::newRow("hangs") << QStringLiteral("hang") << AdbClient::DISCONNECTED
                               << QStringLiteral("^\\[adb\\]\\[get-state\\] timeout");
        for (const char* kind : { "missing", "not executable", "empty path" })
            QTest::newRow(kind) << QString::fromLatin1(kind) << AdbClient::DISCONNECTED
                                << QStringLiteral("^\\[adb\\]\\[get-state\\] can't run");
    }

    void getState()
    {
        QFETCH(QString, kind);
        QFETCH(AdbClient::DeviceState, expected);
        QFETCH(QString, warning);

        m_adb->setResult(QStringLiteral("get-state"), QByteArrayLiteral("device\r\n"));
        if (kind == QLatin1String("crash"))
            m_adb->setCrash(QStringLiteral("get-state"));
        if (kind == QLatin1String("hang"))
            m_adb->setHang(QStringLiteral("get-state"));
        useAdb(kind);
        AdbClient client(SERIAL);
        if (!warning.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        QCOMPARE(client.getState(), expected);
        const bool ran = kind == QLatin1String("script") || kind == QLatin1String("crash")
            || kind == QLatin1String("hang");
        QCOMPARE(m_adb->calls(), ran ? QStringList { GET_STATE } : QStringList());
        if (kind == QLatin1String("hang")) {
            // Killed at the limit, not left behind.
            const qint64 pid = m_adb->hungPid(QStringLiteral("get-state"));
            QVERIFY(pid > 0);
            QTRY_VERIFY(!TestKit::processAlive(pid));
        }
    }

    void connectToAdb_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QByteArray>("stateOut");
        QTest::addColumn<bool>("success");
        QTest::addColumn<int>("connectRuns");
        QTest::addColumn<QString>("log");

        QTest::newRow("already connected")
            << QStringLiteral("script") << QByteArrayLiteral("device\n") << true << 0
            << QStringLiteral("^\\[adb\\]\\[connect\\] 127.0.0.1:5555 : already connected$");
        QTest::newRow("connect fails")
            << QStringLiteral("script") << QByteArray() << false << 1
            << QStringLiteral("^\\[adb\\]\\[connect\\] 127.0.0.1:5555 : unable to connect:.*"
                              "failed to authenticate");
        QTest::newRow("connect crashes")
            << QStringLiteral("crash") << QByteArray() << false << 1 << QStringLiteral("unable to connect");
        QTest::newRow("missing adb") << QStringLiteral("missing") << QByteArray() << false << 0
                                     << QStringLiteral("^\\[adb\\]\\[connect\\] can't run");
    }

    void connectToAdb()
    {
        QFETCH(QString, kind);
        QFETCH(QByteArray, stateOut);
        QFETCH(bool, success);
        QFETCH(int, connectRuns);
        QFETCH(QString, log);

        if (stateOut.isEmpty())
            deviceAbsent();
        else
            m_adb->setResult(QStringLiteral("get-state"), stateOut);
        m_adb->setResult(QStringLiteral("connect"),
                         QByteArrayLiteral("failed to authenticate to 127.0.0.1:5555"), QByteArray(), 1);
        if (kind == QLatin1String("crash"))
            m_adb->setCrash(QStringLiteral("connect"));
        useAdb(kind);
        AdbClient client(SERIAL);
        QSignalSpy successSpy(&client, &AdbClient::connectSuccess);
        QSignalSpy errorSpy(&client, &AdbClient::connectError);

        QTest::ignoreMessage(success ? QtDebugMsg : QtCriticalMsg, QRegularExpression(log));
        client.connectToAdb();
        QCOMPARE(successSpy.count(), success ? 1 : 0);
        QCOMPARE(errorSpy.count(), success ? 0 : 1);
        QCOMPARE(m_adb->calls().count(QStringLiteral("connect 127.0.0.1:5555")), connectRuns);
    }

    void waitForConnectedEndsWhenDeviceAppears()
    {
        deviceAbsent();
        AdbClient client(SERIAL);
        // Runs inside the wait's own event loop, between the first and the second check.
        QTimer::singleShot(
            0, this, [this] { m_adb->setResult(QStringLiteral("get-state"), QByteArrayLiteral("device")); });
        QVERIFY(client.waitForConnected());
        QCOMPARE(m_adb->calls().count(GET_STATE), 2);
    }

    void releasedWhileWaitingStaysSilent()
    {
        // As the tunnel does it: the client in an ADB thread, replaced (deleteLater from another thread)
        // while it waits for the device.
        deviceAbsent();
        QThread adbThread;
        auto* client = new AdbClient(SERIAL);
        int emitted = 0;
        bool destroyed = false;
        connect(client, &AdbClient::connectSuccess, this, [&emitted] { ++emitted; });
        connect(client, &AdbClient::connectError, this, [&emitted] { ++emitted; });
        connect(client, &QObject::destroyed, this, [&destroyed] { destroyed = true; });
        client->moveToThread(&adbThread);
        adbThread.start();
        QVERIFY(QMetaObject::invokeMethod(client, &AdbClient::connectToAdb, Qt::QueuedConnection));

        QTRY_VERIFY(m_adb->calls().count(GET_STATE) >= 2);
        client->deleteLater();
        QTRY_VERIFY_WITH_TIMEOUT(destroyed, 15000);
        adbThread.quit();
        QVERIFY(adbThread.wait());
        QCoreApplication::processEvents();
        QCOMPARE(emitted, 0);
        QCOMPARE(m_adb->calls().count(GET_STATE), 3);
    }

    void disconnectWhenNotConnectedRunsNothing()
    {
        deviceAbsent();
        AdbClient(SERIAL).disconnectFromAdb();
        QCOMPARE(m_adb->calls(), QStringList { GET_STATE });
    }

    void installFailureWithExitCodeZero()
    {
        // Some adb versions exit with 0 after a failed install: the output decides.
        m_adb->setResult(
            QStringLiteral("install"),
            QByteArrayLiteral("Failure [INSTALL_FAILED_UPDATE_INCOMPATIBLE: signatures do not match]\n"));
        AdbClient client(SERIAL);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("unable to install file: /tmp/a.apk")));
        QVERIFY(!client.install(QStringLiteral("/tmp/a.apk"), false));
        QCOMPARE(client.error(), AdbClient::INSTALL_FAILED_UPDATE_INCOMPATIBLE);
        QCOMPARE(m_adb->calls(), QStringList { QStringLiteral("-s 127.0.0.1:5555 install /tmp/a.apk") });
    }

    void pullAsync_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QByteArray>("out");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<int>("lastProgress"); // -1: none
        QTest::addColumn<int>("errorCode"); // 0: success expected

        const QString script = QStringLiteral("script");
        QTest::newRow("progress then success")
            << script
            << QByteArrayLiteral("[  0%] /sdcard/a.bin\r[ 42%] /sdcard/a.bin\r[100%] /sdcard/a.bin\n"
                                 "/sdcard/a.bin: 1 file pulled, 0 skipped. 3.1 MB/s (4096 bytes in 0.001s)\n")
            << 0 << 100 << 0;
        QTest::newRow("failure after progress")
            << script
            << QByteArrayLiteral(
                   "[ 10%] /sdcard/a.bin\radb: error: failed to copy: No such file or directory\n")
            << 1 << 10 << 1;
        QTest::newRow("crash") << QStringLiteral("crash") << QByteArray() << 0 << -1 << -1;
        QTest::newRow("missing adb") << QStringLiteral("missing") << QByteArray() << 0 << -1 << -1;
    }

    void pullAsync()
    {
        QFETCH(QString, kind);
        QFETCH(QByteArray, out);
        QFETCH(int, exitCode);
        QFETCH(int, lastProgress);
        QFETCH(int, errorCode);

        m_adb->setResult(QStringLiteral("pull"), out, QByteArray(), exitCode);
        if (kind == QLatin1String("crash"))
            m_adb->setCrash(QStringLiteral("pull"));
        useAdb(kind);
        AdbClient client(SERIAL);
        QSignalSpy startedSpy(&client, &AdbClient::pullStarted);
        QSignalSpy progressSpy(&client, &AdbClient::pullProgress);
        QSignalSpy succeededSpy(&client, &AdbClient::pullSucceeded);
        QSignalSpy errorSpy(&client, &AdbClient::pullError);

        QVERIFY(client.pullAsync(QStringLiteral("/sdcard/a.bin"), QStringLiteral("/tmp/dst")));
        QTRY_COMPARE(succeededSpy.count() + errorSpy.count(), 1);
        QVERIFY(!client.isPulling());
        QCOMPARE(startedSpy.count(), kind == QLatin1String("missing") ? 0 : 1);
        // Chunks of output may hold several percentages: only increasing values are reported.
        int last = -1;
        for (const QList<QVariant>& args : std::as_const(progressSpy)) {
            QVERIFY(args.at(0).toInt() > last);
            last = args.at(0).toInt();
        }
        QCOMPARE(last, lastProgress);
        if (errorCode == 0) {
            QCOMPARE(succeededSpy.count(), 1);
        } else {
            QCOMPARE(errorSpy.at(0).at(0).toInt(), errorCode);
            QVERIFY(!client.rawError().isEmpty());
        }
        if (kind != QLatin1String("missing"))
            QCOMPARE(m_adb->calls(),
                     QStringList { QStringLiteral("-s 127.0.0.1:5555 pull -p /sdcard/a.bin /tmp/dst") });
    }

    void cancelAndDestroyDuringPull()
    {
        m_adb->setHang(QStringLiteral("pull"));
        auto client = std::make_unique<AdbClient>(SERIAL);
        QSignalSpy canceledSpy(client.get(), &AdbClient::pullCanceled);
        QSignalSpy errorSpy(client.get(), &AdbClient::pullError);

        QVERIFY(client->pullAsync(QStringLiteral("/sdcard/a.bin"), QStringLiteral("/tmp/dst")));
        QTRY_VERIFY(m_adb->hungPid(QStringLiteral("pull")) > 0);
        QTest::ignoreMessage(QtWarningMsg, "[adb][pull] 127.0.0.1:5555 : a pull is already running");
        QVERIFY(!client->pullAsync(QStringLiteral("/sdcard/b.bin"), QStringLiteral("/tmp/dst")));
        client->cancelPullAsync();
        QTRY_COMPARE(canceledSpy.count(), 1);
        QCOMPARE(errorSpy.count(), 0);
        QVERIFY(!client->isPulling());
        QTRY_VERIFY(!TestKit::processAlive(m_adb->hungPid(QStringLiteral("pull"))));

        // Destroying the client mid-pull must not leave adb behind.
        QFile::remove(m_adb->dir() + QLatin1String("/pull.pid"));
        QVERIFY(client->pullAsync(QStringLiteral("/sdcard/a.bin"), QStringLiteral("/tmp/dst")));
        QTRY_VERIFY(m_adb->hungPid(QStringLiteral("pull")) > 0);
        client.reset();
        QTRY_VERIFY(!TestKit::processAlive(m_adb->hungPid(QStringLiteral("pull"))));
    }

    void isAvailable_data()
    {
        QTest::addColumn<QString>("serial");
        QTest::addColumn<bool>("withPath");
        QTest::addColumn<bool>("expected");

        QTest::newRow("ipv4 and port") << QStringLiteral("127.0.0.1:5555") << true << true;
        QTest::newRow("host name") << QStringLiteral("localhost:5555") << true << false;
        QTest::newRow("port too large") << QStringLiteral("127.0.0.1:65536") << true << false;
        QTest::newRow("adb not found") << QStringLiteral("127.0.0.1:5555") << false << false;
    }

    void isAvailable()
    {
        QFETCH(QString, serial);
        QFETCH(bool, withPath);
        QFETCH(bool, expected);
        if (!withPath)
            m_provider.adbPath.clear();
        QCOMPARE(AdbClient(serial).isAvailable(), expected);
    }

private:
    void useAdb(const QString& kind)
    {
        if (kind == QLatin1String("missing")) {
            m_provider.adbPath = m_adb->dir() + QLatin1String("/no-such-adb");
        } else if (kind == QLatin1String("not executable")) {
            QFile::setPermissions(m_adb->path(), QFile::ReadOwner | QFile::WriteOwner);
        } else if (kind == QLatin1String("empty path")) {
            m_provider.adbPath.clear();
        }
    }

    void deviceAbsent()
    {
        m_adb->setResult(QStringLiteral("get-state"), QByteArray(), "error: device not found", 1);
    }

    TestToolsProvider m_provider;
    std::unique_ptr<ScriptedAdb> m_adb;
};

QTEST_GUILESS_MAIN(tst_AdbClient)
#include "tst_adbclient.moc"
