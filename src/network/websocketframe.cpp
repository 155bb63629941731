#include "websocketframe.h"

#include <QtEndian>

#include <cstring>

namespace {

constexpr int MAX_CONTROL_PAYLOAD = 125; // rfc6455 5.5

int headerSizeFor(quint8 secondByte)
{
    const quint8 length7 = secondByte & 0x7F;
    const int extended = length7 == 126 ? 2 : length7 == 127 ? 8 : 0;
    return 2 + extended + ((secondByte & 0x80) ? 4 : 0);
}

} // namespace

QWebSocketProtocol::CloseCode WebSocketFrame::closeCode() const
{
    return static_cast<QWebSocketProtocol::CloseCode>(closeCodeValue());
}

quint16 WebSocketFrame::closeCodeValue() const
{
    if (payload.size() < 2)
        return QWebSocketProtocol::CloseCodeNormal;
    return qFromBigEndian<quint16>(payload.constData());
}

QString WebSocketFrame::closeReason() const
{
    return payload.size() > 2 ? QString::fromUtf8(payload.constData() + 2, payload.size() - 2) : QString();
}

QByteArray WebSocketFrame::encodeHeader(OpCode opCode, quint64 length, bool isFinal, bool masked,
                                        quint32 maskKey)
{
    char header[14];
    int size = 2;
    header[0] = char((isFinal ? 0x80 : 0x00) | opCode);
    const quint8 maskBit = masked ? 0x80 : 0x00;
    if (length < 126) {
        header[1] = char(maskBit | length);
    } else if (length <= 0xFFFF) {
        header[1] = char(maskBit | 126);
        qToBigEndian<quint16>(quint16(length), header + 2);
        size += 2;
    } else {
        header[1] = char(maskBit | 127);
        qToBigEndian<quint64>(length, header + 2);
        size += 8;
    }
    if (masked) {
        qToBigEndian<quint32>(maskKey, header + size);
        size += 4;
    }
    return QByteArray(header, size);
}

QByteArray WebSocketFrame::encode(OpCode opCode, const QByteArray& payload, bool isFinal)
{
    return encodeHeader(opCode, quint64(payload.size()), isFinal, false, 0) + payload;
}

QByteArray WebSocketFrame::encodeMasked(OpCode opCode, const QByteArray& payload, quint32 maskKey,
                                        bool isFinal)
{
    QByteArray frame = encodeHeader(opCode, quint64(payload.size()), isFinal, true, maskKey);
    const qsizetype headerSize = frame.size();
    // Copy and mask in one pass instead of copying, then masking the copy.
    frame.resize(headerSize + payload.size());
    applyMask(frame.data() + headerSize, payload.constData(), payload.size(), maskKey);
    return frame;
}

QByteArray WebSocketFrame::closePayload(QWebSocketProtocol::CloseCode code, const QString& reason)
{
    QByteArray payload(2, Qt::Uninitialized);
    qToBigEndian<quint16>(quint16(code), payload.data());
    QByteArray text = reason.toUtf8();
    if (text.size() > MAX_CONTROL_PAYLOAD - 2) {
        // Cut at a character boundary, so that the peer's UTF-8 check still passes.
        qsizetype cut = MAX_CONTROL_PAYLOAD - 2;
        while (cut > 0 && (quint8(text.at(cut)) & 0xC0) == 0x80)
            --cut;
        text.truncate(cut);
    }
    return payload + text;
}

void WebSocketFrame::applyMask(char* dst, const char* src, qsizetype size, quint32 maskKey, quint64 offset)
{
    unsigned char key[4];
    qToBigEndian<quint32>(maskKey, key);
    // The key as eight bytes in memory order, rotated to the payload position, so that one
    // 64-bit XOR masks eight payload bytes whatever the machine's byte order.
    unsigned char pattern[8];
    for (int i = 0; i < 8; ++i)
        pattern[i] = key[(offset + quint64(i)) % 4];
    quint64 word;
    std::memcpy(&word, pattern, sizeof word);

    qsizetype i = 0;
    for (; i + 8 <= size; i += 8) {
        quint64 chunk;
        std::memcpy(&chunk, src + i, sizeof chunk);
        chunk ^= word;
        std::memcpy(dst + i, &chunk, sizeof chunk);
    }
    for (; i < size; ++i)
        dst[i] = char(src[i] ^ pattern[i % 8]);
}

