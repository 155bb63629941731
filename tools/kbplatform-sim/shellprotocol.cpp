#include "shellprotocol.h"

#include <QtEndian>

namespace {

constexpr qsizetype HEADER = 5;

} // namespace

void ShellProtocol::feed(const QByteArray& bytes)
{
    if (!hasFailed())
        m_buffer.append(bytes);
}

std::optional<ShellProtocol::Packet> ShellProtocol::next()
{
    if (hasFailed() || m_buffer.size() < HEADER)
        return std::nullopt;
    const quint32 length = qFromLittleEndian<quint32>(m_buffer.constData() + 1);
    if (length > MAX_PACKET) {
        m_error = QStringLiteral("shell packet of %1 bytes").arg(length);
        m_buffer.clear();
        return std::nullopt;
    }
    if (m_buffer.size() < HEADER + qsizetype(length))
        return std::nullopt;
    Packet packet { quint8(m_buffer.at(0)), m_buffer.mid(HEADER, length) };
    m_buffer.remove(0, HEADER + length);
    return packet;
}

QByteArray ShellProtocol::encode(Id id, const QByteArray& data)
{
    QByteArray bytes(HEADER, Qt::Uninitialized);
    bytes[0] = char(id);
    qToLittleEndian(quint32(data.size()), bytes.data() + 1);
    return bytes + data;
}

std::optional<ShellRequest> ShellRequest::parse(const QByteArray& service)
{
    const qsizetype colon = service.indexOf(':');
    if (!service.startsWith("shell") || colon < 0)
        return std::nullopt;
    const QByteArray head = service.left(colon);
    if (head != "shell" && !head.startsWith("shell,"))
        return std::nullopt;
    ShellRequest request;
    request.command = QString::fromUtf8(service.mid(colon + 1));
    std::optional<bool> pty;
    for (const QByteArray& arg : head.split(',').mid(1)) {
        if (arg == "v2")
            request.shellProtocol = true;
        else if (arg == "pty")
            pty = true;
        else if (arg == "raw")
            pty = false;
        else if (arg.startsWith("TERM="))
            request.term = QString::fromUtf8(arg.mid(5));
        // Unknown arguments are ignored, as adbd does, so that newer hosts still get a shell.
    }
    request.pty = pty.value_or(request.command.trimmed().isEmpty());
    return request;
}

std::optional<WindowSize> WindowSize::parse(const QByteArray& text)
{
    WindowSize size;
    const QList<QByteArray> parts = text.split(',');
    if (parts.size() != 2)
        return std::nullopt;
    const QList<QByteArray> cells = parts.at(0).split('x');
    const QList<QByteArray> pixels = parts.at(1).split('x');
    if (cells.size() != 2 || pixels.size() != 2)
        return std::nullopt;
    bool ok[4] = {};
    size.rows = cells.at(0).toInt(&ok[0]);
    size.cols = cells.at(1).toInt(&ok[1]);
    size.xPixels = pixels.at(0).toInt(&ok[2]);
    size.yPixels = pixels.at(1).toInt(&ok[3]);
    for (const bool good : ok) {
        if (!good)
            return std::nullopt;
    }
    if (size.rows < 0 || size.cols < 0 || size.rows > 0xffff || size.cols > 0xffff)
        return std::nullopt;
    return size;
}
