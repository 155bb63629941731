#pragma once

#include "deviceprofile.h"
#include "deviceservice.h"
#include "shellprotocol.h"

#include <QProcess>
#include <QString>
#include <QStringList>

class QSocketNotifier;

// How a shell-like service runs its program.
struct ShellLaunch
{
    QString program = QStringLiteral("/bin/sh");
    QStringList arguments;
    // Output framed in shell protocol packets, stdout apart from stderr, and the exit status at
    // the end; without it both outputs are one plain stream, as for "exec:".
    bool shellProtocol = false;
    bool pty = false; // on a pseudo-terminal: prompt, echo, Ctrl-C, window size
    QString term;

    // "/bin/sh -c command", or an interactive shell for an empty command.
    static ShellLaunch shell(const QString& command);
};

// "shell:", "exec:", "abb:" and "abb_exec:": a program run in the device's sandbox, its output
// streamed to the host as it comes, host writes fed to its input.
class ShellService : public DeviceService
{
    Q_OBJECT

public:
    ShellService(DeviceStreams* streams, quint32 localId, const DeviceProfile& profile,
                 const ShellLaunch& launch, QObject* parent);
    ~ShellService() override;

    void start() override;
    void receive(const QByteArray& data) override;
    void resume() override;
    void stop() override;

private Q_SLOTS:
    void onReadyRead();
    void onFinished(int exitCode, QProcess::ExitStatus status);
    void onErrorOccurred(QProcess::ProcessError error);
    void onBytesWritten();
    void onPtyReadable();
    void onPtyWritable();

private:
    bool openPty(int* slave);
    void takeInput(const QByteArray& data);
    void closeInput();
    void resize(const QByteArray& text);
    qint64 unwrittenInput() const;
    void releaseAcknowledgements();
    void drain();
    void drainPty();
    void deliver(ShellProtocol::Id id, const QByteArray& data);
    void finishIfDone();
    void signalGroup(int signal);

    DeviceProfile m_profile;
    ShellLaunch m_launch;
    QProcess* m_process = nullptr;
    ShellProtocol m_input;
    int m_unacknowledged = 0;
    int m_exitStatus = 0;
    bool m_exited = false;
    bool m_paused = false;

    // With a terminal: its master side, what waits to be written to it, and whether the last
    // process holding the terminal has let go of it.
    int m_master = -1;
    QSocketNotifier* m_masterRead = nullptr;
    QSocketNotifier* m_masterWrite = nullptr;
    QByteArray m_masterPending;
    bool m_masterDrained = false;
};
