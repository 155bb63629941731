#include "loghandler.h"

#include "filepermissions.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QRegularExpression>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include <sys/stat.h>

const char* const LogHandler::DEFAULT_MESSAGE_PATTERN
    = "{isodate} [%{appname}:%{pid}] [%{if-category}%{category}.%{endif}%{type}] %{message}";
const char* const LogHandler::ENV_LOG_TO_STDERR = "KB_LOG_TO_STDERR";
const char* const LogHandler::ENV_LOG_MAX_BYTES = "KB_LOG_MAX_BYTES";

namespace {

struct GlobalState
{
    QMutex mutex;
    std::unique_ptr<QFile> file;
    LogHandler::LogHandlerOptions options;
    const bool logToStderr = qEnvironmentVariableIsSet(LogHandler::ENV_LOG_TO_STDERR);
    const qint64 maxBytes = [] {
        bool ok = false;
        const qint64 value = qEnvironmentVariable(LogHandler::ENV_LOG_MAX_BYTES).toLongLong(&ok);
        return ok && value > 0 ? value : LogHandler::DEFAULT_LOG_MAX_BYTES;
    }();
};

GlobalState& state()
{
    // Never destroyed: threads may still log while static destructors run at exit.
    static GlobalState* global = new GlobalState;
    return *global;
}

thread_local std::optional<QString> t_prefix;

const QLatin1String ISODATE_PLACEHOLDER("{isodate}");

QString rotatedName(const QString& path, int index)
{
    return QStringLiteral("%1.%2").arg(path).arg(index);
}

bool sameFile(int fd, const QString& path)
{
    struct stat open = {};
    struct stat named = {};
    return ::fstat(fd, &open) == 0 && ::stat(QFile::encodeName(path).constData(), &named) == 0
        && open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// Called under the mutex, before a line of `incoming` bytes is written. The client and the
// daemon append to the same file: when another process has rotated it already, ours is now
// "<log>.1" and we only follow to the new file.
void rotateIfFull(GlobalState& global, qint64 incoming)
{
    QFile& file = *global.file;
    if (file.size() == 0 || file.size() + incoming <= global.maxBytes)
        return;
    const QString path = file.fileName();
    if (sameFile(file.handle(), path)) {
        QFile::remove(rotatedName(path, LogHandler::LOG_FILES_KEPT));
        for (int index = LogHandler::LOG_FILES_KEPT - 1; index >= 1; --index)
            QFile::rename(rotatedName(path, index), rotatedName(path, index + 1));
        QFile::rename(path, rotatedName(path, 1));
    }
    file.close();
    FilePermissions::createPrivateFile(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        std::fprintf(stderr, "Error while opening log file: %s: %s\n", qPrintable(path),
                     qPrintable(file.errorString()));
        global.file.reset();
    }
}

} // namespace

void LogHandler::install(const QString& logFilePath, LogHandlerOptions options, const QString& messagePattern)
{
    GlobalState& global = state();
    {
        QMutexLocker locker(&global.mutex);
        global.options = options;
        global.file = std::make_unique<QFile>(logFilePath);
        // With tunnel debugging the log holds the session's contents: only its owner reads it.
        FilePermissions::createPrivateFile(logFilePath);
        if (global.file->open(QIODevice::WriteOnly | QIODevice::Append)) {
            if (!options.testFlag(Quiet))
                std::fprintf(stderr, "Logging activities to file: %s\n", qPrintable(logFilePath));
        } else {
            std::fprintf(stderr, "Error while opening log file: %s: %s\n", qPrintable(logFilePath),
                         qPrintable(global.file->errorString()));
            global.file.reset();
        }
    }

    if (qEnvironmentVariableIsEmpty("QT_MESSAGE_PATTERN"))
        qSetMessagePattern(messagePattern.isEmpty() ? QString::fromLatin1(DEFAULT_MESSAGE_PATTERN)
                                                    : messagePattern);
    qInstallMessageHandler(&LogHandler::messageHandler);
}

QString LogHandler::getPrefix()
{
    if (!t_prefix)
        t_prefix = QString();
    return *t_prefix;
}

void LogHandler::setPrefix(const QString& prefix)
{
    t_prefix = prefix;
}

LogHandler::LogPrefixer::LogPrefixer(const QString& prefix)
    : m_previous(getPrefix())
{
    setPrefix(prefix);
}

LogHandler::LogPrefixer::~LogPrefixer()
{
    setPrefix(m_previous);
}

bool LogHandler::isQmlSyntaxError(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    static const QRegularExpression errorPattern(
        QStringLiteral("\\W(Error|EvalError|RangeError|ReferenceError|SyntaxError|TypeError|URIError)\\W"));
    if (type != QtWarningMsg || !context.file || !context.category)
        return false;
    return QLatin1String(context.file).endsWith(QLatin1String(".qml"))
        && qstrcmp(context.category, "default") == 0 && errorPattern.match(message).hasMatch();
}

bool LogHandler::isConnectFailure(QtMsgType type, const QString& message)
{
    // A failed signal-slot connection is a programming error; we refuse to run with one.
    return type == QtWarningMsg && message.startsWith(QLatin1String("QObject::connect"))
        && !message.startsWith(QLatin1String("QObject::connect(QQuickWindow, MapView_QMLTYPE_"))
        && !message.startsWith(QLatin1String("QObject::connect(QObject, Unknown)"));
}

void LogHandler::messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    const QString text = t_prefix ? *t_prefix + QLatin1Char(' ') + message : message;
    QString line = qFormatLogMessage(type, context, text);
    if (line.contains(ISODATE_PLACEHOLDER)) {
        line.replace(ISODATE_PLACEHOLDER,
                     QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz")));
    }

    GlobalState& global = state();
    {
        QMutexLocker locker(&global.mutex);
        const QByteArray bytes = line.toUtf8();
        if (global.file)
            rotateIfFull(global, bytes.size() + 1);
        if (global.file) {
            global.file->write(bytes);
            global.file->write("\n", 1);
            global.file->flush();
        }
        if (!global.file || global.logToStderr) {
            std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
            std::fflush(stderr);
        }
    }

    if (type == QtFatalMsg || isQmlSyntaxError(type, context, message) || isConnectFailure(type, message)) {
        std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
        std::fflush(stderr);
        std::abort();
    }
}
