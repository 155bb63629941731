#include "fuzzsupport.h"

#include <QtGlobal>

namespace FuzzSupport {

namespace {

void messageHandler(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtFatalMsg || message.startsWith(QLatin1String("QObject::connect"))) {
        std::fprintf(stderr, "%s\n", qPrintable(message));
        std::abort();
    }
}

} // namespace

QCoreApplication* application()
{
    static int argc = 1;
    static char name[] = "kbfuzz";
    static char* argv[] = { name, nullptr };
    static QCoreApplication* app = [] {
        qInstallMessageHandler(messageHandler);
        return new QCoreApplication(argc, argv);
    }();
    return app;
}

void fail(const char* what)
{
    std::fprintf(stderr, "invariant violated: %s\n", what);
    std::abort();
}

} // namespace FuzzSupport
