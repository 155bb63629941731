#include "network/websocketframe.h"

#include <QTest>

using Op = WebSocketFrame::OpCode;
using Masking = WebSocketFrameReader::Masking;

namespace {

constexpr quint32 KEY = 0x37FA213D;

QByteArray frame(Op op, const QByteArray& payload, bool fin = true, bool masked = false)
{
    return masked ? WebSocketFrame::encodeMasked(op, payload, KEY, fin)
                  : WebSocketFrame::encode(op, payload, fin);
}

QByteArray pattern(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char((i * 7 + i / 251) & 0xFF);
    return data;
}

// Expected frames as "opcode/message opcode/fin:payload", so a failing row prints readably.
QString describe(const WebSocketFrame& f)
{
    return QStringLiteral("%1/%2/%3:%4")
        .arg(int(f.opCode))
        .arg(int(f.messageOpCode))
        .arg(f.isFinal)
        .arg(QString::fromLatin1(f.payload.size() > 40 ? QByteArray::number(qHash(f.payload))
                                                       : f.payload.toHex()));
}

QString expect(Op op, Op messageOp, bool fin, const QByteArray& payload)
{
    WebSocketFrame f;
    f.opCode = op;
    f.messageOpCode = messageOp;
    f.isFinal = fin;
    f.payload = payload;
    return describe(f);
}

QStringList feed(WebSocketFrameReader& reader, const QList<QByteArray>& chunks)
{
    QStringList out;
    for (const QByteArray& chunk : chunks) {
        reader.append(chunk);
        while (reader.frameAvailable())
            out << describe(reader.read());
    }
    return out;
}

} // namespace

