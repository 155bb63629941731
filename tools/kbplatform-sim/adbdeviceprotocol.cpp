#include "adbdeviceprotocol.h"

#include "adbprotocol/AdbPacket.h"

#include <QtEndian>

#include <algorithm>

namespace {

// A stream can only be that many: ADB hosts open a handful at a time.
constexpr std::size_t MAX_STREAMS = 1024;

QByteArray commandName(quint32 command)
{
    QByteArray name(reinterpret_cast<const char*>(&command), 4);
    for (char& c : name) {
        if (c < 0x20 || c > 0x7e)
            c = '?';
    }
    return name;
}

bool advertisesDelayedAck(const QByteArray& banner)
{
    // "<kind>:<serial>:<prop>=<value>;...;features=a,b,c"
    const qsizetype start = banner.indexOf("features=");
    if (start < 0)
        return false;
    QByteArray value = banner.mid(start + 9);
    value.truncate(value.indexOf(';') < 0 ? value.size() : value.indexOf(';'));
    return value.split(',').contains("delayed_ack");
}

} // namespace

AdbDeviceProtocol::AdbDeviceProtocol(const QByteArray& banner)
    : m_banner(banner)
{ }

void AdbDeviceProtocol::feed(const QByteArray& bytes)
{
    if (m_failed)
        return;
    m_reader.append(bytes);
    while (!m_failed && m_reader.packetAvailable())
        handle(m_reader.read());
    if (!m_failed && m_reader.isCorrupted())
        fail("message announces " + QByteArray::number(m_reader.corruptLength()) + " payload bytes");
}

QList<AdbDeviceProtocol::Event> AdbDeviceProtocol::takeEvents()
{
    QList<Event> events;
    events.swap(m_events);
    return events;
}

QByteArray AdbDeviceProtocol::takeOutput()
{
    QByteArray output;
    output.swap(m_output);
    return output;
}

void AdbDeviceProtocol::handle(const AdbPacket& packet)
{
    const quint32 command = packet.command();
    if (packet.magic() != ~command) {
        fail("bad magic in " + commandName(command) + " message");
        return;
    }
    const QByteArray payload(packet.getPayload(), qsizetype(packet.dataLength()));

    if (command == AdbPacket::CNXN) {
        // ADB protocol.txt: both sides use the smaller of the two maxdata values.
        m_maxPayload = std::clamp(packet.arg1(), quint32(256), MAX_PAYLOAD);
        m_online = true;
        m_delayedAck = advertisesDelayedAck(m_banner) && advertisesDelayedAck(payload);
        send(AdbPacket::CNXN, VERSION, m_maxPayload, m_banner);
        return;
    }
    if (!m_online) {
        fail(commandName(command) + " message before CNXN");
        return;
    }

    switch (command) {
    case AdbPacket::OPEN: {
        if (packet.arg0() == 0) {
            fail("OPEN with local id 0");
            return;
        }
        // AOSP adb.cpp: an OPEN whose window disagrees with the negotiated delayed_ack is refused.
        if (m_streams.size() >= MAX_STREAMS || m_delayedAck != (packet.arg1() != 0)) {
            send(AdbPacket::CLSE, 0, packet.arg0());
            return;
        }
        const quint32 localId = allocateId();
        Stream stream;
        stream.remoteId = packet.arg0();
        stream.sendWindow = packet.arg1();
        m_streams.emplace(localId, std::move(stream));
        QByteArray service = payload;
        while (service.endsWith('\0'))
            service.chop(1);
        m_events.append({ Event::Opened, localId, service });
        return;
    }
    case AdbPacket::WRTE: {
        const auto it = m_streams.find(packet.arg1());
        if (it == m_streams.end() || it->second.remoteId != packet.arg0()) {
            // The stream is gone (or never was): tell the host so that it stops writing.
            send(AdbPacket::CLSE, 0, packet.arg0());
            return;
        }
        if (packet.dataLength() > m_maxPayload) {
            fail("WRTE of " + QByteArray::number(packet.dataLength()) + " bytes exceeds maxdata");
            return;
        }
        it->second.unacknowledged.push_back(packet.dataLength());
        m_events.append({ Event::Data, it->first, payload });
        return;
    }
    case AdbPacket::OKAY: {
        const auto it = m_streams.find(packet.arg1());
        if (it == m_streams.end())
            return;
        Stream& stream = it->second;
        // With delayed_ack an OKAY's payload is a signed 32-bit count: the window the host
        // grants when it accepts our OPEN, the bytes it has taken afterwards.
        qint32 bytes = 0;
        if (m_delayedAck) {
            if (payload.size() != 4) {
                fail("OKAY without its byte count");
                return;
            }
            bytes = qFromLittleEndian<qint32>(payload.constData());
        }
        if (stream.opening) {
            stream.opening = false;
            stream.accepted = true;
            stream.remoteId = packet.arg0();
            stream.sendWindow = bytes;
            m_events.append({ Event::Accepted, it->first, QByteArray() });
        } else {
            if (stream.remoteId != packet.arg0())
                return;
            stream.writeOutstanding = false;
            stream.sendWindow += bytes;
        }
        pump(it->first);
        if (m_streams.count(packet.arg1()))
            m_events.append({ Event::Writable, packet.arg1(), QByteArray() });
        return;
    }
    case AdbPacket::CLSE: {
        const auto it = m_streams.find(packet.arg1());
        if (it == m_streams.end() || it->second.remoteId != packet.arg0())
            return;
        // Close from our side too, so that both ends have seen a CLSE for the stream; a refused
        // OPEN of ours has nothing to close.
        if (!it->second.opening)
            send(AdbPacket::CLSE, it->first, it->second.remoteId);
        const quint32 localId = it->first;
        m_streams.erase(it);
        m_events.append({ Event::Closed, localId, QByteArray() });
        return;
    }
    case AdbPacket::AUTH:
        // We never challenge, so an AUTH from the host answers nothing; ignore it as adbd does
        // when authentication is off.
        return;
    default:
        fail("unsupported command " + commandName(command));
        return;
    }
}

