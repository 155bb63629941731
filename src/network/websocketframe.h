#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QWebSocketProtocol>

// One RFC 6455 frame, its payload already unmasked.
struct WebSocketFrame
{
    // rfc6455 5.2: opcodes 0x3-0x7 and 0xB-0xF are reserved and never reach a WebSocketFrame.
    enum OpCode : quint8 {
        Continuation = 0x0,
        Text = 0x1,
        Binary = 0x2,
        Close = 0x8,
        Ping = 0x9,
        Pong = 0xA,
    };

    OpCode opCode = Binary;
    // The opcode of the message a data frame belongs to (Text or Binary, also for its
    // continuation frames); for control frames their own opcode.
    OpCode messageOpCode = Binary;
    bool isFinal = true;
    bool isMasked = false;
    QByteArray payload;

    bool isControl() const { return (opCode & 0x8) != 0; }
    // For Close frames (rfc6455 5.5.1): the status code, CloseCodeNormal when the payload carries
    // none (the peer is then answered with an empty Close), and the UTF-8 reason.
    QWebSocketProtocol::CloseCode closeCode() const;
    quint16 closeCodeValue() const; // the same as a number, for codes the enumeration does not name
    QString closeReason() const;

    // The frame's bytes on the wire. A client masks everything it sends with a fresh key
    // (rfc6455 5.3), a server never masks.
    static QByteArray encode(OpCode opCode, const QByteArray& payload, bool isFinal = true);
    static QByteArray encodeMasked(OpCode opCode, const QByteArray& payload, quint32 maskKey,
                                   bool isFinal = true);
    // The header alone, announcing length payload bytes that the caller writes after it (masked
    // with maskKey when masked): for payloads produced in pieces, or never produced at all.
    static QByteArray encodeHeader(OpCode opCode, quint64 length, bool isFinal = true, bool masked = false,
                                   quint32 maskKey = 0);
    // A Close payload: the code in network order, then the reason cut to fit a control frame.
    static QByteArray closePayload(QWebSocketProtocol::CloseCode code, const QString& reason);
    // XORs size bytes of src into dst with the key as it stands on the wire, starting at
    // payload position offset; word-wide, so unmasking a bulk payload costs one pass.
    // dst may equal src.
    static void applyMask(char* dst, const char* src, qsizetype size, quint32 maskKey, quint64 offset = 0);
};

// Reassembles RFC 6455 frames from a byte stream cut anywhere. Fed with append(), then drained
// with `while (frameAvailable()) read();`, as PacketReader is. Checks each frame (reserved bits,
// opcodes, control-frame rules, the masking the caller expects, minimal length encoding) and the
// order of frames within a fragmented message (control frames may come between its fragments).
//
// Memory bound: a frame or a message announcing more than the limits is refused as soon as its
// header arrives, so the reader holds at most one frame's payload plus the parsed frames of the
// last chunk appended; the payload grows with the bytes that arrive, never ahead of them. After
// an error the reader produces nothing more, and discards further input; the frames parsed
// before the offending one are still delivered.
class WebSocketFrameReader
{
public:
    static constexpr qint64 DEFAULT_MAX_FRAME_SIZE = 16 * 1024 * 1024;
    static constexpr qint64 DEFAULT_MAX_MESSAGE_SIZE = 16 * 1024 * 1024;

    // rfc6455 5.1: frames from a client are masked, frames from a server are not.
    enum class Masking { Any, Masked, Unmasked };

    explicit WebSocketFrameReader(Masking masking = Masking::Any,
                                  qint64 maxFrameSize = DEFAULT_MAX_FRAME_SIZE,
                                  qint64 maxMessageSize = DEFAULT_MAX_MESSAGE_SIZE);

    void append(const QByteArray& data);
    void append(const char* data, qsizetype size);
    bool frameAvailable() const { return !m_frames.isEmpty(); }
    // Only call when frameAvailable() is true.
    WebSocketFrame read();

    // Set once the stream broke a rule; only meaningful when no frame is available any more.
    bool hasError() const { return m_closeCode != QWebSocketProtocol::CloseCodeNormal; }
    // The code to close with: CloseCodeProtocolError, or CloseCodeTooMuchData for the limits.
    QWebSocketProtocol::CloseCode errorCloseCode() const { return m_closeCode; }
    QString errorString() const { return m_errorString; }
    // Bytes held: parsed frames not yet read and the frame in progress.
    qsizetype bufferedSize() const;
    void clear();

private:
    enum class Stage { Header, Payload };

    qsizetype consumeHeader(const char* data, qsizetype size);
    bool checkHeader();
    void finishFrame();
    void setError(QWebSocketProtocol::CloseCode code, const QString& text);

    Masking m_masking;
    qint64 m_maxFrameSize;
    qint64 m_maxMessageSize;

    Stage m_stage = Stage::Header;
    char m_header[14] = {};
    int m_headerSize = 0;
    WebSocketFrame m_current;
    quint64 m_payloadLength = 0;
    quint32 m_maskKey = 0;

    bool m_inMessage = false;
    WebSocketFrame::OpCode m_messageOpCode = WebSocketFrame::Binary;
    qint64 m_messageSize = 0;

    QList<WebSocketFrame> m_frames;
    qsizetype m_framesSize = 0;
    QWebSocketProtocol::CloseCode m_closeCode = QWebSocketProtocol::CloseCodeNormal;
    QString m_errorString;
};
