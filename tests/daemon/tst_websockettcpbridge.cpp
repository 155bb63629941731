#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/AdbTunnelLogger.h"
#include "adbprotocol/PacketReader.h"
#include "daemon/adbtunnelversion.h"
#include "daemon/web_socket_tcp_bridge.h"
#include "mockwebsocket.h"

#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <memory>

namespace {

QStringList g_warnings;
QtMessageHandler g_previousHandler = nullptr;

QStringList g_trace;
QStringList g_debugs; // default category

void captureWarnings(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg)
        g_warnings.append(message);
    if (qstrcmp(context.category, "tunnel") == 0)
        g_trace.append(message);
    else if (type == QtDebugMsg)
        g_debugs.append(message);
    g_previousHandler(type, context, message);
}

bool sawWarning(const QString& start)
{
    return QTest::qWaitFor([&] {
        for (const QString& warning : qAsConst(g_warnings)) {
            if (warning.startsWith(start))
                return true;
        }
        return false;
    });
}

QByteArray msg(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload = {})
{
    return AdbPacket(command, arg0, arg1, payload).toByteArray();
}

// Header only, claiming a payload length the reader must refuse.
QByteArray hugeHeader()
{
    const amessage header { AdbPacket::WRTE, 1, 2, 0x7FFFFFFF, 0, ~quint32(AdbPacket::WRTE) };
    return QByteArray(reinterpret_cast<const char*>(&header), sizeof header);
}

// The local ADB server's side: a real TCP client that cuts what it receives into messages.
class AdbServerSide : public QObject
{
public:
    explicit AdbServerSide(quint16 port)
    {
        connect(&m_socket, &QTcpSocket::readyRead, this, &AdbServerSide::read);
        m_socket.connectToHost(QHostAddress::LocalHost, port);
    }
    // While holding, nothing is read: the bridge's socket fills up as before a slow consumer.
    void setHolding(bool hold)
    {
        m_hold = hold;
        m_socket.setReadBufferSize(hold ? 4096 : 0);
        if (!hold)
            read();
    }
    void read()
    {
        if (m_hold)
            return;
        m_reader.append(m_socket.readAll());
        while (m_reader.packetAvailable()) {
            m_received.append(m_reader.read().toByteArray());
            // At version 2 the device's writes are released one per OKAY.
            if (m_autoOkay && AdbPacket::headerWord(m_received.last(), 0) == AdbPacket::WRTE) {
                send(AdbPacket(AdbPacket::OKAY, AdbPacket::headerWord(m_received.last(), 2),
                               AdbPacket::headerWord(m_received.last(), 1), {})
                         .toByteArray());
            }
        }
    }
    void send(const QByteArray& bytes) { m_socket.write(bytes); }
    bool waitReceived(qsizetype count)
    {
        return QTest::qWaitFor([&] { return m_received.size() >= count; }) && m_received.size() == count;
    }

    QTcpSocket m_socket;
    PacketReader m_reader;
    QByteArrayList m_received;
    bool m_hold = false;
    bool m_autoOkay = false;
};

constexpr qint64 MiB = 1024 * 1024;

} // namespace

