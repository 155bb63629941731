// The daemon's local socket: arbitrary bytes, in arbitrary pieces, through the frame reader,
// and the same bytes sent by a real client to a real SingleInstanceServer. The server must
// answer a whole valid frame with one reply frame, drop anything else, and never crash.
#include "fuzzsupport.h"
#include "singleinstance/singleinstanceserver.h"
#include "singleinstance/singleinstanceutils.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QtEndian>

using FuzzSupport::check;
using SingleInstanceUtils::FrameReader;

namespace {

SingleInstanceServer* server()
{
    static QTemporaryDir directory;
    static SingleInstanceServer* instance = [] {
        auto* s = new SingleInstanceServer(QStringLiteral("kbfuzz"), directory.path());
        check(s->listen(), "local server does not listen");
        // Echo, so that whatever the request held travels back through the reply encoder.
        s->setMessageHandlerFunction([](const QVariantMap& message) { return QVariant(message); });
        return s;
    }();
    return instance;
}

} // namespace

namespace {

// The daemon runs exec(), where deleteLater() takes effect; this loop only spins processEvents(),
// where it never does, so the server's finished sockets (each with its request timer) would pile
// up and slow every later input down.
struct DeferredDeletes
{
    ~DeferredDeletes() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::application();
    const DeferredDeletes flush;
    FuzzSupport::Input input(data, size);
    const uint8_t chunkSeed = input.byte();
    const QByteArray bytes = input.bytes(input.remaining());

    FrameReader reader;
    qsizetype fed = 0;
    for (int round = 0; fed < bytes.size() && reader.status() == FrameReader::NeedMore; ++round) {
        const qsizetype chunk = 1 + (chunkSeed + 13 * round) % 37;
        reader.feed(bytes.mid(fed, chunk));
        fed += chunk;
    }
    if (reader.status() == FrameReader::Complete) {
        const QByteArray encoded = SingleInstanceUtils::encodeFrame(reader.payload());
        check(encoded == bytes.left(encoded.size()), "a complete frame does not re-encode to the bytes read");
    } else if (reader.status() == FrameReader::Invalid) {
        check(!reader.errorString().isEmpty(), "invalid frame without a reason");
    }
    // The server may read the input in any pieces: a whole frame at the front may be answered
    // even when more bytes follow it.
    FrameReader whole;
    const FrameReader::Status status = whole.feed(bytes);
    FrameReader front;
    front.feed(bytes.left(8));
    const qint64 announced = bytes.size() >= 8 ? qint64(qFromBigEndian<qint32>(bytes.constData())) : 0;
    if (announced >= 4)
        front.feed(bytes.mid(8, announced - 4));
    const bool frontFrame = front.status() == FrameReader::Complete;

    QLocalSocket client;
    client.connectToServer(server()->serverName());
    check(client.waitForConnected(5000), "cannot reach the local server");
    client.write(bytes);
    client.flush();
    if (status == FrameReader::NeedMore) {
        // The server waits for the rest; hanging up must be enough for it to let go.
        client.disconnectFromServer();
        QCoreApplication::processEvents();
        return 0;
    }
    QByteArray reply;
    while (client.state() == QLocalSocket::ConnectedState) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        reply += client.readAll();
    }
    reply += client.readAll();
    if (reply.isEmpty())
        return 0;
    check(frontFrame, "a reply without a whole frame");
    FrameReader replyReader;
    check(replyReader.feed(reply) == FrameReader::Complete, "reply is not one whole frame");
    const QJsonDocument document = QJsonDocument::fromJson(replyReader.payload());
    check(document.isObject() && document.object().contains(QLatin1String("reply")),
          "reply frame without a reply");
    const QJsonDocument request = QJsonDocument::fromJson(front.payload());
    check(request.isObject(), "a reply to a request that is not a JSON object");
    return 0;
}
