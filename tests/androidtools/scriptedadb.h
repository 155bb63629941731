#pragma once

#include "androidtools/androidtoolsprovider.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// Hands out whatever adb path the test sets.
class TestToolsProvider : public AndroidToolsProvider
{
public:
    QString getAdbPath() override { return adbPath; }
    QString getAaptPath() override { return QString(); }

    QString adbPath;
};

// A stand-in adb in a temporary SDK, for what the real one can't be made to do on demand. It
// records each argument list in calls.log; files named after the command (get-state.out,
// get-state.err, get-state.exit, get-state.hang, get-state.crash) choose what it does.
class ScriptedAdb
{
public:
    ScriptedAdb()
    {
        QDir(m_dir.path()).mkpath(QStringLiteral("platform-tools"));
        write(QStringLiteral("adb"), R"SH(#!/bin/sh
d=$(dirname "$0")
printf '%s\n' "$*" >> "$d/calls.log"
if [ "$1" = "-s" ]; then shift 2; fi
c=$1
if [ -f "$d/$c.hang" ]; then echo $$ > "$d/$c.pid"; exec sleep 600; fi
if [ -f "$d/$c.out" ]; then cat "$d/$c.out"; fi
if [ -f "$d/$c.err" ]; then cat "$d/$c.err" >&2; fi
if [ -f "$d/$c.crash" ]; then kill -9 $$; fi
if [ -f "$d/$c.exit" ]; then exit "$(cat "$d/$c.exit")"; fi
exit 0
)SH");
        QFile::setPermissions(path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    QString path() const { return dir() + QLatin1String("/adb"); }
    QString dir() const { return m_dir.path() + QLatin1String("/platform-tools"); }

    void setResult(const QString& command, const QByteArray& out, const QByteArray& err = QByteArray(),
                   int exitCode = 0)
    {
        write(command + QLatin1String(".out"), out);
        write(command + QLatin1String(".err"), err);
        write(command + QLatin1String(".exit"), QByteArray::number(exitCode));
    }
    void setHang(const QString& command) { write(command + QLatin1String(".hang"), QByteArray()); }
    void setCrash(const QString& command) { write(command + QLatin1String(".crash"), QByteArray()); }

    QStringList calls() const
    {
        QFile log(dir() + QLatin1String("/calls.log"));
        if (!log.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    qint64 hungPid(const QString& command) const
    {
        QFile file(dir() + QLatin1Char('/') + command + QLatin1String(".pid"));
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong() : 0;
    }

private:
    void write(const QString& name, const QByteArray& content)
    {
        QFile file(dir() + QLatin1Char('/') + name);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(content);
    }

    QTemporaryDir m_dir;
};
