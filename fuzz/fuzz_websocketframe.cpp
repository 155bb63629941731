// Arbitrary bytes through the WebSocket frame reader, once whole and once cut into chunks. The
// first input byte picks the chunk sizes, the second the masking the reader expects and whether
// it runs with small limits; the rest is the stream.
#include "fuzzsupport.h"
#include "network/websocketframe.h"

using FuzzSupport::check;
using Masking = WebSocketFrameReader::Masking;

namespace {

struct Run
{
    QList<WebSocketFrame> frames;
    QWebSocketProtocol::CloseCode closeCode;
};

Run parse(const QByteArray& stream, uint8_t chunkSeed, Masking masking, qint64 limit)
{
    WebSocketFrameReader reader(masking, limit, limit);
    Run run;
    qsizetype fed = 0;
    int round = 0;
    qint64 messageSize = 0;
    bool inMessage = false;
    while (fed < stream.size()) {
        const qsizetype chunk = chunkSeed ? 1 + ((chunkSeed + 7 * round++) % 97) : stream.size();
        reader.append(stream.mid(fed, chunk));
        fed += qMin(chunk, stream.size() - fed);
        check(reader.bufferedSize() <= limit + chunk + 14, "reader holds more than a frame and a chunk");
        while (reader.frameAvailable()) {
            const WebSocketFrame frame = reader.read();
            check(frame.payload.size() <= limit, "oversized frame let through");
            if (frame.isControl()) {
                check(frame.isFinal && frame.payload.size() <= 125, "bad control frame let through");
                check(frame.opCode != WebSocketFrame::Close || frame.payload.size() != 1,
                      "1-byte close let through");
            } else {
                check((frame.opCode == WebSocketFrame::Continuation) == inMessage, "fragment out of order");
                messageSize = (inMessage ? messageSize : 0) + frame.payload.size();
                check(messageSize <= limit, "oversized message let through");
                inMessage = !frame.isFinal;
            }
            check(masking == Masking::Any || frame.isMasked == (masking == Masking::Masked),
                  "masking not checked");
            run.frames.append(frame);
        }
    }
    run.closeCode = reader.errorCloseCode();
    return run;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::Input input(data, size);
    const uint8_t chunkSeed = input.byte();
    const uint8_t mode = input.byte();
    const QByteArray stream = input.bytes(input.remaining());
    const Masking masking = Masking(mode % 3);
    const qint64 limit = (mode & 0x80) ? 300 : WebSocketFrameReader::DEFAULT_MAX_FRAME_SIZE;

    const Run whole = parse(stream, 0, masking, limit);
    const Run chunked = parse(stream, chunkSeed | 1, masking, limit);
    check(whole.closeCode == chunked.closeCode, "the cut changed the verdict");
    check(whole.frames.size() == chunked.frames.size(), "the cut changed the frames");
    QByteArray reencoded;
    for (qsizetype i = 0; i < whole.frames.size(); ++i) {
        const WebSocketFrame& a = whole.frames.at(i);
        const WebSocketFrame& b = chunked.frames.at(i);
        check(a.opCode == b.opCode && a.isFinal == b.isFinal && a.payload == b.payload,
              "the cut changed a frame");
        reencoded += WebSocketFrame::encode(a.opCode, a.payload, a.isFinal);
    }
    // Lengths must be minimally encoded, so unmasked frames re-encode to the bytes they came from.
    if (masking == Masking::Unmasked)
        check(stream.startsWith(reencoded), "frames are not the stream's own bytes");
    return 0;
}
