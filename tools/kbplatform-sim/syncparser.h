#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

constexpr quint32 syncId(const char (&name)[5])
{
    return quint32(quint8(name[0])) | quint32(quint8(name[1])) << 8 | quint32(quint8(name[2])) << 16
        | quint32(quint8(name[3])) << 24;
}

// Cuts the host side of an ADB "sync:" stream (SYNC.TXT) into requests. A value fed bytes; it
// holds at most one incomplete request, whose size the limits below bound.
class SyncParser
{
public:
    static constexpr quint32 MAX_PATH = 1024;
    static constexpr quint32 MAX_DATA = 64 * 1024;

    static constexpr quint32 STAT = syncId("STAT");
    static constexpr quint32 LIST = syncId("LIST");
    static constexpr quint32 SEND = syncId("SEND");
    static constexpr quint32 RECV = syncId("RECV");
    static constexpr quint32 DATA = syncId("DATA");
    static constexpr quint32 DONE = syncId("DONE");
    static constexpr quint32 OKAY = syncId("OKAY");
    static constexpr quint32 FAIL = syncId("FAIL");
    static constexpr quint32 QUIT = syncId("QUIT");
    static constexpr quint32 DENT = syncId("DENT");
    // stat_v2 and ls_v2: 64-bit sizes and times.
    static constexpr quint32 STA2 = syncId("STA2");
    static constexpr quint32 LST2 = syncId("LST2");
    static constexpr quint32 LIS2 = syncId("LIS2");
    static constexpr quint32 DNT2 = syncId("DNT2");

    struct Request
    {
        quint32 id;
        quint32 length; // for DONE: the modification time
        QByteArray data; // the path, or for DATA the file bytes
    };

    void feed(const QByteArray& bytes);
    // The next complete request, if any; none once failed.
    std::optional<Request> next();
    bool hasFailed() const { return !m_error.isEmpty(); }
    QString errorString() const { return m_error; }
    qsizetype bufferedSize() const { return m_buffer.size() - m_offset; }

    // Reply encoders.
    static QByteArray header(quint32 id, quint32 length);
    static QByteArray fail(const QString& message);

private:
    QByteArray m_buffer;
    qsizetype m_offset = 0;
    QString m_error;
};