WebSocketFrameReader::WebSocketFrameReader(Masking masking, qint64 maxFrameSize, qint64 maxMessageSize)
    : m_masking(masking)
    , m_maxFrameSize(maxFrameSize)
    , m_maxMessageSize(maxMessageSize)
{ }

void WebSocketFrameReader::append(const QByteArray& data)
{
    append(data.constData(), data.size());
}

void WebSocketFrameReader::append(const char* data, qsizetype size)
{
    while (size > 0 && !hasError()) {
        if (m_stage == Stage::Header) {
            const qsizetype used = consumeHeader(data, size);
            data += used;
            size -= used;
            continue;
        }
        const qsizetype wanted = qsizetype(m_payloadLength) - m_current.payload.size();
        const qsizetype take = qMin(wanted, size);
        const qsizetype at = m_current.payload.size();
        // Grows with the bytes that arrived: a header may announce far more than ever comes.
        m_current.payload.resize(at + take);
        if (m_current.isMasked)
            WebSocketFrame::applyMask(m_current.payload.data() + at, data, take, m_maskKey, quint64(at));
        else
            std::memcpy(m_current.payload.data() + at, data, size_t(take));
        data += take;
        size -= take;
        if (m_current.payload.size() == qsizetype(m_payloadLength))
            finishFrame();
    }
}

qsizetype WebSocketFrameReader::consumeHeader(const char* data, qsizetype size)
{
    qsizetype used = 0;
    if (m_headerSize < 2) {
        const qsizetype take = qMin<qsizetype>(2 - m_headerSize, size);
        std::memcpy(m_header + m_headerSize, data, size_t(take));
        m_headerSize += int(take);
        used += take;
        if (m_headerSize < 2)
            return used;
    }
    const int needed = headerSizeFor(quint8(m_header[1]));
    const qsizetype take = qMin<qsizetype>(needed - m_headerSize, size - used);
    std::memcpy(m_header + m_headerSize, data + used, size_t(take));
    m_headerSize += int(take);
    used += take;
    if (m_headerSize == needed && checkHeader()) {
        m_headerSize = 0;
        m_stage = Stage::Payload;
        if (m_payloadLength == 0)
            finishFrame();
    }
    return used;
}

