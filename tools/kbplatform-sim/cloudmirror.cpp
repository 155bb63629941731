#include "cloudmirror.h"

#include "adbprotocol/AdbPacket.h"

void CloudMirror::feedFromDaemon(const QByteArray& bytes)
{
    if (hasFailed())
        return;
    m_daemonReader.append(bytes);
    drain(m_daemonReader, "daemon", true);
}

void CloudMirror::feedFromDevice(const QByteArray& bytes)
{
    if (hasFailed())
        return;
    m_deviceReader.append(bytes);
    drain(m_deviceReader, "device", false);
}

void CloudMirror::drain(PacketReader& reader, const char* side, bool fromDaemonSide)
{
    while (reader.packetAvailable()) {
        const QByteArray message = reader.read().toByteArray();
        if (fromDaemonSide)
            fromDaemon(message);
        else
            fromDevice(message);
    }
    if (reader.isCorrupted()) {
        m_error = QStringLiteral("the %1 sent a message announcing %2 payload bytes")
                      .arg(QLatin1String(side))
                      .arg(reader.corruptLength());
    }
}

QByteArrayList CloudMirror::takeToDevice()
{
    QByteArrayList out;
    out.swap(m_toDevice);
    return out;
}

QByteArrayList CloudMirror::takeToDaemon()
{
    QByteArrayList out;
    out.swap(m_toDaemon);
    return out;
}

void CloudMirror::setCongested(bool congested)
{
    m_congested = congested;
    if (!congested) {
        m_toDevice.append(m_heldAcks);
        m_heldAcks.clear();
    }
}

void CloudMirror::fromDaemon(const QByteArray& message)
{
    const quint32 command = AdbPacket::headerWord(message, 0);
    const Key key { AdbPacket::headerWord(message, 1), AdbPacket::headerWord(message, 2) };
    if (command == AdbPacket::WRTE) {
        Stream& stream = m_streams[key];
        stream.held.push_back(message);
        m_queuedBytes += message.size();
        release(key);
        return;
    }
    if (command == AdbPacket::CLSE) {
        const auto it = m_streams.find(key);
        if (it != m_streams.end() && (it->second.writeOutstanding || !it->second.held.empty())) {
            // Closing now would lose the writes still held for the device.
            it->second.held.push_back(message);
            m_queuedBytes += message.size();
            return;
        }
        if (it != m_streams.end())
            m_streams.erase(it);
    }
    m_toDevice.append(message);
}

void CloudMirror::fromDevice(const QByteArray& message)
{
    const quint32 command = AdbPacket::headerWord(message, 0);
    const quint32 deviceId = AdbPacket::headerWord(message, 1);
    const quint32 daemonId = AdbPacket::headerWord(message, 2);
    const Key key { daemonId, deviceId };
    switch (command) {
    case AdbPacket::WRTE: {
        // Answered as the ADB server would, ids swapped.
        const QByteArray okay = AdbPacket(AdbPacket::OKAY, daemonId, deviceId, QByteArray()).toByteArray();
        if (m_congested)
            m_heldAcks.append(okay);
        else
            m_toDevice.append(okay);
        break;
    }
    case AdbPacket::OKAY: {
        const auto it = m_streams.find(key);
        if (it != m_streams.end() && it->second.writeOutstanding) {
            it->second.writeOutstanding = false;
            release(key);
            return;
        }
        // Not the answer to a write of ours (the answer to an OPEN): the daemon needs it.
        break;
    }
    case AdbPacket::CLSE: {
        const auto it = m_streams.find(key);
        if (it != m_streams.end()) {
            // The device will take nothing more on this stream.
            for (const QByteArray& held : it->second.held)
                m_queuedBytes -= held.size();
            m_streams.erase(it);
        }
        break;
    }
    default:
        break;
    }
    m_toDaemon.append(message);
}

void CloudMirror::release(const Key& key)
{
    const auto it = m_streams.find(key);
    if (it == m_streams.end())
        return;
    Stream& stream = it->second;
    if (stream.writeOutstanding || stream.held.empty())
        return;
    const QByteArray message = std::move(stream.held.front());
    stream.held.pop_front();
    m_queuedBytes -= message.size();
    m_toDevice.append(message);
    if (AdbPacket::headerWord(message, 0) == AdbPacket::CLSE)
        m_streams.erase(it);
    else
        stream.writeOutstanding = true;
}
