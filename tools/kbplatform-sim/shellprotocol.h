#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// ADB's shell protocol (shell_protocol.h): both directions of a "shell,v2" stream are packets of
// a one-byte id, a 32-bit little-endian length and the data. A value fed the host's bytes.
class ShellProtocol
{
public:
    enum Id : quint8 {
        Stdin = 0,
        Stdout = 1,
        Stderr = 2,
        Exit = 3,
        CloseStdin = 4,
        WindowSizeChange = 5,
        Invalid = 255,
    };
    // Hosts send at most their buffer's worth (a few KiB to 256 KiB) per packet.
    static constexpr quint32 MAX_PACKET = 1024 * 1024;

    struct Packet
    {
        quint8 id;
        QByteArray data;
    };

    void feed(const QByteArray& bytes);
    // The next complete packet, if any; none once failed.
    std::optional<Packet> next();
    bool hasFailed() const { return !m_error.isEmpty(); }
    QString errorString() const { return m_error; }

    static QByteArray encode(Id id, const QByteArray& data);

private:
    QByteArray m_buffer;
    QString m_error;
};

// What the host asks for in "shell[,arg...]:command" (services.txt, shell_protocol.h): the
// arguments pick the shell protocol ("v2"), a terminal ("pty") or none ("raw"), and TERM.
struct ShellRequest
{
    bool shellProtocol = false;
    bool pty = false;
    QString term;
    QString command;

    // Without "pty" or "raw", a command runs raw and an empty one (interactive) gets a terminal.
    static std::optional<ShellRequest> parse(const QByteArray& service);
};

// "rowsxcols,xpixelsxypixels", the payload of a window size change.
struct WindowSize
{
    int rows = 0;
    int cols = 0;
    int xPixels = 0;
    int yPixels = 0;

    static std::optional<WindowSize> parse(const QByteArray& text);
};