class TestWebSocketFrame : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reader_data()
    {
        QTest::addColumn<QByteArray>("stream");
        QTest::addColumn<int>("masking");
        QTest::addColumn<qint64>("maxSize");
        QTest::addColumn<QStringList>("frames");
        QTest::addColumn<int>("closeCode"); // 1000: no error

        const qint64 noLimit = WebSocketFrameReader::DEFAULT_MAX_FRAME_SIZE;
        const QByteArray small("hello");
        const QByteArray mid = pattern(300);
        const QByteArray big = pattern(70000);
        const int ok = QWebSocketProtocol::CloseCodeNormal;
        const int protocol = QWebSocketProtocol::CloseCodeProtocolError;
        const int tooMuch = QWebSocketProtocol::CloseCodeTooMuchData;

        // Masked, so that the key is read after each length encoding; unmasked frames of each
        // length pass in the rows below.
        QTest::newRow("16-bit length text")
            << frame(Op::Text, mid, true, true) << int(Masking::Any) << noLimit
            << QStringList { expect(Op::Text, Op::Text, true, mid) } << ok;
        QTest::newRow("64-bit length binary")
            << frame(Op::Binary, big, true, true) << int(Masking::Any) << noLimit
            << QStringList { expect(Op::Binary, Op::Binary, true, big) } << ok;
        QTest::newRow("fragments with ping and pong between")
            << frame(Op::Binary, "ab", false, true) + frame(Op::Ping, "p", true, true)
                + frame(Op::Continuation, mid, false, true) + frame(Op::Pong, "", true, true)
                + frame(Op::Continuation, "z", true, true) + frame(Op::Text, "", true, true)
            << int(Masking::Any) << noLimit << QStringList { expect(Op::Binary, Op::Binary, false, "ab"),
                                                             expect(Op::Ping, Op::Ping, true, "p"),
                                                             expect(Op::Continuation, Op::Binary, false, mid),
                                                             expect(Op::Pong, Op::Pong, true, ""),
                                                             expect(Op::Continuation, Op::Binary, true, "z"),
                                                             expect(Op::Text, Op::Text, true, "") }
            << ok;
        QTest::newRow("header alone, then its payload")
            << WebSocketFrame::encodeHeader(Op::Binary, quint64(big.size())) + big << int(Masking::Unmasked)
            << noLimit << QStringList { expect(Op::Binary, Op::Binary, true, big) } << ok;
        const QString first = expect(Op::Binary, Op::Binary, true, small);
        const QByteArray good = frame(Op::Binary, small);
        // A stream refused with a protocol error before its first frame.
        const auto refused = [&](const char* name, const QByteArray& stream, Masking masking = Masking::Any) {
            QTest::newRow(name) << stream << int(masking) << noLimit << QStringList() << protocol;
        };
        QTest::newRow("reserved bit after a good frame")
            << good + QByteArray::fromHex("c200") << int(Masking::Any) << noLimit << QStringList { first }
            << protocol;
        refused("reserved opcode 0x3", QByteArray::fromHex("8300"));
        refused("ping longer than 125", frame(Op::Ping, pattern(126)));
        refused("fragmented ping", frame(Op::Ping, "x", false));
        refused("close with one byte", QByteArray::fromHex("880103"));
        refused("continuation outside a message", frame(Op::Continuation, "x"));
        QTest::newRow("new message inside a fragmented one")
            << frame(Op::Binary, "a", false) + frame(Op::Text, "b") << int(Masking::Any) << noLimit
            << QStringList { expect(Op::Binary, Op::Binary, false, "a") } << protocol;
        refused("length 5 written in 16 bits", QByteArray::fromHex("827e0005") + small);
        refused("64-bit length with the top bit", QByteArray::fromHex("827f8000000000000001"));
        refused("masked frame from a server", frame(Op::Binary, small, true, true), Masking::Unmasked);
        refused("unmasked frame from a client", frame(Op::Binary, small), Masking::Masked);
        // Only the header arrives: the limit must be applied before any payload is awaited.
        QTest::newRow("frame over 16 MiB refused at its header")
            << good + QByteArray::fromHex("827f0000000001000001") << int(Masking::Any) << noLimit
            << QStringList { first } << tooMuch;
        QTest::newRow("fragments adding up over the message limit")
            << frame(Op::Binary, pattern(100), false) + frame(Op::Continuation, pattern(100))
            << int(Masking::Any) << qint64(150)
            << QStringList { expect(Op::Binary, Op::Binary, false, pattern(100)) } << tooMuch;
        QTest::newRow("frames at the limit pass")
            << frame(Op::Binary, pattern(150)) << int(Masking::Any) << qint64(150)
            << QStringList { expect(Op::Binary, Op::Binary, true, pattern(150)) } << ok;
    }

    void reader()
    {
        QFETCH(QByteArray, stream);
        QFETCH(int, masking);
        QFETCH(qint64, maxSize);
        QFETCH(QStringList, frames);
        QFETCH(int, closeCode);

        const auto check = [&](const QList<QByteArray>& chunks, const char* how) {
            WebSocketFrameReader reader(Masking(masking), maxSize, maxSize);
            const QStringList got = feed(reader, chunks);
            if (got != frames || int(reader.errorCloseCode()) != closeCode) {
                qWarning() << how << got << reader.errorCloseCode() << reader.errorString();
                return false;
            }
            return closeCode == QWebSocketProtocol::CloseCodeNormal ? reader.bufferedSize() == 0 : true;
        };
        QVERIFY(check({ stream }, "whole"));
        QList<QByteArray> bytes;
        for (qsizetype i = 0; i < stream.size(); ++i)
            bytes << stream.mid(i, 1);
        QVERIFY(check(bytes, "byte by byte"));
        // Every cut through the headers and the first payload bytes.
        for (qsizetype cut = 1; cut < qMin<qsizetype>(stream.size(), 160); ++cut)
            QVERIFY2(check({ stream.left(cut), stream.mid(cut) }, "split"),
                     QByteArray::number(cut).constData());
    }

    void closePayload()
    {
        const QString longReason = QString(70, QChar(0x00E9)); // 140 bytes of UTF-8
        WebSocketFrame close;
        close.opCode = Op::Close;
        close.payload = WebSocketFrame::closePayload(QWebSocketProtocol::CloseCodeTooMuchData, longReason);
        QVERIFY(close.payload.size() <= 125);
        QCOMPARE(close.closeCode(), QWebSocketProtocol::CloseCodeTooMuchData);
        QVERIFY(longReason.startsWith(close.closeReason()));
        QCOMPARE(close.closeReason().size(), 61);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketFrame)
#include "tst_websocketframe.moc"
