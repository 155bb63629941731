#pragma once

#include <QString>

// Where the Android SDK tools live. One provider is installed for the whole process at start-up
// and is then only read, possibly from several ADB threads at once.
class AndroidToolsProvider
{
public:
    static const char* const ADB_FILENAME;
    static const char* const AAPT_FILENAME;

    virtual ~AndroidToolsProvider();
    // Full path of the tool, or an empty string when it cannot be found.
    virtual QString getAdbPath() = 0;
    virtual QString getAaptPath() = 0;
    // Why getAdbPath() is empty, in words a user can act on.
    virtual QString adbNotFoundReason();

    // The provider is not owned: the caller keeps it alive for as long as the process runs.
    static void setInstance(AndroidToolsProvider* provider);
    // Ends the program when no provider has been installed.
    static AndroidToolsProvider* getInstance();

    static QString getAdbFileName();
    static QString getAaptFileName();

protected:
    static QString findAdbInAndroidSdk(const QString& sdkPath);
    static QString findAaptInAndroidSdk(const QString& sdkPath);
};
