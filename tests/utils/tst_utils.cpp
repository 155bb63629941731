#include "testkit.h"

#include "utils/envvars.h"
#include "utils/filepermissions.h"
#include "utils/loghandler.h"

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
        qputenv("KB_TEST_VAR", "");
        QCOMPARE(EnvVars::getString("KB_TEST_VAR", QStringLiteral("dflt")), QString());
        qunsetenv("KB_TEST_VAR");
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
