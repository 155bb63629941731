#include "shellservice.h"

#include <QCoreApplication>
#include <QDir>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr qint64 READ_CHUNK = 256 * 1024;
// QProcess reads its pipe without limit; past this much unread output the command is stopped.
constexpr qint64 MAX_UNREAD_OUTPUT = 4 * 1024 * 1024;
constexpr qint64 MAX_UNWRITTEN_INPUT = 1024 * 1024;
constexpr int INPUT_GRACE_MS = 5000;

} // namespace

ShellLaunch ShellLaunch::shell(const QString& command)
{
    ShellLaunch launch;
    // Without -c the shell reads its commands from the stream, and is interactive on a terminal.
    if (!command.trimmed().isEmpty())
        launch.arguments << QStringLiteral("-c") << command;
    return launch;
}

ShellService::ShellService(DeviceStreams* streams, quint32 localId, const DeviceProfile& profile,
                           const ShellLaunch& launch, QObject* parent)
    : DeviceService(streams, localId, parent)
    , m_profile(profile)
    , m_launch(launch)
{ }

ShellService::~ShellService()
{
    // Whatever still runs here is the device's teardown: no grace.
    m_finished = true;
    stop();
}

void ShellService::start()
{
    m_process = new QProcess(this);
    m_process->setWorkingDirectory(m_profile.sandboxDir);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), m_profile.sandboxDir);
    env.insert(QStringLiteral("ANDROID_ROOT"), m_profile.sandboxDir);
    env.insert(QStringLiteral("PATH"),
               m_profile.binDir + QLatin1Char(':') + env.value(QStringLiteral("PATH")));
    env.remove(QStringLiteral("ADB_SERVER_SOCKET"));
    if (!m_launch.term.isEmpty())
        env.insert(QStringLiteral("TERM"), m_launch.term);
    if (m_launch.pty)
        env.insert(QStringLiteral("PS1"), QStringLiteral("kbsim_x86_64:/ $ "));
    m_process->setProcessEnvironment(env);
    connect(m_process, &QProcess::finished, this, &ShellService::onFinished);
    connect(m_process, &QProcess::errorOccurred, this, &ShellService::onErrorOccurred);

    if (m_launch.pty) {
        int slave = -1;
        if (!openPty(&slave)) {
            deliver(ShellProtocol::Stderr, "cannot open a terminal: " + QByteArray(::strerror(errno)) + '\n');
            m_exitStatus = 1;
            m_exited = true;
            m_masterDrained = true;
            finishIfDone();
            return;
        }
        // The terminal replaces the pipes, and a session of its own makes it the controlling
        // terminal, so that Ctrl-C reaches the foreground job and stop() the whole session.
        m_process->setStandardInputFile(QProcess::nullDevice());
        m_process->setStandardOutputFile(QProcess::nullDevice());
        m_process->setStandardErrorFile(QProcess::nullDevice());
        m_process->setChildProcessModifier([slave] {
            ::setsid();
            ::ioctl(slave, TIOCSCTTY, 0);
            ::dup2(slave, STDIN_FILENO);
            ::dup2(slave, STDOUT_FILENO);
            ::dup2(slave, STDERR_FILENO);
        });
        m_process->start(m_launch.program, m_launch.arguments);
        ::close(slave);
        return;
    }

    // Without the shell protocol there is one stream for both outputs, as on a device.
    m_process->setProcessChannelMode(m_launch.shellProtocol ? QProcess::SeparateChannels
                                                            : QProcess::MergedChannels);
    // A group of its own, so that stop() reaches the command's children too.
    m_process->setChildProcessModifier([] { ::setpgid(0, 0); });
    connect(m_process, &QProcess::readyReadStandardOutput, this, &ShellService::onReadyRead);
    connect(m_process, &QProcess::readyReadStandardError, this, &ShellService::onReadyRead);
    connect(m_process, &QProcess::bytesWritten, this, &ShellService::onBytesWritten);
    m_process->start(m_launch.program, m_launch.arguments);
}