bool WebSocketFrameReader::checkHeader()
{
    const quint8 first = quint8(m_header[0]);
    const quint8 second = quint8(m_header[1]);
    const quint8 opCode = first & 0x0F;
    const bool isFinal = (first & 0x80) != 0;
    const bool isMasked = (second & 0x80) != 0;

    // rfc6455 5.2: no extension is negotiated, so every RSV bit must be clear.
    if (first & 0x70) {
        setError(QWebSocketProtocol::CloseCodeProtocolError, QStringLiteral("Reserved bits set in a frame"));
        return false;
    }
    switch (opCode) {
    case WebSocketFrame::Continuation:
    case WebSocketFrame::Text:
    case WebSocketFrame::Binary:
    case WebSocketFrame::Close:
    case WebSocketFrame::Ping:
    case WebSocketFrame::Pong:
        break;
    default:
        setError(QWebSocketProtocol::CloseCodeProtocolError,
                 QStringLiteral("Reserved opcode %1").arg(opCode));
        return false;
    }
    if (m_masking == Masking::Masked && !isMasked) {
        setError(QWebSocketProtocol::CloseCodeProtocolError, QStringLiteral("Unmasked frame from a client"));
        return false;
    }
    if (m_masking == Masking::Unmasked && isMasked) {
        setError(QWebSocketProtocol::CloseCodeProtocolError, QStringLiteral("Masked frame from a server"));
        return false;
    }

    quint64 length = second & 0x7F;
    int at = 2;
    if (length == 126) {
        length = qFromBigEndian<quint16>(m_header + 2);
        at += 2;
        if (length < 126) {
            setError(QWebSocketProtocol::CloseCodeProtocolError,
                     QStringLiteral("Frame length not minimally encoded"));
            return false;
        }
    } else if (length == 127) {
        length = qFromBigEndian<quint64>(m_header + 2);
        at += 8;
        // rfc6455 5.2: the most significant bit of a 64-bit length must be 0.
        if (length >> 63) {
            setError(QWebSocketProtocol::CloseCodeProtocolError,
                     QStringLiteral("Frame length has its top bit set"));
            return false;
        }
        if (length <= 0xFFFF) {
            setError(QWebSocketProtocol::CloseCodeProtocolError,
                     QStringLiteral("Frame length not minimally encoded"));
            return false;
        }
    }

    const bool isControl = (opCode & 0x8) != 0;
    if (isControl) {
        // rfc6455 5.5: control frames are never fragmented and carry at most 125 bytes.
        if (!isFinal || length > MAX_CONTROL_PAYLOAD) {
            setError(QWebSocketProtocol::CloseCodeProtocolError,
                     QStringLiteral("Control frame fragmented or longer than 125 bytes"));
            return false;
        }
        if (opCode == WebSocketFrame::Close && length == 1) {
            setError(QWebSocketProtocol::CloseCodeProtocolError,
                     QStringLiteral("Close frame with a 1-byte payload"));
            return false;
        }
    } else if (opCode == WebSocketFrame::Continuation && !m_inMessage) {
        setError(QWebSocketProtocol::CloseCodeProtocolError,
                 QStringLiteral("Continuation frame outside a message"));
        return false;
    } else if (opCode != WebSocketFrame::Continuation && m_inMessage) {
        setError(QWebSocketProtocol::CloseCodeProtocolError,
                 QStringLiteral("New message before the fragmented one ended"));
        return false;
    }

    if (qint64(length) > m_maxFrameSize) {
        setError(QWebSocketProtocol::CloseCodeTooMuchData,
                 QStringLiteral("Incoming frame of %1 bytes exceeds the limit of %2")
                     .arg(length)
                     .arg(m_maxFrameSize));
        return false;
    }
    if (!isControl && m_messageSize + qint64(length) > m_maxMessageSize) {
        setError(QWebSocketProtocol::CloseCodeTooMuchData,
                 QStringLiteral("Incoming message of more than %1 bytes exceeds the limit of %2")
                     .arg(m_messageSize + qint64(length))
                     .arg(m_maxMessageSize));
        return false;
    }

    m_current = WebSocketFrame();
    m_current.opCode = WebSocketFrame::OpCode(opCode);
    m_current.isFinal = isFinal;
    m_current.isMasked = isMasked;
    m_payloadLength = length;
    m_maskKey = isMasked ? qFromBigEndian<quint32>(m_header + at) : 0;
    if (isControl) {
        m_current.messageOpCode = m_current.opCode;
    } else {
        if (opCode != WebSocketFrame::Continuation)
            m_messageOpCode = m_current.opCode;
        m_current.messageOpCode = m_messageOpCode;
        m_messageSize += qint64(length);
        m_inMessage = !isFinal;
        if (isFinal)
            m_messageSize = 0;
    }
    return true;
}

void WebSocketFrameReader::finishFrame()
{
    m_framesSize += m_current.payload.size();
    m_frames.append(std::move(m_current));
    m_current = WebSocketFrame();
    m_payloadLength = 0;
    m_stage = Stage::Header;
}

WebSocketFrame WebSocketFrameReader::read()
{
    WebSocketFrame frame = m_frames.takeFirst();
    m_framesSize -= frame.payload.size();
    return frame;
}

qsizetype WebSocketFrameReader::bufferedSize() const
{
    return m_framesSize + m_current.payload.size() + m_headerSize;
}

void WebSocketFrameReader::clear()
{
    *this = WebSocketFrameReader(m_masking, m_maxFrameSize, m_maxMessageSize);
}

void WebSocketFrameReader::setError(QWebSocketProtocol::CloseCode code, const QString& text)
{
    m_closeCode = code;
    m_errorString = text;
    m_current = WebSocketFrame();
    m_headerSize = 0;
}
