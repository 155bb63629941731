#include "testkit.h"

#include "utils/envvars.h"
#include "utils/filepermissions.h"
#include "utils/loghandler.h"
#include "utils/versionnumber.h"

#include <QtTest>

#include <sys/stat.h>

class TestUtils : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void envVarsTellEmptyFromUnset()
    {
        qunsetenv("KB_TEST_VAR");
        QCOMPARE(EnvVars::getString("KB_TEST_VAR", QStringLiteral("dflt")), QStringLiteral("dflt"));
        QCOMPARE(EnvVars::getInt("KB_TEST_VAR", 7), 7);

        qputenv("KB_TEST_VAR", "");
        QCOMPARE(EnvVars::getString("KB_TEST_VAR", QStringLiteral("dflt")), QString());
        QCOMPARE(EnvVars::getInt("KB_TEST_VAR", 7), 7); // empty numbers fall back to the default
        QCOMPARE(EnvVars::getStringList("KB_TEST_VAR", { QStringLiteral("x") }),
                 QStringList { QStringLiteral("x") });

        qputenv("KB_TEST_VAR", "-42");
        QCOMPARE(EnvVars::getInt("KB_TEST_VAR", 7), -42);
        qputenv("KB_TEST_VAR", "2.5");
        QCOMPARE(EnvVars::getDouble("KB_TEST_VAR", 1.0), 2.5);

        qputenv("KB_TEST_VAR", "a::b");
        QCOMPARE(EnvVars::getStringList("KB_TEST_VAR", {}, QChar()),
                 (QStringList { QStringLiteral("a"), QString(), QStringLiteral("b") }));
        QVERIFY(EnvVars::isStringListed("KB_TEST_VAR", QStringLiteral("b")));
        QVERIFY(!EnvVars::isStringListed("KB_TEST_VAR", QStringLiteral("B")));
        qputenv("KB_TEST_VAR", "host1,host2");
        QCOMPARE(EnvVars::getStringList("KB_TEST_VAR", {}, QLatin1Char(',')).size(), 2);
        qunsetenv("KB_TEST_VAR");
    }

    void versionRoundTrip_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("printed");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("number");
        QTest::newRow("release") << "1.16.0"
                                 << "1.16.0" << int(VersionNumber::Release) << 0;
        QTest::newRow("beta") << "2.3.4-beta5"
                              << "2.3.4-beta5" << int(VersionNumber::Beta) << 5;
        QTest::newRow("fourth component") << "1.2.3.7"
                                          << "1.2.3.7" << int(VersionNumber::Release) << 7;
        QTest::newRow("short") << "1.2"
                               << "1.2.0" << int(VersionNumber::Release) << 0;
        QTest::newRow("alpha without number") << "3.0.0-alpha"
                                              << "3.0.0-alpha0" << int(VersionNumber::Alpha) << 0;
        QTest::newRow("rc") << "4.1.0-rc2"
                            << "4.1.0-rc2" << int(VersionNumber::ReleaseCandidate) << 2;
        QTest::newRow("garbage parts") << "x.9.y"
                                       << "0.9.0" << int(VersionNumber::Release) << 0;
        QTest::newRow("overflow") << "99999999999.1.1"
                                  << "0.1.1" << int(VersionNumber::Release) << 0;
        QTest::newRow("empty") << ""
                               << "0.0.0" << int(VersionNumber::Release) << 0;
    }

    void versionRoundTrip()
    {
        QFETCH(QString, text);
        QFETCH(QString, printed);
        QFETCH(int, status);
        QFETCH(int, number);
        const VersionNumber version = VersionNumber::fromString(text);
        QCOMPARE(version.toString(), printed);
        QCOMPARE(version.patchStatus(), status);
        QCOMPARE(int(version.patchStatusNumber()), number);
    }

    void versionOrdering()
    {
        QVERIFY(VersionNumber::fromString(QStringLiteral("1.2.0-beta1"))
                < VersionNumber::fromString(QStringLiteral("1.2.0-rc1")));
        QVERIFY(VersionNumber::fromString(QStringLiteral("1.2.0-rc1"))
                < VersionNumber::fromString(QStringLiteral("1.2.0")));
        QVERIFY(VersionNumber::fromString(QStringLiteral("1.10.0"))
                != VersionNumber::fromString(QStringLiteral("1.9.0")));
        QVERIFY(VersionNumber::fromString(QStringLiteral("1.9.0"))
                < VersionNumber::fromString(QStringLiteral("1.10.0")));
    }

    void groupOrWorldAccess_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("readable");
        QTest::addColumn<bool>("writable");
        QTest::newRow("0600") << 0600 << false << false;
        QTest::newRow("0640") << 0640 << true << false;
        QTest::newRow("0604") << 0604 << true << false;
        QTest::newRow("0620") << 0620 << false << true;
        QTest::newRow("0602") << 0602 << false << true;
        QTest::newRow("missing") << -1 << false << false;
    }

    void groupOrWorldAccess()
    {
        QFETCH(int, mode);
        QFETCH(bool, readable);
        QFETCH(bool, writable);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("file"));
        if (mode >= 0) {
            QVERIFY(FilePermissions::createPrivateFile(path));
            QCOMPARE(::chmod(QFile::encodeName(path).constData(), mode_t(mode)), 0);
        }
        QCOMPARE(FilePermissions::isGroupOrWorldReadable(path), readable);
        QCOMPARE(FilePermissions::isGroupOrWorldWritable(path), writable);
    }

    void privateCreationIgnoresUmask()
    {
        QTemporaryDir dir;
        const mode_t savedUmask = ::umask(0);
        const auto restoreUmask = qScopeGuard([savedUmask] { ::umask(savedUmask); });

        // Every directory the call creates is private; one that existed keeps its mode.
        QVERIFY(QDir().mkdir(dir.filePath(QStringLiteral("shared"))));
        QCOMPARE(TestKit::fileMode(dir.filePath(QStringLiteral("shared"))), 0777);
        QVERIFY(FilePermissions::makePrivatePath(dir.filePath(QStringLiteral("shared/a/b"))));
        QCOMPARE(TestKit::fileMode(dir.filePath(QStringLiteral("shared"))), 0777);
        QCOMPARE(TestKit::fileMode(dir.filePath(QStringLiteral("shared/a"))), 0700);
        QCOMPARE(TestKit::fileMode(dir.filePath(QStringLiteral("shared/a/b"))), 0700);
        QVERIFY(FilePermissions::makePrivatePath(dir.filePath(QStringLiteral("shared/a/b"))));

        const QString file = dir.filePath(QStringLiteral("shared/a/b/f"));
        QVERIFY(FilePermissions::createPrivateFile(file));
        QCOMPARE(TestKit::fileMode(file), 0600);
        QVERIFY(FilePermissions::createPrivateFile(file));
        QCOMPARE(::chmod(QFile::encodeName(file).constData(), 0644), 0);
        QVERIFY(FilePermissions::createPrivateFile(file));
        QCOMPARE(TestKit::fileMode(file), 0644);

        // A file in the way, or a parent that cannot be created, is a failure, not a crash.
        QVERIFY(!FilePermissions::makePrivatePath(file));
        QVERIFY(!FilePermissions::makePrivatePath(file + QStringLiteral("/below")));
        QVERIFY(!FilePermissions::createPrivateFile(dir.filePath(QStringLiteral("missing/f"))));
    }

    void prefixIsScopedPerThread()
    {
        QCOMPARE(LogHandler::getPrefix(), QString());
        {
            LogHandler::LogPrefixer outer(QStringLiteral("[UUID:a]"));
            {
                LogHandler::LogPrefixer inner(QStringLiteral("[UUID:b]"));
                QCOMPARE(LogHandler::getPrefix(), QStringLiteral("[UUID:b]"));
                QString otherThread = QStringLiteral("unset");
                QThread* thread = QThread::create([&otherThread] { otherThread = LogHandler::getPrefix(); });
                thread->start();
                thread->wait();
                delete thread;
                QCOMPARE(otherThread, QString());
            }
            QCOMPARE(LogHandler::getPrefix(), QStringLiteral("[UUID:a]"));
        }
        QCOMPARE(LogHandler::getPrefix(), QString());
    }

    void fatalWarnings_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("fatal");
        QTest::newRow("failed connection") << "QObject::connect: signal not found in Foo" << true;
        QTest::newRow("unknown objects")
            << "QObject::connect(QObject, Unknown): invalid nullptr parameter" << false;
        QTest::newRow("map view") << "QObject::connect(QQuickWindow, MapView_QMLTYPE_3): x" << false;
        QTest::newRow("ordinary") << "Proxy url from config is invalid" << false;
    }

    void fatalWarnings()
    {
        QFETCH(QString, message);
        QFETCH(bool, fatal);
        QCOMPARE(LogHandler::isConnectFailure(QtWarningMsg, message), fatal);
        QVERIFY(!LogHandler::isConnectFailure(QtDebugMsg, message));
    }
};

QTEST_GUILESS_MAIN(TestUtils)
#include "tst_utils.moc"
