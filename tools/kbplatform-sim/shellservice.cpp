#include "shellservice.h"

#include <QDir>

#include <signal.h>
#include <unistd.h>

namespace {

constexpr qint64 READ_CHUNK = 256 * 1024;
// QProcess reads its pipe without limit; past this much unread output the command is stopped.
constexpr qint64 MAX_UNREAD_OUTPUT = 4 * 1024 * 1024;
constexpr qint64 MAX_UNWRITTEN_INPUT = 1024 * 1024;

} // namespace

ShellService::ShellService(DeviceStreams* streams, quint32 localId, const DeviceProfile& profile,
                           const QString& command, QObject* parent)
    : DeviceService(streams, localId, parent)
    , m_profile(profile)
    , m_command(command)
{ }

ShellService::~ShellService()
{
    stop();
}

void ShellService::start()
{
    const DeviceProfile& profile = m_profile;
    m_process = new QProcess(this);
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    m_process->setWorkingDirectory(profile.sandboxDir);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), profile.sandboxDir);
    env.insert(QStringLiteral("ANDROID_ROOT"), profile.sandboxDir);
    env.insert(QStringLiteral("PATH"), profile.binDir + QLatin1Char(':') + env.value(QStringLiteral("PATH")));
    env.remove(QStringLiteral("ADB_SERVER_SOCKET"));
    m_process->setProcessEnvironment(env);
    // A group of its own, so that stop() reaches the command's children too.
    m_process->setChildProcessModifier([] { ::setpgid(0, 0); });
    connect(m_process, &QProcess::readyRead, this, &ShellService::onReadyRead);
    connect(m_process, &QProcess::finished, this, &ShellService::onFinished);
    connect(m_process, &QProcess::errorOccurred, this, &ShellService::onErrorOccurred);
    connect(m_process, &QProcess::bytesWritten, this, &ShellService::onBytesWritten);

    QStringList arguments;
    if (!m_command.trimmed().isEmpty())
        arguments << QStringLiteral("-c") << m_command;
    m_process->start(QStringLiteral("/bin/sh"), arguments);
}

void ShellService::receive(const QByteArray& data)
{
    if (!m_process || m_process->state() != QProcess::Running) {
        acknowledge();
        return;
    }
    m_process->write(data);
    if (m_process->bytesToWrite() < MAX_UNWRITTEN_INPUT)
        acknowledge();
    else
        ++m_unacknowledged;
}

void ShellService::onBytesWritten()
{
    while (m_unacknowledged > 0 && m_process->bytesToWrite() < MAX_UNWRITTEN_INPUT) {
        --m_unacknowledged;
        acknowledge();
    }
}

void ShellService::resume()
{
    drain();
}

void ShellService::onReadyRead()
{
    drain();
}

void ShellService::drain()
{
    if (!m_process || m_finished)
        return;
    while (!congested() && m_process->bytesAvailable() > 0)
        send(m_process->read(READ_CHUNK));
    const qint64 unread = m_process->bytesAvailable();
    if (!m_paused && unread > MAX_UNREAD_OUTPUT && m_process->state() == QProcess::Running) {
        m_paused = true;
        signalGroup(SIGSTOP);
    } else if (m_paused && unread == 0) {
        m_paused = false;
        signalGroup(SIGCONT);
    }
    if (m_exited && unread == 0)
        finish();
}

void ShellService::onFinished()
{
    m_exited = true;
    drain();
}

void ShellService::onErrorOccurred(QProcess::ProcessError error)
{
    if (error != QProcess::FailedToStart)
        return;
    send(QByteArray("/bin/sh: cannot start: ") + m_process->errorString().toUtf8() + '\n');
    finish();
}

void ShellService::stop()
{
    m_finished = true;
    if (!m_process || m_process->state() == QProcess::NotRunning)
        return;
    m_process->disconnect(this);
    signalGroup(SIGKILL);
    m_process->kill();
    m_process->waitForFinished(5000);
}

void ShellService::signalGroup(int signal)
{
    const qint64 pid = m_process ? m_process->processId() : 0;
    if (pid > 0)
        ::kill(-pid_t(pid), signal);
}