bool ShellService::openPty(int* slave)
{
    m_master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_master < 0)
        return false;
    const char* name = nullptr;
    if (::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0 || !(name = ::ptsname(m_master))) {
        ::close(std::exchange(m_master, -1));
        return false;
    }
    *slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (*slave < 0) {
        ::close(std::exchange(m_master, -1));
        return false;
    }
    ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
    const struct winsize size = { 24, 80, 0, 0 };
    ::ioctl(m_master, TIOCSWINSZ, &size);
    m_masterRead = new QSocketNotifier(m_master, QSocketNotifier::Read, this);
    m_masterWrite = new QSocketNotifier(m_master, QSocketNotifier::Write, this);
    m_masterWrite->setEnabled(false);
    connect(m_masterRead, &QSocketNotifier::activated, this, &ShellService::onPtyReadable);
    connect(m_masterWrite, &QSocketNotifier::activated, this, &ShellService::onPtyWritable);
    return true;
}

void ShellService::receive(const QByteArray& data)
{
    if (m_finished) {
        acknowledge();
        return;
    }
    if (!m_launch.shellProtocol) {
        takeInput(data);
    } else {
        m_input.feed(data);
        while (const auto packet = m_input.next()) {
            switch (packet->id) {
            case ShellProtocol::Stdin:
                takeInput(packet->data);
                break;
            case ShellProtocol::CloseStdin:
                closeInput();
                break;
            case ShellProtocol::WindowSizeChange:
                resize(packet->data);
                break;
            default:
                break; // shell_protocol.h: ids a side does not know are ignored
            }
        }
        if (m_input.hasFailed()) {
            qWarning() << "device: shell:" << m_input.errorString();
            finish(); // the service is deleted, and its command with it
            return;
        }
    }
    if (unwrittenInput() < MAX_UNWRITTEN_INPUT)
        acknowledge();
    else
        ++m_unacknowledged;
}

void ShellService::takeInput(const QByteArray& data)
{
    if (data.isEmpty())
        return;
    if (m_master >= 0) {
        m_masterPending.append(data);
        onPtyWritable();
    } else if (m_process && m_process->state() == QProcess::Running) {
        m_process->write(data);
    }
}

void ShellService::closeInput()
{
    // A terminal has no end of input of its own: closing it would cut the output too.
    if (m_master < 0 && m_process)
        m_process->closeWriteChannel();
}

void ShellService::resize(const QByteArray& text)
{
    const auto size = WindowSize::parse(text);
    if (!size || m_master < 0)
        return;
    const struct winsize value = { ushort(size->rows), ushort(size->cols),
                                   ushort(qMin(size->xPixels, 0xffff)), ushort(qMin(size->yPixels, 0xffff)) };
    ::ioctl(m_master, TIOCSWINSZ, &value);
}

qint64 ShellService::unwrittenInput() const
{
    if (m_master >= 0)
        return m_masterPending.size();
    return m_process ? m_process->bytesToWrite() : 0;
}

void ShellService::releaseAcknowledgements()
{
    while (m_unacknowledged > 0 && unwrittenInput() < MAX_UNWRITTEN_INPUT) {
        --m_unacknowledged;
        acknowledge();
    }
}

void ShellService::onBytesWritten()
{
    releaseAcknowledgements();
}

void ShellService::onPtyWritable()
{
    while (m_master >= 0 && !m_masterPending.isEmpty()) {
        const ssize_t written
            = ::write(m_master, m_masterPending.constData(), size_t(m_masterPending.size()));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0 && errno != EAGAIN) {
            m_masterPending.clear(); // the terminal is gone; so is its reader
            break;
        }
        if (written <= 0)
            break;
        m_masterPending.remove(0, written);
    }
    if (m_masterWrite)
        m_masterWrite->setEnabled(!m_masterPending.isEmpty());
    releaseAcknowledgements();
}

void ShellService::resume()
{
    if (m_master >= 0)
        drainPty();
    else
        drain();
}

void ShellService::onReadyRead()
{
    drain();
}

void ShellService::onPtyReadable()
{
    drainPty();
}

void ShellService::deliver(ShellProtocol::Id id, const QByteArray& data)
{
    send(m_launch.shellProtocol ? ShellProtocol::encode(id, data) : data);
}

