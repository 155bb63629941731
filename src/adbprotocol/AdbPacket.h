#pragma once

#include <QByteArray>
#include <QtGlobal>

// The ADB message header (ADB protocol.txt). Words are in host byte order, which is little-endian
// on every platform we build for.
struct amessage
{
    quint32 command; // four ASCII letters read as a little-endian word
    quint32 arg0; // for OPEN/WRTE/OKAY/CLSE: the sender's stream id
    quint32 arg1; // for WRTE/OKAY/CLSE: the receiver's stream id
    quint32 data_length; // payload bytes following the header
    quint32 data_check; // checksum of the payload
    quint32 magic; // ~command
};
static_assert(sizeof(amessage) == 24, "the ADB header is six 32-bit words");

// One whole ADB message (header + payload) in a single shared, copy-on-write buffer, so that
// forwarding a message hands over the buffer instead of re-serialising it.
class AdbPacket
{
public:
    enum Command : quint32 {
        SYNC = 0x434E5953,
        CNXN = 0x4E584E43,
        AUTH = 0x48545541,
        OPEN = 0x4E45504F,
        OKAY = 0x59414B4F,
        CLSE = 0x45534C43,
        WRTE = 0x45545257,
        STLS = 0x534C5453,
    };

    static constexpr int HEADER_SIZE = int(sizeof(amessage));
    static constexpr int DEFAULT_PAYLOAD_ROOM = 256 * 1024;

    // A zero-filled header with 256 KiB of payload room.
    AdbPacket();
    // Copies the bytes verbatim; nothing is checked.
    AdbPacket(const char* data, int size);
    // Builds a message: data_length, data_check and magic are computed from the arguments.
    AdbPacket(unsigned command, unsigned arg0, unsigned arg1, const QByteArray& payload);
    // Adopts an existing buffer holding exactly one message (shared, not copied).
    static AdbPacket fromByteArray(const QByteArray& message);

    AdbPacket(const AdbPacket&) = default;
    AdbPacket& operator=(const AdbPacket&) = default;
    AdbPacket(AdbPacket&&) noexcept = default;
    AdbPacket& operator=(AdbPacket&&) noexcept = default;

    // The whole message, sharing the buffer.
    QByteArray toByteArray() const { return m_data; }
    // Detaches the buffer, then gives a writable view of the header.
    amessage* getMessage();
    // Header fields read in place, without detaching.
    quint32 command() const { return word(0); }
    quint32 arg0() const { return word(1); }
    quint32 arg1() const { return word(2); }
    quint32 dataLength() const { return word(3); }
    quint32 dataCheck() const { return word(4); }
    quint32 magic() const { return word(5); }
    const char* getPayload() const;
    int size() const { return int(m_data.size()); }

    // Sum of the payload bytes taken as signed 8-bit values, modulo 2^32.
    static quint32 checksum(const char* data, qsizetype size);
    // Header words of a raw message; 0 where the message is too short.
    static quint32 headerWord(const QByteArray& message, int index);

private:
    explicit AdbPacket(QByteArray data);
    quint32 word(int index) const { return headerWord(m_data, index); }

    QByteArray m_data;
};
