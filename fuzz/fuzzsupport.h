#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Shared by the fuzz targets and by the regression replayer, which links the same targets.
namespace FuzzSupport {

// One application object per process. Log output is discarded (the inputs are meant to make
// the code complain), except that a failed signal connection or a fatal message still aborts,
// as it does in the daemon.
QCoreApplication* application();

// Stops the run with a message when an invariant does not hold; libFuzzer keeps the input.
[[noreturn]] void fail(const char* what);

inline void check(bool condition, const char* what)
{
    if (!condition)
        fail(what);
}

// Reads the input front to back; past the end every read yields zero.
class Input
{
public:
    Input(const uint8_t* data, size_t size)
        : m_data(data)
        , m_size(size)
    { }

    bool atEnd() const { return m_pos >= m_size; }
    size_t remaining() const { return m_size - m_pos; }
    uint8_t byte() { return atEnd() ? 0 : m_data[m_pos++]; }
    quint16 word() { return quint16(byte() | (byte() << 8)); }
    QByteArray bytes(size_t count)
    {
        const size_t n = count < remaining() ? count : remaining();
        const QByteArray out(reinterpret_cast<const char*>(m_data + m_pos), qsizetype(n));
        m_pos += n;
        return out;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

} // namespace FuzzSupport
