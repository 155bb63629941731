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
        QTest::addColumn<QString>("warning");

        QTest::newRow("crash after printing device")
            << QStringLiteral("crash")
            << QStringLiteral("^\\[adb\\]\\[get-state\\] error for 127.0.0.1:5555");
        // adb's limits are fixed: this row costs the full 30 s.
        QTest::newRow("hangs") << QStringLiteral("hang")
                               << QStringLiteral("^\\[adb\\]\\[get-state\\] timeout");
        for (const char* kind : { "missing", "empty path" })
            QTest::newRow(kind) << QString::fromLatin1(kind)
                                << QStringLiteral("^\\[adb\\]\\[get-state\\] can't run");
    }

    void getState()
    {
        QFETCH(QString, kind);
        QFETCH(QString, warning);

        m_adb->setResult(QStringLiteral("get-state"), QByteArrayLiteral("device\r\n"));
        if (kind == QLatin1String("crash"))
            m_adb->setCrash(QStringLiteral("get-state"));
        if (kind == QLatin1String("hang"))
            m_adb->setHang(QStringLiteral("get-state"));
        useAdb(kind);
        AdbClient client(SERIAL);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        QCOMPARE(client.getState(), AdbClient::DISCONNECTED);
        const bool ran = kind == QLatin1String("crash") || kind == QLatin1String("hang");
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

    // Last: the environment then points every adb this process runs at a server of the test's own.
    void realAdbAgainstClosedPort()
    {
        AdbServer server;
        server.applyToThisProcess();
        QVERIFY(server.start());
        m_provider.adbPath = TestKit::adbPath();
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

private:
    void useAdb(const QString& kind)
    {
        if (kind == QLatin1String("missing")) {
            m_provider.adbPath = m_adb->dir() + QLatin1String("/no-such-adb");
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
