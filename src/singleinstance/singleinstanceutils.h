#pragma once

#include <QByteArray>
#include <QString>

class QLocalSocket;

// Naming and framing shared by both ends of the single-instance channel.
// A frame is a Qt data-stream QByteArray (quint32 length + bytes) preceded by a qint32 that
// counts everything after itself, so a reader knows how much to wait for.
namespace SingleInstanceUtils {

QString createSocketName(const QString& name);
QByteArray encodeFrame(const QByteArray& payload);
bool writeMessage(QLocalSocket* socket, const QByteArray& payload);
// Blocks, pumping events, until a whole frame has arrived; an empty result means the peer
// went away or sent something that cannot be a frame.
QByteArray readMessage(QLocalSocket* socket);

// Frames bigger than this are refused: requests and replies are small JSON documents.
constexpr qint32 MAX_FRAME_SIZE = 16 * 1024 * 1024;

// Cuts one frame out of bytes as they arrive, without touching the socket, so the daemon
// never has to block inside a readyRead handler.
class FrameReader
{
public:
    enum Status { NeedMore, Complete, Invalid };

    Status feed(const QByteArray& bytes);
    Status status() const { return m_status; }
    QByteArray payload() const;
    QString errorString() const { return m_error; }

private:
    QByteArray m_buffer;
    Status m_status = NeedMore;
    QString m_error;
};

} // namespace SingleInstanceUtils
