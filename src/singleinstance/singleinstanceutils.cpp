#include "singleinstanceutils.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDataStream>
#include <QDebug>
#include <QElapsedTimer>
#include <QLocalSocket>
#include <QtEndian>

namespace SingleInstanceUtils {

QString createSocketName(const QString& name)
{
    return QString::fromLatin1(QCryptographicHash::hash(name.toLocal8Bit(), QCryptographicHash::Md5).toHex());
}

QByteArray encodeFrame(const QByteArray& payload)
{
    QByteArray frame;
    QBuffer buffer(&frame);
    buffer.open(QIODevice::WriteOnly);
    QDataStream stream(&buffer);
    stream << qint32(0) << payload;
    buffer.seek(0);
    stream << qint32(frame.size() - 4);
    return frame;
}

bool writeMessage(QLocalSocket* socket, const QByteArray& payload)
{
    const QByteArray frame = encodeFrame(payload);
    const qint64 written = socket->write(frame);
    socket->flush();
    return written == frame.size();
}

namespace {

// A peer that stops in the middle of a frame would otherwise keep us (and, on the daemon side,
// a nested event loop) waiting forever.
constexpr int STALL_TIMEOUT_MS = 30000;

// Waits until `count` bytes are buffered; false when the socket can no longer deliver them.
bool waitForBytes(QLocalSocket* socket, qint64 count)
{
    QElapsedTimer sinceProgress;
    sinceProgress.start();
    qint64 seen = socket->bytesAvailable();
    while (socket->bytesAvailable() < count) {
        if (socket->state() != QLocalSocket::ConnectedState) {
            // Whatever arrived before the close is still readable; nothing more will come.
            return socket->bytesAvailable() >= count;
        }
        if (sinceProgress.hasExpired(STALL_TIMEOUT_MS)) {
            qWarning() << "Local socket peer stalled in the middle of a frame - dropping the connection";
            socket->abort();
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
        socket->waitForReadyRead(10);
        if (socket->bytesAvailable() != seen) {
            seen = socket->bytesAvailable();
            sinceProgress.restart();
        }
    }
    return true;
}

} // namespace

QByteArray readMessage(QLocalSocket* socket)
{
    if (!waitForBytes(socket, 4))
        return {};
    QDataStream stream(socket);
    qint32 length = 0;
    stream >> length;
    if (length < 4 || length > MAX_FRAME_SIZE) {
        qWarning() << "Local socket frame with invalid length" << length << "- dropping the connection";
        socket->abort();
        return {};
    }
    if (!waitForBytes(socket, length))
        return {};
    QByteArray payload;
    stream >> payload;
    if (stream.status() != QDataStream::Ok || payload.size() != length - 4) {
        qWarning() << "Local socket frame is inconsistent - dropping the connection";
        socket->abort();
        return {};
    }
    return payload;
}

FrameReader::Status FrameReader::feed(const QByteArray& bytes)
{
    if (m_status != NeedMore)
        return m_status;
    m_buffer += bytes;
    if (m_buffer.size() < 8)
        return m_status;
    const qint32 length = qFromBigEndian<qint32>(m_buffer.constData());
    const quint32 payloadLength = qFromBigEndian<quint32>(m_buffer.constData() + 4);
    if (length < 4 || length > MAX_FRAME_SIZE || qint64(payloadLength) != qint64(length) - 4) {
        m_error = QStringLiteral("invalid frame header (length %1, payload length %2)")
                      .arg(length)
                      .arg(payloadLength);
        m_buffer.clear();
        return m_status = Invalid;
    }
    if (m_buffer.size() < 4 + length)
        return m_status;
    if (m_buffer.size() > 4 + length) {
        m_error = QStringLiteral("unexpected bytes after the frame");
        m_buffer.clear();
        return m_status = Invalid;
    }
    return m_status = Complete;
}

QByteArray FrameReader::payload() const
{
    return m_status == Complete ? m_buffer.mid(8) : QByteArray();
}

} // namespace SingleInstanceUtils
