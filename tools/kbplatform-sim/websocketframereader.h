#pragma once

#include <QByteArray>
#include <QString>

#include <deque>

// The server's side of RFC 6455 framing: a value fed the client's bytes, giving back whole
// messages and control frames, with no I/O of its own. Frames and reassembled messages are
// bounded: a header announcing more than the limit fails at once, before any payload is held.
class WebSocketFrameReader
{
public:
    enum class Opcode : quint8 {
        Continuation = 0x0,
        Text = 0x1,
        Binary = 0x2,
        Close = 0x8,
        Ping = 0x9,
        Pong = 0xA
    };
    struct Event
    {
        Opcode opcode = Opcode::Binary; // Text or Binary for a whole message, else the control frame's
        QByteArray payload; // a close frame's payload still holds its code
    };

    static constexpr qint64 DEFAULT_LIMIT = 16 * 1024 * 1024;

    explicit WebSocketFrameReader(qint64 limit = DEFAULT_LIMIT)
        : m_limit(limit)
    { }

    void feed(const QByteArray& bytes);
    bool hasEvent() const { return !m_events.empty(); }
    Event takeEvent();

    bool hasFailed() const { return m_failCode != 0; }
    // The close code to answer a failure with: 1002 (protocol error) or 1009 (too big).
    int failCode() const { return m_failCode; }
    QString errorString() const { return m_error; }

    // Bytes held for a frame not yet complete.
    qint64 bufferedBytes() const { return m_buffer.size() - m_offset + m_message.size(); }

private:
    bool parseFrame();
    void fail(int code, const QString& error);

    qint64 m_limit;
    QByteArray m_buffer;
    qsizetype m_offset = 0;
    QByteArray m_message; // fragments of the data message under way
    bool m_inMessage = false;
    Opcode m_messageOpcode = Opcode::Binary;
    std::deque<Event> m_events;
    int m_failCode = 0;
    QString m_error;
};

// One unmasked frame, as a server sends it (RFC 6455 5.1: a server never masks).
QByteArray encodeWebSocketFrame(WebSocketFrameReader::Opcode opcode, const QByteArray& payload,
                                bool fin = true);
// The header alone of such a frame, announcing `length` payload bytes.
QByteArray encodeWebSocketHeader(WebSocketFrameReader::Opcode opcode, quint64 length, bool fin = true);
// A close frame's payload: the code in network order, then the UTF-8 reason cut to fit 125 bytes.
QByteArray webSocketClosePayload(int code, const QString& reason);
