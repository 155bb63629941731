#include "websocketframereader.h"

#include <QtEndian>

namespace {

bool isControl(quint8 opcode)
{
    return opcode & 0x8;
}

bool isKnown(quint8 opcode)
{
    return opcode <= 0x2 || (opcode >= 0x8 && opcode <= 0xA);
}

} // namespace

void WebSocketFrameReader::feed(const QByteArray& bytes)
{
    if (hasFailed())
        return;
    m_buffer.append(bytes);
    while (!hasFailed() && parseFrame()) { }
    // Consumed bytes go once they are the larger part, so a long run of small frames costs
    // linear time and a large frame is not copied again for every chunk of it.
    if (m_offset > 0 && m_offset * 2 >= m_buffer.size()) {
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
}

WebSocketFrameReader::Event WebSocketFrameReader::takeEvent()
{
    Event event = std::move(m_events.front());
    m_events.pop_front();
    return event;
}

void WebSocketFrameReader::fail(int code, const QString& error)
{
    m_failCode = code;
    m_error = error;
    m_buffer.clear();
    m_message.clear();
    m_offset = 0;
}

bool WebSocketFrameReader::parseFrame()
{
    const auto* data = reinterpret_cast<const uchar*>(m_buffer.constData()) + m_offset;
    const qsizetype available = m_buffer.size() - m_offset;
    if (available < 2)
        return false;
    const bool fin = data[0] & 0x80;
    const quint8 opcode = data[0] & 0x0F;
    // RFC 6455 5.2: without a negotiated extension the RSV bits must be 0.
    if (data[0] & 0x70) {
        fail(1002, QStringLiteral("reserved bits set in a frame header"));
        return false;
    }
    if (!isKnown(opcode)) {
        fail(1002, QStringLiteral("unknown opcode %1").arg(opcode));
        return false;
    }
    // RFC 6455 5.1: the server closes the connection on an unmasked client frame.
    if (!(data[1] & 0x80)) {
        fail(1002, QStringLiteral("unmasked frame from the client"));
        return false;
    }
    quint64 length = data[1] & 0x7F;
    qsizetype header = 2;
    if (length == 126) {
        if (available < 4)
            return false;
        length = qFromBigEndian<quint16>(data + 2);
        header = 4;
    } else if (length == 127) {
        if (available < 10)
            return false;
        length = qFromBigEndian<quint64>(data + 2);
        header = 10;
        if (length >> 63) {
            fail(1002, QStringLiteral("payload length with its most significant bit set"));
            return false;
        }
    }
    if (isControl(opcode) && (!fin || length > 125)) {
        // RFC 6455 5.5: control frames are never fragmented and carry at most 125 bytes.
        fail(1002, QStringLiteral("fragmented or oversized control frame"));
        return false;
    }
    if (!isControl(opcode)) {
        if (opcode == 0 && !m_inMessage) {
            fail(1002, QStringLiteral("continuation frame without a message"));
            return false;
        }
        if (opcode != 0 && m_inMessage) {
            fail(1002, QStringLiteral("new message inside a fragmented one"));
            return false;
        }
        if (length > quint64(m_limit) || quint64(m_message.size()) + length > quint64(m_limit)) {
            fail(1009, QStringLiteral("frame or message larger than %1 bytes").arg(m_limit));
            return false;
        }
    }
    if (quint64(available) < quint64(header) + 4 + length)
        return false;
    const uchar* mask = data + header;
    QByteArray payload(reinterpret_cast<const char*>(mask + 4), qsizetype(length));
    char* out = payload.data();
    for (qsizetype i = 0; i < payload.size(); ++i)
        out[i] ^= char(mask[i & 3]);
    m_offset += header + 4 + qsizetype(length);

    if (isControl(opcode)) {
        if (opcode == quint8(Opcode::Close) && payload.size() == 1) {
            fail(1002, QStringLiteral("close frame with a one-byte payload"));
            return false;
        }
        m_events.push_back({ Opcode(opcode), payload });
        return true;
    }
    if (opcode != 0) {
        m_messageOpcode = Opcode(opcode);
        m_inMessage = true;
    }
    m_message.append(payload);
    if (fin) {
        m_events.push_back({ m_messageOpcode, std::exchange(m_message, QByteArray()) });
        m_inMessage = false;
    }
    return true;
}

QByteArray encodeWebSocketHeader(WebSocketFrameReader::Opcode opcode, quint64 length, bool fin)
{
    QByteArray header;
    header.append(char((fin ? 0x80 : 0x00) | quint8(opcode)));
    if (length < 126) {
        header.append(char(length));
    } else if (length <= 0xFFFF) {
        header.append(char(126));
        char bytes[2];
        qToBigEndian<quint16>(quint16(length), bytes);
        header.append(bytes, 2);
    } else {
        header.append(char(127));
        char bytes[8];
        qToBigEndian<quint64>(length, bytes);
        header.append(bytes, 8);
    }
    return header;
}

QByteArray encodeWebSocketFrame(WebSocketFrameReader::Opcode opcode, const QByteArray& payload, bool fin)
{
    return encodeWebSocketHeader(opcode, quint64(payload.size()), fin) + payload;
}

QByteArray webSocketClosePayload(int code, const QString& reason)
{
    char bytes[2];
    qToBigEndian<quint16>(quint16(code), bytes);
    QByteArray text = reason.toUtf8();
    // Cut on a character boundary: a continuation byte is 10xxxxxx.
    if (text.size() > 123) {
        qsizetype end = 123;
        while (end > 0 && (uchar(text.at(end)) & 0xC0) == 0x80)
            --end;
        text.truncate(end);
    }
    return QByteArray(bytes, 2) + text;
}
