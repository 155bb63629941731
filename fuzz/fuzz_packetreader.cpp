// Arbitrary bytes, cut into arbitrary chunks, through the ADB packet reader. The first input
// byte picks the chunk sizes; the rest is the stream.
#include "adbprotocol/PacketReader.h"
#include "fuzzsupport.h"

#include <QtEndian>

using FuzzSupport::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::Input input(data, size);
    const uint8_t chunkSeed = input.byte();
    const QByteArray stream = input.bytes(input.remaining());

    PacketReader reader;
    QByteArray consumed;
    qsizetype fed = 0;
    int round = 0;
    while (fed < stream.size() && !reader.isCorrupted()) {
        const qsizetype chunk = 1 + ((chunkSeed + 7 * round++) % 61);
        reader.append(stream.mid(fed, chunk));
        fed += qMin(chunk, stream.size() - fed);
        while (reader.packetAvailable()) {
            const AdbPacket packet = reader.read();
            check(packet.size() >= AdbPacket::HEADER_SIZE, "packet shorter than a header");
            check(quint32(packet.size() - AdbPacket::HEADER_SIZE) == packet.dataLength(),
                  "packet size differs from its announced length");
            check(packet.dataLength() <= PacketReader::MAX_PAYLOAD, "oversized packet let through");
            consumed += packet.toByteArray();
        }
        check(reader.bufferedSize() <= AdbPacket::HEADER_SIZE + qsizetype(PacketReader::MAX_PAYLOAD) + 61,
              "reader holds more than one message and a chunk");
    }

    // Whatever came out is the stream itself, in order, with nothing skipped.
    check(stream.startsWith(consumed), "packets are not the stream's own bytes");
    if (reader.isCorrupted()) {
        const qsizetype at = consumed.size();
        check(stream.size() >= at + AdbPacket::HEADER_SIZE, "corrupted without a whole header");
        const quint32 length = qFromLittleEndian<quint32>(stream.constData() + at + 12);
        check(length > PacketReader::MAX_PAYLOAD && length == reader.corruptLength(),
              "corrupted on an acceptable header");
    } else {
        check(consumed.size() + reader.bufferedSize() == stream.size(), "bytes lost or invented");
    }
    return 0;
}