class TestWebSocketTcpBridge : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<MockWebSocket> m_device;
    std::unique_ptr<WebSocketTcpBridge> m_bridge;
    std::unique_ptr<AdbServerSide> m_server;
    bool m_v2 = true;

    // Starts a bridge and connects an ADB server side whose CNXN reached the device.
    bool startRelay()
    {
        m_device = std::make_unique<MockWebSocket>();
        m_bridge = std::make_unique<WebSocketTcpBridge>(m_device.get(), QStringLiteral("uuid-1"));
        m_bridge->start(0);
        if (m_bridge->getState() != WebSocketTcpBridge::RUNNING)
            return false;
        m_server = std::make_unique<AdbServerSide>(m_bridge->getTcpPort());
        m_server->send(msg(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::"));
        return waitSent(1);
    }
    bool waitSent(qsizetype count)
    {
        return QTest::qWaitFor([&] { return m_device->m_sent.size() >= count; })
            && m_device->m_sent.size() == count;
    }
    // Opens server stream `local` that the device answers as `remote`.
    bool openServerStream(quint32 local, quint32 remote)
    {
        const qsizetype sent = m_device->m_sent.size();
        const qsizetype received = m_server->m_received.size();
        m_server->send(msg(AdbPacket::OPEN, local, 0, "shell:\0"));
        m_device->deliver(msg(AdbPacket::OKAY, remote, local));
        return waitSent(sent + 1) && m_server->waitReceived(received + 1);
    }
    // A command the bridge does not interpret is always relayed: once it arrived, everything
    // the server sent before was processed.
    bool syncServerToDevice(AdbServerSide* server = nullptr)
    {
        static quint32 markers = 0;
        const QByteArray marker = msg(AdbPacket::AUTH, 0xFFFFFF00, ++markers, "marker");
        (server ? server : m_server.get())->send(marker);
        return QTest::qWaitFor(
            [&] { return !m_device->m_sent.isEmpty() && m_device->m_sent.last() == marker; });
    }

private Q_SLOTS:
    void initTestCase()
    {
        AdbTunnelLogger::installAdbTunnelLogCategory();
        g_previousHandler = qInstallMessageHandler(captureWarnings);
        m_v2 = AdbTunnelVersion::isMegaFastEnabled();
        qInfo() << "tunnel protocol version" << AdbTunnelVersion::getVersion();
    }
    void init()
    {
        g_warnings.clear();
        g_debugs.clear();
    }
    void cleanup()
    {
        m_server.reset();
        m_bridge.reset();
        m_device.reset();
    }

    // A slow ADB server: the device is paused past the high watermark, resumed below the low one,
    // and every write arrives once, in order.
    void deviceSideWatermarks()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(7, 300));
        QList<std::pair<bool, qint64>> pauses;
        m_device->m_onPause = [&](bool paused) { pauses.append({ paused, m_bridge->heldForAdbServer() }); };
        m_server->setHolding(true);
        QByteArrayList writes;
        for (int i = 0; i < 40; ++i) {
            writes.append(
                msg(AdbPacket::WRTE, 300, 7, QByteArray(MiB - AdbPacket::HEADER_SIZE, char('a' + i))));
            const bool pausedBefore = m_device->m_paused;
            m_device->deliver(writes.last());
            if (!pausedBefore) {
                // Measured on the spot: nothing ran in between to write to the ADB server.
                const qint64 held = m_bridge->heldForAdbServer();
                QCOMPARE(m_device->m_paused, held > WebSocketTcpBridge::HIGH_WATERMARK);
            }
        }
        QCOMPARE(pauses.size(), 1);
        QVERIFY(!m_device->m_heldFrames.isEmpty());

        m_server->m_autoOkay = true;
        m_server->setHolding(false);
        QVERIFY(m_server->waitReceived(1 + writes.size()));
        QCOMPARE(m_server->m_received.mid(1), writes);
        QVERIFY(!m_device->m_paused);
        for (qsizetype i = 0; i < pauses.size(); ++i) {
            QCOMPARE(pauses.at(i).first, i % 2 == 0);
            if (pauses.at(i).first)
                QVERIFY2(pauses.at(i).second > WebSocketTcpBridge::HIGH_WATERMARK,
                         qPrintable(QString::number(i)));
            else
                QVERIFY2(pauses.at(i).second < WebSocketTcpBridge::LOW_WATERMARK,
                         qPrintable(QString::number(i)));
        }
        QCOMPARE(m_device->m_aborts, 0);
    }

    // A slow cloud: the ADB server is no longer read past the high watermark of the WebSocket's
    // unwritten bytes, and read again below the low one.
    void serverSideWatermarks()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(7, 300));
        m_device->m_holdWrites = true;
        m_device->m_bytesToWrite = 0;
        const qsizetype before = m_device->m_sent.size();
        QByteArrayList writes;
        for (int i = 0; i < 40; ++i) {
            writes.append(
                msg(AdbPacket::WRTE, 7, 300, QByteArray(MiB - AdbPacket::HEADER_SIZE, char('a' + i))));
            m_server->send(writes.last());
        }
        QTRY_VERIFY(m_device->m_bytesToWrite > WebSocketTcpBridge::HIGH_WATERMARK);
        // Drained 1 MiB per turn of the event loop, so that the bridge may read in between.
        QVERIFY(QTest::qWaitFor(
            [&] {
                m_device->drain(MiB);
                return m_device->m_sent.size() == before + writes.size() && m_device->m_bytesToWrite == 0;
            },
            60000));
        QCOMPARE(m_device->m_sent.mid(before), writes);
        // Each message was sent unpaused: below the high watermark, or below the low one since the
        // last crossing.
        bool paused = false;
        int crossings = 0;
        for (qsizetype i = before; i < m_device->m_sent.size(); ++i) {
            const qint64 pending = m_device->m_bytesToWriteAtSend.at(i);
            if (paused)
                QVERIFY2(pending < WebSocketTcpBridge::LOW_WATERMARK, qPrintable(QString::number(i)));
            paused = pending + m_device->m_sent.at(i).size() > WebSocketTcpBridge::HIGH_WATERMARK;
            crossings += paused;
        }
        QVERIFY(crossings > 0);
        if (m_v2)
            QVERIFY(m_server->waitReceived(1 + writes.size()));
    }

    void startFailures_data()
    {
        QTest::addColumn<bool>("socketConnected");
        QTest::addColumn<bool>("portBusy");
        QTest::addColumn<QString>("warning");
        QTest::addColumn<WebSocketTcpBridge::Error>("error");
        QTest::newRow("web socket not connected")
            << false << false << QStringLiteral("webSocket not in connected state.")
            << WebSocketTcpBridge::WebSocketError;
        QTest::newRow("busy port") << true << true << QStringLiteral("Tcp server cannot listen")
                                   << WebSocketTcpBridge::TcpServerError;
    }
    void startFailures()
    {
        QFETCH(bool, socketConnected);
        QFETCH(bool, portBusy);
        QFETCH(QString, warning);
        QFETCH(WebSocketTcpBridge::Error, error);

        QTcpServer occupant;
        QVERIFY(occupant.listen(QHostAddress::Any, 0));
        MockWebSocket device;
        if (!socketConnected)
            device.m_state = QAbstractSocket::UnconnectedState;
        WebSocketTcpBridge bridge(&device, QStringLiteral("uuid-1"));
        QSignalSpy states(&bridge, &WebSocketTcpBridge::stateChanged);
        bridge.start(portBusy ? occupant.serverPort() : 0);
        QVERIFY(sawWarning(warning));
        QCOMPARE(states.size(), 2);
        QCOMPARE(states.at(0).at(0).value<WebSocketTcpBridge::State>(), WebSocketTcpBridge::WAITING);
        QCOMPARE(states.at(1).at(0).value<WebSocketTcpBridge::State>(), WebSocketTcpBridge::IDLE);
        QCOMPARE(bridge.getLastError(), error);
        QVERIFY(!bridge.getTcpPort());
    }

    // The tunnel reads the error inside stateChanged(IDLE) and must still see the old one.
    void webSocketDisconnectOrder()
    {
        QVERIFY(startRelay());
        QList<WebSocketTcpBridge::Error> errorsSeen;
        QObject scope;
        connect(m_bridge.get(), &WebSocketTcpBridge::stateChanged, &scope,
                [&](WebSocketTcpBridge::State) { errorsSeen.append(m_bridge->getLastError()); });
        m_device->dropConnection();
        QCOMPARE(errorsSeen, QList<WebSocketTcpBridge::Error> { WebSocketTcpBridge::NoError });
        QCOMPARE(m_bridge->getState(), WebSocketTcpBridge::IDLE);
        QCOMPARE(m_bridge->getLastError(), WebSocketTcpBridge::WebSocketError);
    }

    void tcpDataAfterWebSocketDestroyed()
    {
        QVERIFY(startRelay());
        m_device.reset();
        m_server->send(msg(AdbPacket::CNXN, 1, 2));
        QVERIFY(sawWarning(QStringLiteral("Null mWebSocket")));
        QCOMPARE(m_bridge->getState(), WebSocketTcpBridge::RUNNING);
    }

    void secondClientRefusedThenReplaced()
    {
        QVERIFY(startRelay());
        QSignalSpy gone(m_bridge.get(), &WebSocketTcpBridge::tcpSocketDisconnected);
        AdbServerSide intruder(m_bridge->getTcpPort());
        intruder.send(msg(AdbPacket::CNXN, 9, 9, "intruder"));
        QTRY_COMPARE(intruder.m_socket.state(), QAbstractSocket::UnconnectedState);
        QVERIFY(syncServerToDevice());
        QCOMPARE(m_device->m_sent.size(), 2);
        QCOMPARE(gone.size(), 0);

        m_server->m_socket.disconnectFromHost();
        QVERIFY(gone.wait());
        AdbServerSide next(m_bridge->getTcpPort());
        next.send(msg(AdbPacket::CNXN, 3, 3, "next"));
        QVERIFY(waitSent(3));
        m_device->deliver(msg(AdbPacket::CNXN, 4, 4, "device"));
        QVERIFY(next.waitReceived(1));
    }

    void serverWriteIsAcknowledgedLocally()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(5, 900));
        const QByteArray write = msg(AdbPacket::WRTE, 5, 900, "data");
        m_server->send(write);
        QVERIFY(waitSent(3));
        QCOMPARE(m_device->m_sent.last(), write);
        if (m_v2) {
            // Answered by the bridge, as the device would: OKAY(device id, server id).
            QVERIFY(m_server->waitReceived(2));
            QCOMPARE(m_server->m_received.last(), msg(AdbPacket::OKAY, 900, 5));
            // The device's own acknowledgement of that write is still relayed.
            m_device->deliver(msg(AdbPacket::OKAY, 900, 5));
            QVERIFY(m_server->waitReceived(3));
        } else {
            QVERIFY(syncServerToDevice());
            QCOMPARE(m_server->m_received.size(), 1);
        }
    }

    void deviceWritesReleasedOnePerOkay()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(7, 300));
        const QByteArrayList writes { msg(AdbPacket::WRTE, 300, 7, "one"),
                                      msg(AdbPacket::WRTE, 300, 7, "two"),
                                      msg(AdbPacket::WRTE, 300, 7, "three") };
        m_device->deliver(writes.join());
        if (!m_v2) {
            QVERIFY(m_server->waitReceived(4));
            QCOMPARE(m_server->m_received.mid(1), writes);
            return;
        }
        QVERIFY(m_server->waitReceived(2));
        const qsizetype sentBefore = m_device->m_sent.size();
        for (int i = 1; i < 3; ++i) {
            QVERIFY(syncServerToDevice());
            QCOMPARE(m_server->m_received.size(), 1 + i);
            m_server->send(msg(AdbPacket::OKAY, 7, 300));
            QVERIFY(m_server->waitReceived(2 + i));
        }
        QCOMPARE(m_server->m_received.mid(1), writes);
        // The third OKAY finds nothing queued: it opens the gate for the next write at once.
        m_server->send(msg(AdbPacket::OKAY, 7, 300));
        QVERIFY(syncServerToDevice());
        const QByteArray fourth = msg(AdbPacket::WRTE, 300, 7, "four");
        m_device->deliver(fourth);
        QVERIFY(m_server->waitReceived(5));
        QCOMPARE(m_server->m_received.last(), fourth);
        // None of the server's OKAYs went on to the device; only the sync markers did.
        for (qsizetype i = sentBefore; i < m_device->m_sent.size(); ++i)
            QCOMPARE(AdbPacket::headerWord(m_device->m_sent.at(i), 0), quint32(AdbPacket::AUTH));
    }

    // The forged OKAY has no receive window: at version 2 neither end may turn delayed_ack on.
    void delayedAckRemovedFromBanners_data()
    {
        QTest::addColumn<QByteArray>("serverFeatures");
        QTest::addColumn<QByteArray>("deviceFeatures");
        QTest::addColumn<QString>("reported");
        QTest::newRow("both") << QByteArray("shell_v2,delayed_ack,cmd") << QByteArray("delayed_ack,shell_v2")
                              << QStringLiteral("ADB server, device");
        QTest::newRow("device only") << QByteArray("shell_v2") << QByteArray("shell_v2,delayed_ack")
                                     << QStringLiteral("device");
        QTest::newRow("neither") << QByteArray("shell_v2") << QByteArray("cmd") << QString();
    }
    void delayedAckRemovedFromBanners()
    {
        QFETCH(QByteArray, serverFeatures);
        QFETCH(QByteArray, deviceFeatures);
        QFETCH(QString, reported);
        QVERIFY(startRelay());
        // Current peers leave data_check 0; so must the bridge.
        auto banner = [](const QByteArray& features) {
            AdbPacket packet(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::features=" + features);
            packet.getMessage()->data_check = 0;
            return packet.toByteArray();
        };
        auto expected = [this, banner](const QByteArray& features) {
            QByteArrayList kept = features.split(',');
            if (m_v2)
                kept.removeAll("delayed_ack");
            return banner(kept.join(','));
        };
        m_server->send(banner(serverFeatures));
        QVERIFY(waitSent(2));
        QCOMPARE(m_device->m_sent.last(), expected(serverFeatures));
        m_device->deliver(banner(deviceFeatures));
        QVERIFY(m_server->waitReceived(1));
        QCOMPARE(m_server->m_received.last(), expected(deviceFeatures));

        const QStringList lines = g_debugs.filter(QStringLiteral("delayed_ack"));
        if (m_v2 && !reported.isEmpty())
            QCOMPARE(
                lines,
                QStringList { QStringLiteral("Retain mode: removed feature delayed_ack from the CNXN of: ")
                              + reported });
        else
            QCOMPARE(lines, QStringList());
    }

    void closeFromServerFirst()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(11, 40));
        using Key = AdbSession::Key;
        QCOMPARE(m_bridge->sessionKeys(), QList<Key> { Key(11, 0) });

        m_device->deliver(msg(AdbPacket::WRTE, 40, 11, "tail"));
        QVERIFY(m_server->waitReceived(2));
        m_server->send(msg(AdbPacket::OKAY, 11, 40));
        m_server->send(msg(AdbPacket::CLSE, 11, 40));
        QVERIFY(syncServerToDevice());
        QCOMPARE(m_bridge->sessionKeys(), QList<Key> { Key(11, 0) });

        // The server discards writes for a stream it closed: at version 2 they are not held.
        const QByteArray close = msg(AdbPacket::CLSE, 40, 11);
        m_device->deliver(msg(AdbPacket::WRTE, 40, 11, "late") + close);
        QVERIFY(m_server->waitReceived(m_v2 ? 3 : 4));
        QCOMPARE(m_server->m_received.last(), close);
        QTRY_VERIFY(m_bridge->sessionKeys().isEmpty());
    }

    // Held-back writes go with their stream or connection; none reaches a later stream.
    void sessionsGoWithTheirConnection_data()
    {
        QTest::addColumn<QString>("end");
        QTest::newRow("server closes the stream") << QStringLiteral("CLSE");
        QTest::newRow("server starts over with CNXN") << QStringLiteral("CNXN");
        QTest::newRow("server connection ends") << QStringLiteral("disconnect");
    }
    void sessionsGoWithTheirConnection()
    {
        QFETCH(QString, end);
        QVERIFY(startRelay());
        QVERIFY(openServerStream(7, 300));
        QVERIFY(openServerStream(8, 301));
        const QByteArray write = msg(AdbPacket::WRTE, 300, 7, QByteArray(1000, 'w'));
        m_device->deliver(write.repeated(4));
        QVERIFY(m_server->waitReceived(m_v2 ? 3 : 6));
        if (m_v2)
            QCOMPARE(m_bridge->heldForAdbServer(), 3 * write.size());

        AdbServerSide* server = m_server.get();
        std::unique_ptr<AdbServerSide> next;
        if (end == QLatin1String("CLSE")) {
            m_server->send(msg(AdbPacket::CLSE, 7, 300));
        } else if (end == QLatin1String("CNXN")) {
            m_server->send(msg(AdbPacket::CNXN, 0x01000001, 256 * 1024, "host::"));
        } else {
            QSignalSpy gone(m_bridge.get(), &WebSocketTcpBridge::tcpSocketDisconnected);
            m_server->m_socket.disconnectFromHost();
            QVERIFY(gone.wait());
            next = std::make_unique<AdbServerSide>(m_bridge->getTcpPort());
            server = next.get();
        }
        QVERIFY(syncServerToDevice(server));
        QTRY_COMPARE(m_bridge->heldForAdbServer(), 0);
        using Key = AdbSession::Key;
        const QList<Key> left
            = end == QLatin1String("CLSE") ? QList<Key> { Key(7, 0), Key(8, 0) } : QList<Key> {};
        QCOMPARE(m_bridge->sessionKeys(), left);
        // An OKAY for the old stream releases nothing any more.
        const qsizetype received = server->m_received.size();
        server->send(msg(AdbPacket::OKAY, 7, 300));
        QVERIFY(syncServerToDevice(server));
        m_device->deliver(msg(AdbPacket::OKAY, 301, 8));
        QVERIFY(server->waitReceived(received + 1));
        QCOMPARE(AdbPacket::headerWord(server->m_received.last(), 0), quint32(AdbPacket::OKAY));
    }

    // At version 2 the device's CLSE waits behind its writes; the session goes at the server's CLSE.
    void closeFromDeviceQueuedBehindWrites()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(13, 42));
        const QByteArrayList fromDevice { msg(AdbPacket::WRTE, 42, 13, "a"),
                                          msg(AdbPacket::WRTE, 42, 13, "b"), msg(AdbPacket::CLSE, 42, 13) };
        m_device->deliver(fromDevice.join());
        for (qsizetype i = m_v2 ? 1 : fromDevice.size(); i <= fromDevice.size(); ++i) {
            QVERIFY(m_server->waitReceived(1 + i));
            if (i < fromDevice.size())
                m_server->send(msg(AdbPacket::OKAY, 13, 42));
        }
        QCOMPARE(m_server->m_received.mid(1), fromDevice);
        QVERIFY(syncServerToDevice());
        QCOMPARE(m_bridge->sessionKeys(), QList<AdbSession::Key> { AdbSession::Key(13, 0) });

        // The trace, switched on here, names the sessions left.
        qputenv(AdbTunnelLogger::ENV_KB_ADBTUNNEL_DEBUG, "");
        AdbTunnelLogger::installAdbTunnelLogCategory();
        g_trace.clear();
        m_server->send(msg(AdbPacket::CLSE, 13, 42));
        QTRY_VERIFY(m_bridge->sessionKeys().isEmpty());
        qunsetenv(AdbTunnelLogger::ENV_KB_ADBTUNNEL_DEBUG);
        AdbTunnelLogger::installAdbTunnelLogCategory();
        QVERIFY(
            g_trace.contains(QStringLiteral("ADB TUNNEL CLOSE message => delete session std::pair(13, 0)")));
        QVERIFY(g_trace.contains(QStringLiteral("ADB SESSIONS QList()")));
        QVERIFY(g_trace.first().contains(QLatin1String("[ADB MESSAGE ADB SERVER => TUNNEL SOFT]")));
    }

    void sessionKeysPerOpener()
    {
        QVERIFY(startRelay());
        QVERIFY(openServerStream(5, 5));
        m_device->deliver(msg(AdbPacket::OPEN, 5, 0, "tcp:8000"));
        QVERIFY(m_server->waitReceived(2));
        using Key = AdbSession::Key;
        QCOMPARE(m_bridge->sessionKeys(), (QList<Key> { Key(5, 0), Key(5, 1) }));

        // A repeated OPEN replaces the session; the other opener's stream 5 is untouched.
        m_server->send(msg(AdbPacket::OPEN, 5, 0, "shell:\0"));
        QVERIFY(sawWarning(QStringLiteral("ADB TUNNEL duplicate OPEN")));
        QCOMPARE(m_bridge->sessionKeys(), (QList<Key> { Key(5, 0), Key(5, 1) }));
    }

    void unknownStreamsAreRelayedWithWarning()
    {
        QVERIFY(startRelay());
        const QByteArray serverWrite = msg(AdbPacket::WRTE, 77, 88, "x");
        m_server->send(serverWrite);
        QVERIFY(waitSent(2));
        QCOMPARE(m_device->m_sent.last(), serverWrite);
        QVERIFY(sawWarning(QStringLiteral(
            "ADB TUNNEL Incoming message from ADB Server. No session found, serverId 77 daemonId 88")));

        const QByteArray deviceClose = msg(AdbPacket::CLSE, 88, 77);
        m_device->deliver(msg(AdbPacket::WRTE, 88, 77, "y") + deviceClose);
        QVERIFY(m_server->waitReceived(2));
        QCOMPARE(m_server->m_received.last(), deviceClose);
        QVERIFY(sawWarning(QStringLiteral(
            "ADB TUNNEL Incoming message from device. No session found, serverId 77 daemonId 88")));
    }

    // Frames and TCP reads cut messages anywhere and glue several together.
    void arbitraryCutsBothWays()
    {
        QVERIFY(startRelay());
        QRandomGenerator random(4242);
        QByteArrayList fromDevice;
        QByteArrayList fromServer;
        QByteArray deviceStream;
        QByteArray serverStream;
        for (int i = 0; i < 400; ++i) {
            QByteArray payload(random.bounded(0, 3000), char('a' + i % 26));
            fromDevice.append(msg(AdbPacket::AUTH, 1, quint32(i), payload));
            deviceStream += fromDevice.last();
            fromServer.append(msg(AdbPacket::CNXN, 2, quint32(i), payload));
            serverStream += fromServer.last();
        }
        for (qsizetype pos = 0; pos < deviceStream.size();) {
            const qsizetype cut = random.bounded(1, 9000);
            m_device->deliver(deviceStream.mid(pos, cut));
            pos += cut;
        }
        m_server->send(serverStream);
        QVERIFY(m_server->waitReceived(fromDevice.size()));
        QCOMPARE(m_server->m_received, fromDevice);
        QVERIFY(waitSent(1 + fromServer.size()));
        QCOMPARE(m_device->m_sent.mid(1), fromServer);
    }

    void oversizedMessages()
    {
        QVERIFY(startRelay());
        QSignalSpy gone(m_bridge.get(), &WebSocketTcpBridge::tcpSocketDisconnected);
        m_server->send(hugeHeader() + QByteArray(5000, 'g'));
        QVERIFY(gone.wait());
        QVERIFY(sawWarning(QStringLiteral("ADB TUNNEL Invalid message from ADB Server")));
        QCOMPARE(m_device->m_sent.size(), 1);
        // The next connection starts clean.
        AdbServerSide next(m_bridge->getTcpPort());
        next.send(msg(AdbPacket::CNXN, 1, 1));
        QVERIFY(waitSent(2));

        const QByteArray okay = msg(AdbPacket::CNXN, 3, 3);
        m_device->deliver(okay + hugeHeader());
        QVERIFY(next.waitReceived(1));
        QCOMPARE(m_device->m_aborts, 1);
        m_device->deliver(okay);
        QVERIFY(syncServerToDevice(&next));
        QCOMPARE(next.m_received.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketTcpBridge)
#include "tst_websockettcpbridge.moc"
