#include "daemonutils.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = { -1, -1 };

void onSignalPipeReadable()
{
    int signal = 0;
    if (read(g_signalPipe[0], &signal, sizeof signal) != sizeof signal)
        return;
    qCritical().noquote() << QStringLiteral("Signal %1 caught. Quit daemon.").arg(signal);
    QCoreApplication::quit();
}

// Logging and posting events take locks, which a signal handler must not: the handler only
// writes the number into a pipe and the event loop does the rest.
void installSignalPipe()
{
    if (pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        qCritical() << "Could not create the signal pipe:" << std::strerror(errno);
        return;
    }
    auto* notifier
        = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [] { onSignalPipeReadable(); });
}

} // namespace

void signalHandler(int signal)
{
    const int savedErrno = errno;
    if (g_signalPipe[1] >= 0) {
        [[maybe_unused]] const ssize_t written = write(g_signalPipe[1], &signal, sizeof signal);
    }
    errno = savedErrno;
}

void DaemonUtils::setup()
{
    qDebug() << "Setting up daemon...";

    if (setsid() < 0) {
        qCritical().noquote()
            << QStringLiteral("Could not detach daemon (%1). Did you start the daemon from the terminal?")
                   .arg(QString::fromLocal8Bit(std::strerror(errno)));
    }

    if (chdir("/") < 0) {
        const char* message = "Could not launch daemon. Error changing current working directory.";
        qCritical() << message;
        std::fputs(message, stderr);
        std::exit(-1);
    }

    // The standard descriptors are pointed at /dev/null rather than left closed: a closed 0-2
    // would be handed to the next socket we open, and a stray write to stderr would then land
    // in an ADB stream.
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (devNull >= 0)
            dup2(devNull, fd);
        else
            close(fd);
    }
    if (devNull > STDERR_FILENO)
        close(devNull);

    installSignalPipe();
    std::signal(SIGQUIT, signalHandler);
    std::signal(SIGINT, signalHandler);
    std::signal(SIGTERM, signalHandler);
    std::signal(SIGHUP, signalHandler);

    qDebug() << "Setting up daemon... Done.";
}