quint32 AdbDeviceProtocol::allocateId()
{
    while (m_nextLocalId == 0 || m_streams.count(m_nextLocalId))
        ++m_nextLocalId;
    return m_nextLocalId++;
}

quint32 AdbDeviceProtocol::open(const QByteArray& destination)
{
    if (!m_online || m_failed || m_streams.size() >= MAX_STREAMS)
        return 0;
    const quint32 localId = allocateId();
    Stream stream;
    stream.opening = true;
    m_streams.emplace(localId, std::move(stream));
    // AOSP sockets.cpp: a delayed_ack OPEN carries the window granted to the other side.
    send(AdbPacket::OPEN, localId, m_delayedAck ? quint32(INITIAL_DELAYED_ACK_BYTES) : 0, destination + '\0');
    return localId;
}

void AdbDeviceProtocol::accept(quint32 localId)
{
    const auto it = m_streams.find(localId);
    if (it == m_streams.end() || it->second.accepted)
        return;
    it->second.accepted = true;
    sendOkay(localId, it->second.remoteId, INITIAL_DELAYED_ACK_BYTES);
    pump(localId);
}

void AdbDeviceProtocol::sendOkay(quint32 localId, quint32 remoteId, qint32 ackedBytes)
{
    QByteArray payload;
    if (m_delayedAck) {
        payload.resize(4);
        qToLittleEndian(ackedBytes, payload.data());
    }
    send(AdbPacket::OKAY, localId, remoteId, payload);
}

void AdbDeviceProtocol::refuse(quint32 localId)
{
    const auto it = m_streams.find(localId);
    if (it == m_streams.end())
        return;
    // ADB protocol.txt: a CLOSE with local id 0 means the OPEN failed.
    send(AdbPacket::CLSE, 0, it->second.remoteId);
    m_streams.erase(it);
}

void AdbDeviceProtocol::write(quint32 localId, const QByteArray& data)
{
    const auto it = m_streams.find(localId);
    if (it == m_streams.end() || it->second.closing || data.isEmpty())
        return;
    it->second.pending.append(data);
    pump(localId);
}

void AdbDeviceProtocol::close(quint32 localId)
{
    const auto it = m_streams.find(localId);
    if (it == m_streams.end())
        return;
    it->second.closing = true;
    pump(localId);
}

void AdbDeviceProtocol::acknowledge(quint32 localId)
{
    const auto it = m_streams.find(localId);
    if (it == m_streams.end() || it->second.unacknowledged.empty())
        return;
    const quint32 size = it->second.unacknowledged.front();
    it->second.unacknowledged.pop_front();
    sendOkay(localId, it->second.remoteId, qint32(size));
}

qsizetype AdbDeviceProtocol::pendingBytes(quint32 localId) const
{
    const auto it = m_streams.find(localId);
    return it == m_streams.end() ? 0 : it->second.pending.size();
}

void AdbDeviceProtocol::pump(quint32 localId)
{
    const auto it = m_streams.find(localId);
    if (it == m_streams.end())
        return;
    Stream& stream = it->second;
    if (!stream.accepted)
        return;
    // ADB protocol.txt: one WRTE in flight per stream until the receiver's OKAY; with delayed_ack,
    // as many as the host's window holds.
    while (!stream.pending.isEmpty()) {
        if (m_delayedAck ? stream.sendWindow <= 0 : stream.writeOutstanding)
            return;
        const qsizetype size = std::min<qsizetype>(stream.pending.size(), m_maxPayload);
        send(AdbPacket::WRTE, localId, stream.remoteId, stream.pending.left(size));
        stream.pending.remove(0, size);
        stream.writeOutstanding = true;
        stream.sendWindow -= size;
    }
    if (stream.closing && (m_delayedAck || !stream.writeOutstanding)) {
        send(AdbPacket::CLSE, localId, stream.remoteId);
        m_streams.erase(it);
    }
}

void AdbDeviceProtocol::send(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload)
{
    m_output.append(AdbPacket(command, arg0, arg1, payload).toByteArray());
}

void AdbDeviceProtocol::fail(const QByteArray& reason)
{
    m_failed = true;
    m_streams.clear();
    m_reader.clear();
    m_events.append({ Event::Failed, 0, reason });
}
