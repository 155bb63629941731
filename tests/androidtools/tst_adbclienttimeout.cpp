#include "scriptedadb.h"

#include "androidtools/adbclient.h"

#include <QTest>

#include <cerrno>
#include <signal.h>

// The one slow case: adb's limits are fixed, so a hanging adb costs the full 30 s.
class tst_AdbClientTimeout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hangingGetStateIsKilledAtTheLimit()
    {
        TestToolsProvider provider;
        AndroidToolsProvider::setInstance(&provider);
        ScriptedAdb adb;
        adb.setHang(QStringLiteral("get-state"));
        provider.adbPath = adb.path();

        AdbClient client(QStringLiteral("127.0.0.1:5555"));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^\\[adb\\]\\[get-state\\] timeout")));
        QCOMPARE(client.getState(), AdbClient::DISCONNECTED);

        const qint64 pid = adb.hungPid(QStringLiteral("get-state"));
        QVERIFY(pid > 0);
        QTRY_VERIFY(::kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH);
        AndroidToolsProvider::setInstance(nullptr);
    }
};

QTEST_GUILESS_MAIN(tst_AdbClientTimeout)
#include "tst_adbclienttimeout.moc"
