#include "PacketReader.h"

#include <QtEndian>

namespace {

constexpr qsizetype LENGTH_OFFSET = 12;

} // namespace

void PacketReader::append(const QByteArray& data)
{
    if (m_corrupted || data.isEmpty())
        return;
    if (m_offset > 0) {
        // What is left is less than one message, so each byte is moved at most once.
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
    // On an empty buffer QByteArray shares a non-raw source instead of copying it.
    m_buffer.append(data);
    checkHeader();
}

bool PacketReader::packetAvailable() const
{
    if (m_corrupted)
        return false;
    const qsizetype available = m_buffer.size() - m_offset;
    if (available < AdbPacket::HEADER_SIZE)
        return false;
    const quint32 length = qFromUnaligned<quint32>(m_buffer.constData() + m_offset + LENGTH_OFFSET);
    return available >= AdbPacket::HEADER_SIZE + qsizetype(length);
}

AdbPacket PacketReader::read()
{
    if (!packetAvailable())
        return AdbPacket(nullptr, 0);
    const quint32 length = qFromUnaligned<quint32>(m_buffer.constData() + m_offset + LENGTH_OFFSET);
    const qsizetype total = AdbPacket::HEADER_SIZE + qsizetype(length);
    if (m_offset == 0 && total == m_buffer.size()) {
        // The buffer is exactly one message (typically one WebSocket frame): hand it over.
        const AdbPacket packet = AdbPacket::fromByteArray(m_buffer);
        m_buffer.clear();
        return packet;
    }
    AdbPacket packet(m_buffer.constData() + m_offset, int(total));
    m_offset += total;
    if (m_offset == m_buffer.size()) {
        m_buffer.clear();
        m_offset = 0;
    } else {
        checkHeader();
    }
    return packet;
}

void PacketReader::clear()
{
    m_buffer.clear();
    m_offset = 0;
    m_corrupted = false;
    m_corruptLength = 0;
}

void PacketReader::checkHeader()
{
    if (m_buffer.size() - m_offset < AdbPacket::HEADER_SIZE)
        return;
    const quint32 length = qFromUnaligned<quint32>(m_buffer.constData() + m_offset + LENGTH_OFFSET);
    if (length <= MAX_PAYLOAD)
        return;
    m_corrupted = true;
    m_corruptLength = length;
    m_buffer.clear();
    m_offset = 0;
}
