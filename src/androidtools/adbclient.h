#pragma once

#include <QByteArray>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVariantMap>

// Runs the adb program for one device serial. Every command blocks the calling thread while adb
// runs (at most ADB_PROCESS_TIMEOUT_MS to start and as much again to finish), except pullAsync.
// Meant to live in a thread of its own; the object holds no connection state, every query asks adb.
class AdbClient : public QObject
{
    Q_OBJECT

public:
    enum DeviceState {
        DISCONNECTED = 0,
        CONNECTING = 1,
        CONNECTED = 2,
    };
    Q_ENUM(DeviceState)

    enum Error {
        UNKNOWN = 0,
        NO_MATCHING_ABIS = 1,
        INSTALL_FAILED_UPDATE_INCOMPATIBLE = 2,
        INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES = 3,
    };
    Q_ENUM(Error)

    static const char* const MAX_ADB_CONNECT_ATTEMPTS_ENV;
    static const int DEFAULT_MAX_ADB_CONNECT_ATTEMPTS = 10;
    static const int ADB_CONNECT_ATTEMPT_INTERVAL_MS = 2000;
    static const int ADB_PROCESS_TIMEOUT_MS = 30000;

    static const char* const ABI_ERROR1_MSG;
    static const char* const ABI_ERROR2_MSG;
    static const char* const UPDATE_INCOMPATIBLE_MSG;
    static const char* const INCONSISTENT_CERTIFICATES_MSG;

    // Takes the adb path from AndroidToolsProvider::getInstance(), which must be installed.
    explicit AdbClient(const QString& adbSerial);
    ~AdbClient() override;

    DeviceState getState() const;
    bool isConnected() const;
    // Checks the device up to KB_MAX_ADB_CONNECT_ATTEMPTS times (default 10), every 2 s, dispatching
    // this thread's events in between. True once the device is usable.
    bool waitForConnected() const;
    // True for a "host:port" serial with a literal IP address, when adb was found.
    bool isAvailable() const;

    QString getAdbSerial() const { return m_adbSerial; }
    // Asks the tools provider again; commands keep using the path found at construction.
    QString getPath() const;
    // Output of the last failing command, and its classification.
    QString rawError() const { return m_rawErrorText; }
    Error error() const;
    static Error classifyError(const QString& errorText);

    bool pull(const QString& source, const QString& destination);
    // False when a pull is already running or adb is unknown; otherwise exactly one of pullSucceeded,
    // pullError or pullCanceled follows (pullError may come before this returns).
    bool pullAsync(const QString& source, const QString& destination);
    void cancelPullAsync();
    bool isPulling() const;

    bool push(const QString& source, const QString& destination);
    bool install(const QString& apkPath, bool replace);
    // With acceptFailure, a failed uninstall (package absent, ...) is logged and counts as done.
    bool uninstall(const QString& packageName, bool acceptFailure);
    // The arguments reach the device's shell joined by spaces, as adb does: quote them yourself.
    bool shell(const QStringList& arguments, int timeoutMs = ADB_PROCESS_TIMEOUT_MS,
               QString* output = nullptr);
    // Extras become --ez/--ei/--el/--ef/--es options according to their type.
    bool broadcastIntent(const QString& action, const QVariantMap& extras);
    bool startActivity(const QString& packageName, const QString& activity);
    bool forward(int localPort, int remotePort);
    // Empty when adb fails or the property is not set.
    QString getProp(const QString& adbSerial, const QString& property) const;
    QString getAndroidVersion() const;
    QString getDeviceName() const;
    // Serials of attached devices that are neither network devices nor Kestrelbox instances.
    QStringList getRealDevices() const;

    // These start the caller's process and return at once; the caller owns and watches it.
    bool connectToAdbWithProcess(const QString& adbSerial, QProcess* process) const;
    bool logcat(QProcess* process, const QStringList& filterSpecs) const;
    bool reboot(QProcess* process) const;

public Q_SLOTS:
    // Runs "adb connect" unless the device is already usable. Emits connectSuccess or connectError.
    virtual void connectToAdb();
    // Runs "adb disconnect" only when the device is connected.
    virtual void disconnectFromAdb();

Q_SIGNALS:
    // adb connect exited with 0 (or the device was already there); not emitted once deleteLater
    // was called during the wait that follows it.
    void connectSuccess();
    // adb connect could not run, timed out or exited with a non-zero code; reason is one line a user
    // can act on ("adb not found in ...", adb's own message).
    void connectError(const QString& reason);
    void pullStarted(); // the adb process of pullAsync is running
    void pullProgress(int percent); // 0-100, strictly increasing; a burst of output may skip values
    void pullSucceeded();
    void pullError(int exitCode); // adb's exit code, or -1 when it could not run or crashed
    void pullCanceled(); // after cancelPullAsync, instead of pullSucceeded/pullError

protected:
    bool event(QEvent* event) override;

private Q_SLOTS:
    void onPullStarted();
    void onPullReadyRead();
    void onPullFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onPullErrorOccurred(QProcess::ProcessError error);

private:
    struct Run;
    Run runAdb(const QStringList& arguments,
               QProcess::ProcessChannelMode channelMode = QProcess::SeparateChannels,
               int finishTimeoutMs = ADB_PROCESS_TIMEOUT_MS) const;
    bool startDetached(QProcess* process, const QStringList& arguments, const char* logPrefix) const;

    const QString m_path;
    const QString m_adbSerial;
    QString m_rawErrorText;
    QProcess* m_pullProcess;
    QByteArray m_pullOutput;
    int m_lastPullProgress = -1;
    bool m_pullCanceled = false;
    // The nested loop of waitForConnected would otherwise run a deleteLater posted from another
    // thread and destroy the object under its own stack frame; the deletion is put off instead.
    mutable int m_waitDepth = 0;
    mutable bool m_deleteDeferred = false;
};
