#pragma once

#include "adbprotocol/PacketReader.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <deque>
#include <map>

// The device side of the ADB transport protocol (ADB protocol.txt), without any I/O: fed the
// host's bytes, it answers the handshake, keeps per-stream flow control and reports stream
// events; what it wants to send accumulates in an output buffer that the owner drains.
class AdbDeviceProtocol
{
public:
    static constexpr quint32 VERSION = 0x01000001;
    static constexpr quint32 MAX_PAYLOAD = PacketReader::MAX_PAYLOAD;
    // AOSP adb.h: the receive window each side grants per stream when both advertise delayed_ack.
    static constexpr qint32 INITIAL_DELAYED_ACK_BYTES = 32 * 1024 * 1024;

    struct Event
    {
        enum Type {
            Opened, // the host opened a stream: data is the service name; accept() or refuse() it
            Accepted, // the host accepted a stream that open() asked for
            Data, // the host wrote: data is the payload; acknowledge() it once consumed
            Closed, // the host closed the stream (or refused one that open() asked for); it is gone
            Writable, // the host acknowledged our last write
            Failed, // protocol violation: data is the reason; the connection must be dropped
        };
        Type type;
        quint32 localId;
        QByteArray data;
    };

    explicit AdbDeviceProtocol(const QByteArray& banner);

    void feed(const QByteArray& bytes);
    QList<Event> takeEvents();
    QByteArray takeOutput();
    bool hasOutput() const { return !m_output.isEmpty(); }

    bool isOnline() const { return m_online; }
    bool hasFailed() const { return m_failed; }
    quint32 maxPayload() const { return m_maxPayload; }
    // Both CNXNs advertised delayed_ack: OPEN and OKAY carry windows, and writes go out up to the
    // peer's window instead of one at a time.
    bool delayedAck() const { return m_delayedAck; }

    // Opens a stream to the host for destination (a device-opened stream, as for reverse
    // forwards); 0 when offline. Accepted or Closed follows.
    quint32 open(const QByteArray& destination);
    void accept(quint32 localId);
    void refuse(quint32 localId);
    // Queues data for the host; sent in WRTEs of at most maxPayload(), one unacknowledged at a time.
    void write(quint32 localId, const QByteArray& data);
    // Sends CLSE once the queued data is out.
    void close(quint32 localId);
    // Answers one of the host's writes with OKAY.
    void acknowledge(quint32 localId);
    qsizetype pendingBytes(quint32 localId) const;
    bool hasStream(quint32 localId) const { return m_streams.count(localId) != 0; }

private:
    struct Stream
    {
        quint32 remoteId = 0;
        QByteArray pending;
        std::deque<quint32> unacknowledged; // sizes of the host writes not yet answered
        bool writeOutstanding = false; // without delayed_ack
        qint64 sendWindow = 0; // with delayed_ack: what the host still takes unacknowledged
        bool accepted = false;
        bool opening = false; // opened by us, the host has not answered yet
        bool closing = false;
    };

    void handle(const AdbPacket& packet);
    void send(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload = QByteArray());
    void sendOkay(quint32 localId, quint32 remoteId, qint32 ackedBytes);
    quint32 allocateId();
    void pump(quint32 localId);
    void fail(const QByteArray& reason);

    QByteArray m_banner;
    PacketReader m_reader;
    QByteArray m_output;
    QList<Event> m_events;
    std::map<quint32, Stream> m_streams;
    quint32 m_nextLocalId = 1;
    quint32 m_maxPayload = 4096;
    bool m_online = false;
    bool m_delayedAck = false;
    bool m_failed = false;
};
