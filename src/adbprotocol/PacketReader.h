#pragma once

#include "AdbPacket.h"

#include <QByteArray>

// Reassembles whole ADB messages from a byte stream cut anywhere. Fed with append(), then
// drained with `while (packetAvailable()) read();`. Consumed bytes are skipped with an offset
// and compacted once per append, so draining a chunk of many small messages stays linear.
//
// Memory bound: ADB never sends a payload larger than MAX_PAYLOAD (adb.h; peers negotiate
// lower in CNXN). A header announcing more cannot be resynchronised past, so the reader turns
// corrupted: it stops producing packets and discards further input. It therefore holds at most
// one incomplete message (24 + MAX_PAYLOAD bytes) plus the undrained part of the last chunk.
class PacketReader
{
public:
    static constexpr quint32 MAX_PAYLOAD = 1024 * 1024;

    void append(const QByteArray& data);
    bool packetAvailable() const;
    // Only call when packetAvailable() is true.
    AdbPacket read();

    // A header announced more than MAX_PAYLOAD bytes; the stream is unusable until clear().
    bool isCorrupted() const { return m_corrupted; }
    // data_length of the offending header, for the error message.
    quint32 corruptLength() const { return m_corruptLength; }
    // Bytes received and not yet read.
    qsizetype bufferedSize() const { return m_buffer.size() - m_offset; }
    void clear();

private:
    void checkHeader();

    QByteArray m_buffer;
    qsizetype m_offset = 0;
    bool m_corrupted = false;
    quint32 m_corruptLength = 0;
};
