#include "AdbPacket.h"

#include <QtEndian>

#include <cstring>

AdbPacket::AdbPacket()
    : m_data(HEADER_SIZE + DEFAULT_PAYLOAD_ROOM, '\0')
{ }

AdbPacket::AdbPacket(const char* data, int size)
    : m_data(data, size)
{ }

AdbPacket::AdbPacket(unsigned command, unsigned arg0, unsigned arg1, const QByteArray& payload)
    : m_data(HEADER_SIZE + payload.size(), Qt::Uninitialized)
{
    const amessage header {
        command,          arg0, arg1, quint32(payload.size()), checksum(payload.constData(), payload.size()),
        ~quint32(command)
    };
    char* out = m_data.data();
    std::memcpy(out, &header, HEADER_SIZE);
    if (!payload.isEmpty())
        std::memcpy(out + HEADER_SIZE, payload.constData(), size_t(payload.size()));
}

AdbPacket::AdbPacket(QByteArray data)
    : m_data(std::move(data))
{ }

AdbPacket AdbPacket::fromByteArray(const QByteArray& message)
{
    return AdbPacket(message);
}

amessage* AdbPacket::getMessage()
{
    if (m_data.size() < HEADER_SIZE)
        m_data.resize(HEADER_SIZE, '\0');
    return reinterpret_cast<amessage*>(m_data.data());
}

const char* AdbPacket::getPayload() const
{
    return m_data.constData() + HEADER_SIZE;
}

quint32 AdbPacket::checksum(const char* data, qsizetype size)
{
    // Signed on purpose: the peers compute it over `char`, so bytes >= 0x80 count negative.
    const auto* bytes = reinterpret_cast<const qint8*>(data);
    quint32 sum = 0;
    for (qsizetype i = 0; i < size; ++i)
        sum += quint32(qint32(bytes[i]));
    return sum;
}

quint32 AdbPacket::headerWord(const QByteArray& message, int index)
{
    const qsizetype offset = qsizetype(index) * 4;
    if (index < 0 || message.size() < offset + 4)
        return 0;
    return qFromUnaligned<quint32>(message.constData() + offset);
}
