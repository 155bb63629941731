#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Typed readers of environment variables. A malformed number is a configuration error the
// user must fix, so it stops the program (qFatal) rather than silently using the default.
class EnvVars
{
public:
    static QByteArray getByteArray(const char* name, const QByteArray& defaultValue = {});
    // An empty value counts as set: it returns the empty string, not the default.
    static QString getString(const char* name, const QString& defaultValue = {});
    static QStringList getStringList(const char* name, const QStringList& defaultValue = {},
                                     QChar separator = QChar());
    static int getInt(const char* name, int defaultValue);
    static double getDouble(const char* name, double defaultValue);
    static bool isStringListed(const char* name, const QString& value);
};
