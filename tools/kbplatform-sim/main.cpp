#include "platformsimulator.h"
#include "simconfig.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_signalPipe[2] = { -1, -1 };

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kbplatform-sim"));
    qSetMessagePattern(
        QStringLiteral("%{time yyyy-MM-ddThh:mm:ss.zzz} kbplatform-sim[%{pid}] %{type}: %{message}"));

    QString error;
    const auto config = SimConfig::parse(QCoreApplication::arguments(), &error);
    if (!config) {
        const bool help = QCoreApplication::arguments().contains(QStringLiteral("--help"))
            || QCoreApplication::arguments().contains(QStringLiteral("-h"));
        std::fputs(qPrintable(error + QLatin1Char('\n')), help ? stdout : stderr);
        return help ? 0 : 1;
    }

    // Shells of the emulated devices and the temporary sandboxes are cleaned up on the way out,
    // so termination signals end the event loop instead of the process.
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, g_signalPipe) == 0) {
        auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
        for (const int signal : { SIGINT, SIGTERM, SIGHUP })
            std::signal(signal, onSignal);
    }
    std::signal(SIGPIPE, SIG_IGN);

    PlatformSimulator simulator(*config);
    if (!simulator.start(&error)) {
        std::fprintf(stderr, "kbplatform-sim: %s\n", qPrintable(error));
        return 1;
    }
    const QByteArray line = simulator.readyLine() + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
    qInfo().noquote()
        << QStringLiteral("serving %1 with %2 instance(s)").arg(simulator.baseUrl()).arg(config->instances);
    return app.exec();
}