void ShellService::drain()
{
    if (!m_process || m_finished)
        return;
    qint64 unread = 0;
    for (const auto channel : { QProcess::StandardOutput, QProcess::StandardError }) {
        m_process->setReadChannel(channel);
        const auto id = channel == QProcess::StandardOutput ? ShellProtocol::Stdout : ShellProtocol::Stderr;
        while (!congested() && m_process->bytesAvailable() > 0)
            deliver(id, m_process->read(READ_CHUNK));
        unread += m_process->bytesAvailable();
    }
    if (!m_paused && unread > MAX_UNREAD_OUTPUT && m_process->state() == QProcess::Running) {
        m_paused = true;
        signalGroup(SIGSTOP);
    } else if (m_paused && unread == 0) {
        m_paused = false;
        signalGroup(SIGCONT);
    }
    if (unread == 0)
        finishIfDone();
}

void ShellService::drainPty()
{
    if (m_master < 0 || m_finished)
        return;
    // A congested stream stops reading: the terminal's buffer fills and the program blocks.
    m_masterRead->setEnabled(false);
    char buffer[64 * 1024];
    while (!congested()) {
        const ssize_t got = ::read(m_master, buffer, sizeof buffer);
        if (got > 0) {
            deliver(ShellProtocol::Stdout, QByteArray(buffer, got));
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        // EIO: the last process holding the terminal closed it. EAGAIN after the program's
        // exit: everything it wrote has been read.
        if (got == 0 || errno != EAGAIN || m_exited)
            m_masterDrained = true;
        break;
    }
    if (m_masterDrained) {
        finishIfDone();
        return;
    }
    if (!congested())
        m_masterRead->setEnabled(true);
}

void ShellService::onFinished(int exitCode, QProcess::ExitStatus status)
{
    m_exited = true;
    // As a shell reports it: a program killed by a signal exits with 128 plus the signal.
    m_exitStatus = status == QProcess::NormalExit ? exitCode : 128 + exitCode;
    if (m_master >= 0)
        drainPty();
    else
        drain();
}

void ShellService::finishIfDone()
{
    if (m_finished || !m_exited || (m_master >= 0 && !m_masterDrained))
        return;
    if (m_launch.shellProtocol)
        deliver(ShellProtocol::Exit, QByteArray(1, char(quint8(m_exitStatus))));
    finish();
}

void ShellService::onErrorOccurred(QProcess::ProcessError error)
{
    if (error != QProcess::FailedToStart)
        return;
    deliver(ShellProtocol::Stderr,
            m_launch.program.toUtf8() + ": cannot start: " + m_process->errorString().toUtf8() + '\n');
    m_exitStatus = 127;
    m_exited = true;
    m_masterDrained = true;
    finishIfDone();
}

void ShellService::stop()
{
    const bool wasRunning = !m_finished;
    m_finished = true;
    if (m_master >= 0) {
        // Closing the terminal hangs its session up, as on a device; the kill below is sure.
        delete std::exchange(m_masterRead, nullptr);
        delete std::exchange(m_masterWrite, nullptr);
        ::close(std::exchange(m_master, -1));
    }
    if (!m_process || m_process->state() == QProcess::NotRunning)
        return;
    m_process->disconnect(this);
    if (!wasRunning || m_launch.pty) {
        signalGroup(SIGKILL);
        m_process->kill();
        m_process->waitForFinished(5000);
        return;
    }
    // The host closed the stream right after its last write (`adb exec-in`, or a shell without
    // the shell protocol): the command still gets all of that input and its end, and a moment
    // to finish with it; its output goes nowhere. The application outlives this service.
    QProcess* process = std::exchange(m_process, nullptr);
    process->setParent(QCoreApplication::instance());
    const qint64 pid = process->processId();
    if (m_paused)
        ::kill(-pid_t(pid), SIGCONT);
    process->closeWriteChannel();
    const auto discard = [process] {
        process->readAllStandardOutput();
        process->readAllStandardError();
    };
    connect(process, &QProcess::readyReadStandardOutput, process, discard);
    connect(process, &QProcess::readyReadStandardError, process, discard);
    connect(process, &QProcess::finished, process, &QObject::deleteLater);
    const auto end = [process, pid] {
        ::kill(-pid_t(pid), SIGKILL);
        process->kill();
    };
    QTimer::singleShot(INPUT_GRACE_MS, process, end);
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, process, end);
}

void ShellService::signalGroup(int signal)
{
    const qint64 pid = m_process ? m_process->processId() : 0;
    if (pid > 0)
        ::kill(-pid_t(pid), signal);
}
