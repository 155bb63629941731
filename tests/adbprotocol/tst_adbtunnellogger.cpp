#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/AdbTunnelLogger.h"

#include <QTest>

namespace {

QStringList g_tunnelLines;
QtMessageHandler g_previousHandler = nullptr;

void captureTunnel(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (qstrcmp(context.category, "tunnel") == 0)
        g_tunnelLines.append(message);
    g_previousHandler(type, context, message);
}

} // namespace

class TestAdbTunnelLogger : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { g_previousHandler = qInstallMessageHandler(captureTunnel); }

    void dump_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<QString>("expected");
        QTest::newRow("empty payload")
            << AdbPacket(AdbPacket::OKAY, 7, 3, {}).toByteArray()
            << QStringLiteral("\n[ADB MESSAGE DIR]\ncommand: OKAY\narg0: 7\narg1: 3\n"
                              "len: 0\n================\n");
        const QByteArray big = QByteArray(100, 'a') + QByteArray(200, 'z');
        QTest::newRow("only the first 100 bytes")
            << AdbPacket(AdbPacket::WRTE, 1, 2, big).toByteArray()
            << QStringLiteral("\n[ADB MESSAGE DIR]\ncommand: WRTE\narg0: 1\narg1: 2\nlen: 300\ndata: %1\n"
                              "hexdata: %2\n================\n")
                   .arg(QString(100, QLatin1Char('a')),
                        QString::fromLatin1(QByteArray::fromHex(QByteArray(100, 'a'))));
        QTest::newRow("truncated header")
            << QByteArray("CLS")
            << QStringLiteral(
                   "\n[ADB MESSAGE DIR]\ncommand: CLS\narg0: 0\narg1: 0\nlen: 0\n================\n");
    }
    void dump()
    {
        QFETCH(QByteArray, message);
        QFETCH(QString, expected);
        QCOMPARE(AdbTunnelLogger::formatAdbMessage(message, QStringLiteral("DIR")), expected);
    }

    // Without the variable the trace is silent and other categories are untouched. Its presence,
    // even empty, switches the trace on when reinstalled: checked by tst_websockettcpbridge.
    void filterFollowsEnvironment()
    {
        const QByteArray okay = AdbPacket(AdbPacket::OKAY, 1, 2, {}).toByteArray();
        qunsetenv(AdbTunnelLogger::ENV_KB_ADBTUNNEL_DEBUG);
        AdbTunnelLogger::installAdbTunnelLogCategory();
        g_tunnelLines.clear();
        AdbTunnelLogger::printAdbMessage(okay, QStringLiteral("X"));
        qCWarning(tunnelCategory) << "silent";
        QVERIFY(g_tunnelLines.isEmpty());
        // Installed once more, the filter must not become its own predecessor.
        AdbTunnelLogger::installAdbTunnelLogCategory();
        QLoggingCategory other("kb.other");
        QVERIFY(other.isDebugEnabled());
    }
};

QTEST_GUILESS_MAIN(TestAdbTunnelLogger)
#include "tst_adbtunnellogger.moc"
