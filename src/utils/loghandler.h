#pragma once

#include <QFlags>
#include <QString>
#include <QtGlobal>

// Process-wide Qt message handler: one formatted line per message into the log file (and to
// stderr when there is no file or KB_LOG_TO_STDERR is set), with a per-thread prefix.
class LogHandler
{
public:
    enum LogHandlerOption {
        Quiet = 1, // don't announce the log file on stderr
    };
    Q_DECLARE_FLAGS(LogHandlerOptions, LogHandlerOption)

    static const char* const DEFAULT_MESSAGE_PATTERN;
    static const char* const ENV_LOG_TO_STDERR;
    // The log file is rotated when the next line would take it past this many bytes (default
    // DEFAULT_LOG_MAX_BYTES): kbadbtunneld.log becomes kbadbtunneld.log.1, .1 becomes .2, and so on;
    // LOG_FILES_KEPT rotated files are kept.
    static const char* const ENV_LOG_MAX_BYTES;
    static constexpr qint64 DEFAULT_LOG_MAX_BYTES = 10 * 1024 * 1024;
    static constexpr int LOG_FILES_KEPT = 3;

    static void install(const QString& logFilePath, LogHandlerOptions options = {},
                        const QString& messagePattern = QString());
    static void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);

    // This thread's prefix; reading it gives the thread an (empty) prefix if it had none.
    static QString getPrefix();
    static void setPrefix(const QString& prefix);

    // Sets this thread's prefix for the lifetime of the object, then restores the previous one.
    class LogPrefixer
    {
    public:
        explicit LogPrefixer(const QString& prefix);
        ~LogPrefixer();
        LogPrefixer(const LogPrefixer&) = delete;
        LogPrefixer& operator=(const LogPrefixer&) = delete;

    private:
        QString m_previous;
    };

    // Exposed for tests.
    static bool isQmlSyntaxError(QtMsgType type, const QMessageLogContext& context, const QString& message);
    static bool isConnectFailure(QtMsgType type, const QString& message);
};

Q_DECLARE_OPERATORS_FOR_FLAGS(LogHandler::LogHandlerOptions)
