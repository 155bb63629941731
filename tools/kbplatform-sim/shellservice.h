#pragma once

#include "deviceprofile.h"
#include "deviceservice.h"

#include <QProcess>
#include <QString>

// "shell:<command>" and "exec:<command>": the command run by /bin/sh in the device's sandbox,
// stdout and stderr streamed to the host as they come, host writes fed to stdin.
class ShellService : public DeviceService
{
    Q_OBJECT

public:
    ShellService(DeviceStreams* streams, quint32 localId, const DeviceProfile& profile,
                 const QString& command, QObject* parent);
    ~ShellService() override;

    void start() override;
    void receive(const QByteArray& data) override;
    void resume() override;
    void stop() override;

private Q_SLOTS:
    void onReadyRead();
    void onFinished();
    void onErrorOccurred(QProcess::ProcessError error);
    void onBytesWritten();

private:
    void drain();
    void signalGroup(int signal);

    DeviceProfile m_profile;
    QString m_command;
    QProcess* m_process = nullptr;
    int m_unacknowledged = 0;
    bool m_exited = false;
    bool m_paused = false;
};
