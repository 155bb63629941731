#include "syncparser.h"

#include <QtEndian>

void SyncParser::feed(const QByteArray& bytes)
{
    if (hasFailed())
        return;
    if (m_offset > 0) {
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
    m_buffer.append(bytes);
}

std::optional<SyncParser::Request> SyncParser::next()
{
    if (hasFailed() || m_buffer.size() - m_offset < 8)
        return std::nullopt;
    const char* head = m_buffer.constData() + m_offset;
    Request request { qFromLittleEndian<quint32>(head), qFromLittleEndian<quint32>(head + 4), {} };
    quint32 payload = 0;
    switch (request.id) {
    case STAT:
    case LIST:
    case SEND:
    case RECV:
    case STA2:
    case LST2:
    case LIS2:
        if (request.length > MAX_PATH) {
            m_error = QStringLiteral("path too long (%1 bytes)").arg(request.length);
            return std::nullopt;
        }
        payload = request.length;
        break;
    case DATA:
        if (request.length > MAX_DATA) {
            m_error = QStringLiteral("DATA chunk too large (%1 bytes)").arg(request.length);
            return std::nullopt;
        }
        payload = request.length;
        break;
    case DONE:
    case QUIT:
        break;
    default:
        m_error = QStringLiteral("unknown sync request 0x%1").arg(request.id, 8, 16, QLatin1Char('0'));
        return std::nullopt;
    }
    if (m_buffer.size() - m_offset < 8 + qsizetype(payload))
        return std::nullopt;
    request.data = m_buffer.mid(m_offset + 8, payload);
    m_offset += 8 + payload;
    if (m_offset == m_buffer.size()) {
        m_buffer.clear();
        m_offset = 0;
    }
    return request;
}

QByteArray SyncParser::header(quint32 id, quint32 length)
{
    QByteArray bytes(8, Qt::Uninitialized);
    qToLittleEndian(id, bytes.data());
    qToLittleEndian(length, bytes.data() + 4);
    return bytes;
}

QByteArray SyncParser::fail(const QString& message)
{
    const QByteArray text = message.toUtf8();
    return header(FAIL, quint32(text.size())) + text;
}
