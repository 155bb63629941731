// The bridge's session rules under a fuzzed interleaving of ADB server and device traffic.
//
// The input is a list of records: one op byte (bit 0: 0 = bytes from the ADB server, 1 = a
// WebSocket frame from the device; bit 1: long length), a length, then that many bytes. The
// server's bytes go straight into the bridge's TCP slot, the device's frames through a mock
// WebSocket; what the bridge sends to the ADB server is read back from a real loopback client.
//
// Checked: every message to the device is one the server sent, in order, and only OKAYs may be
// held back; every message to the server is one the device sent, or an OKAY the bridge built
// for one of the server's writes; per stream (sender id, receiver id) the device's writes and
// closes keep their order; a stream that announces an oversized message costs its sender the
// connection.
#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/ConnectBanner.h"
#include "adbprotocol/PacketReader.h"
#include "daemon/adbtunnelversion.h"
#include "daemon/web_socket_tcp_bridge.h"
#include "fuzzsupport.h"
#include "mockwebsocket.h"

#include <QHash>
#include <QHostAddress>
#include <QMap>
#include <QTcpSocket>

#include <algorithm>
#include <memory>

using FuzzSupport::check;

namespace {

const quint32 SENTINEL_COMMAND = 0x5A4B4246; // "FBKZ": not a command the bridge interprets

QByteArray sentinel(int n)
{
    return AdbPacket(SENTINEL_COMMAND, quint32(n), 0, QByteArray("kbfuzz sentinel")).toByteArray();
}

QList<QByteArray> cut(PacketReader& reader, const QByteArray& bytes)
{
    QList<QByteArray> messages;
    reader.append(bytes);
    while (reader.packetAvailable())
        messages.append(reader.read().toByteArray());
    return messages;
}

// Messages as the bridge relays them: at version 2 the CNXN banners lose delayed_ack.
QList<QByteArray> relayed(QList<QByteArray> messages)
{
    if (!AdbTunnelVersion::isMegaFastEnabled())
        return messages;
    for (QByteArray& message : messages) {
        AdbPacket packet = AdbPacket::fromByteArray(message);
        if (ConnectBanner::removeFeature(&packet, "delayed_ack"))
            message = packet.toByteArray();
    }
    return messages;
}

bool isStreamData(const QByteArray& message)
{
    const quint32 command = AdbPacket::headerWord(message, 0);
    return command == AdbPacket::WRTE || command == AdbPacket::CLSE;
}

using StreamKey = QPair<quint32, quint32>;

StreamKey streamOf(const QByteArray& message)
{
    return { AdbPacket::headerWord(message, 1), AdbPacket::headerWord(message, 2) };
}

// Reads from the client until the given sentinel arrives; returns the messages before it.
QList<QByteArray> readUntil(QTcpSocket& client, PacketReader& reader, const QByteArray& mark)
{
    QList<QByteArray> messages;
    for (;;) {
        if (client.bytesAvailable() > 0) {
            for (const QByteArray& message : cut(reader, client.readAll())) {
                if (message == mark)
                    return messages;
                if (message != sentinel(0))
                    messages.append(message);
            }
        }
        check(client.state() != QAbstractSocket::UnconnectedState, "ADB server connection lost");
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::application();
    FuzzSupport::Input input(data, size);

    auto webSocket = std::make_unique<MockWebSocket>();
    auto bridge = std::make_unique<WebSocketTcpBridge>(webSocket.get(), QStringLiteral("fuzz"));
    bridge->start(0);
    check(bridge->getState() == WebSocketTcpBridge::RUNNING, "bridge did not start");
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, bridge->getTcpPort());
    PacketReader clientReader;
    // The bridge drops what it has for the ADB server until it has accepted the client, so the
    // first sentinel is repeated until one arrives; the extra copies are skipped later.
    check(client.waitForConnected(5000), "cannot reach the bridge");
    while (client.bytesAvailable() == 0) {
        webSocket->deliver(sentinel(0));
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    readUntil(client, clientReader, sentinel(0));

    PacketReader serverModel;
    PacketReader deviceModel;
    QList<QByteArray> fromServer;
    QList<QByteArray> fromDevice;
    QByteArray deviceBytes;
    bool serverCorrupt = false;
    bool deviceCorrupt = false;
    while (!input.atEnd() && !serverCorrupt && !deviceCorrupt) {
        const uint8_t op = input.byte();
        const size_t length = (op & 2) ? 1 + input.word() % 4096 : 1 + size_t(input.byte());
        const QByteArray bytes = input.bytes(length);
        if (op & 1) {
            deviceBytes += bytes;
            fromDevice += relayed(cut(deviceModel, bytes));
            deviceCorrupt = deviceModel.isCorrupted();
            webSocket->deliver(bytes);
        } else {
            fromServer += relayed(cut(serverModel, bytes));
            serverCorrupt = serverModel.isCorrupted();
            bridge->onTcpDataReceived(bytes);
        }
    }

    // To the device: the server's messages in order; only OKAYs may be consumed by the bridge.
    qsizetype sent = 0;
    for (const QByteArray& message : fromServer) {
        if (sent < webSocket->m_sent.size() && webSocket->m_sent.at(sent) == message)
            ++sent;
        else
            check(AdbPacket::headerWord(message, 0) == AdbPacket::OKAY, "server message not forwarded");
    }
    check(sent == webSocket->m_sent.size(), "device received a message the server never sent");

    if (serverCorrupt) {
        while (client.state() == QAbstractSocket::ConnectedState)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    } else if (deviceCorrupt) {
        check(webSocket->m_aborts == 1, "oversized device message did not cost the connection");
    } else {
        // Complete a half-delivered device message so that the closing sentinel stands alone.
        auto deliver = [&](const QByteArray& bytes) {
            deviceBytes += bytes;
            fromDevice += relayed(cut(deviceModel, bytes));
            webSocket->deliver(bytes);
        };
        if (deviceModel.bufferedSize() > 0 && deviceModel.bufferedSize() < AdbPacket::HEADER_SIZE)
            deliver(QByteArray(AdbPacket::HEADER_SIZE - deviceModel.bufferedSize(), '\0'));
        if (deviceModel.bufferedSize() > 0 && !deviceModel.isCorrupted()) {
            const QByteArray header
                = deviceBytes.right(deviceModel.bufferedSize()).left(AdbPacket::HEADER_SIZE);
            const qsizetype total = AdbPacket::HEADER_SIZE + qsizetype(AdbPacket::headerWord(header, 3));
            deliver(QByteArray(total - deviceModel.bufferedSize(), '\0'));
        }
        check(deviceModel.isCorrupted() == (webSocket->m_aborts > 0), "device connection aborted wrongly");
        const QByteArray mark = sentinel(1);
        // A device message in the sentinels' own command would make the reading stop early.
        const bool mimicsSentinel
            = std::any_of(fromDevice.cbegin(), fromDevice.cend(), [](const QByteArray& m) {
                  return AdbPacket::headerWord(m, 0) == SENTINEL_COMMAND;
              });
        if (!deviceModel.isCorrupted() && !mimicsSentinel) {
            webSocket->deliver(mark);
            const QList<QByteArray> toServer = readUntil(client, clientReader, mark);

            QMap<StreamKey, qsizetype> streamCursor;
            QMap<StreamKey, QList<QByteArray>> streams;
            QList<QByteArray> direct;
            for (const QByteArray& message : fromDevice) {
                if (isStreamData(message))
                    streams[streamOf(message)].append(message);
                else
                    direct.append(message);
            }
            QHash<StreamKey, int> okaysOwed; // (receiver, sender) of each server WRTE
            for (const QByteArray& message : fromServer) {
                if (AdbPacket::headerWord(message, 0) == AdbPacket::WRTE)
                    ++okaysOwed[{ AdbPacket::headerWord(message, 2), AdbPacket::headerWord(message, 1) }];
            }
            qsizetype directCursor = 0;
            for (const QByteArray& message : toServer) {
                if (isStreamData(message)) {
                    const QList<QByteArray>& stream = streams.value(streamOf(message));
                    qsizetype& cursor = streamCursor[streamOf(message)];
                    while (cursor < stream.size() && stream.at(cursor) != message)
                        ++cursor;
                    check(cursor < stream.size(), "stream message invented or out of order");
                    ++cursor;
                    continue;
                }
                if (directCursor < direct.size() && direct.at(directCursor) == message) {
                    ++directCursor;
                    continue;
                }
                const bool builtOkay = message.size() == AdbPacket::HEADER_SIZE
                    && AdbPacket::headerWord(message, 0) == AdbPacket::OKAY
                    && AdbPacket::headerWord(message, 3) == 0 && AdbPacket::headerWord(message, 4) == 0
                    && AdbPacket::headerWord(message, 5) == ~quint32(AdbPacket::OKAY);
                check(builtOkay, "message to the server is neither relayed nor a well-formed OKAY");
                int& owed = okaysOwed[streamOf(message)];
                check(owed > 0, "OKAY built for a write the server never sent");
                --owed;
            }
            check(directCursor == direct.size(), "device message other than WRTE/CLSE not relayed");
        }
    }

    bridge.reset();
    client.abort();
    webSocket.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
