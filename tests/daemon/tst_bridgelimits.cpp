// What a hostile instance may make the bridge hold: device writes held back for the ADB
// server's acknowledgements are bounded per stream, in bytes and in messages.
#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/AdbTunnelLogger.h"
#include "daemon/adbtunnelversion.h"
#include "daemon/web_socket_tcp_bridge.h"
#include "mockwebsocket.h"

#include <QtTest>

namespace {

QStringList g_warnings;
QtMessageHandler g_previousHandler = nullptr;

void captureWarnings(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg && message.startsWith(QLatin1String("ADB TUNNEL device overran")))
        g_warnings.append(message);
    else
        g_previousHandler(type, context, message);
}

QByteArray writes(int count, int payloadSize, quint32 streamId)
{
    const QByteArray one
        = AdbPacket(AdbPacket::WRTE, 9, streamId, QByteArray(payloadSize, 'x')).toByteArray();
    return one.repeated(count);
}

} // namespace

class TestBridgeLimits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(AdbTunnelVersion::isMegaFastEnabled(), "the queues exist at tunnel version 2 only");
        AdbTunnelLogger::installAdbTunnelLogCategory();
        g_previousHandler = qInstallMessageHandler(captureWarnings);
    }
    void cleanupTestCase() { qInstallMessageHandler(g_previousHandler); }

    void queueBoundPerStream_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("payloadSize");
        constexpr int header = AdbPacket::HEADER_SIZE;
        // Filled exactly to the bound: one full-size message per MiB, or the most messages.
        QTest::newRow("bytes") << int(WebSocketTcpBridge::MAX_QUEUED_BYTES_PER_STREAM / (1024 * 1024))
                               << 1024 * 1024 - header;
        QTest::newRow("messages") << int(WebSocketTcpBridge::MAX_QUEUED_MESSAGES_PER_STREAM) << 0;
    }

    void queueBoundPerStream()
    {
        QFETCH(int, count);
        QFETCH(int, payloadSize);
        g_warnings.clear();
        MockWebSocket device;
        WebSocketTcpBridge bridge(&device, QStringLiteral("limits"));
        bridge.start(0);
        QCOMPARE(bridge.getState(), WebSocketTcpBridge::RUNNING);
        // Two streams opened by the ADB server, which never acknowledges anything.
        bridge.onTcpDataReceived(AdbPacket(AdbPacket::OPEN, 1, 0, QByteArray("shell:\0", 7)).toByteArray()
                                 + AdbPacket(AdbPacket::OPEN, 2, 0, QByteArray("sync:\0", 6)).toByteArray());

        // The first write is released at once; the rest wait, up to the bound.
        device.deliver(writes(1, payloadSize, 1));
        for (int i = 0; i < count; ++i)
            device.deliver(writes(1, payloadSize, 1));
        QCOMPARE(device.m_aborts, 0);
        // The other stream has its own allowance.
        device.deliver(writes(2, payloadSize, 2));
        QCOMPARE(device.m_aborts, 0);

        device.deliver(writes(1, 1, 1));
        QCOMPARE(device.m_aborts, 1);
        QCOMPARE(g_warnings.size(), 1);
        QVERIFY2(g_warnings.first().contains(QLatin1String("pair(1,")), qPrintable(g_warnings.first()));
        // The ADB server's side is untouched: its messages still reach the device.
        const qsizetype sent = device.m_sent.size();
        bridge.onTcpDataReceived(AdbPacket(AdbPacket::WRTE, 2, 9, QByteArray("ls\n")).toByteArray());
        QCOMPARE(device.m_sent.size(), sent + 1);
        QCOMPARE(bridge.getState(), WebSocketTcpBridge::RUNNING);
    }
};

QTEST_GUILESS_MAIN(TestBridgeLimits)
#include "tst_bridgelimits.moc"
