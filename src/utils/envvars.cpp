#include "envvars.h"

#include <QtGlobal>

QByteArray EnvVars::getByteArray(const char* name, const QByteArray& defaultValue)
{
    if (!qEnvironmentVariableIsSet(name))
        return defaultValue;
    return qgetenv(name);
}

QString EnvVars::getString(const char* name, const QString& defaultValue)
{
    return QString::fromLocal8Bit(getByteArray(name, defaultValue.toLocal8Bit()));
}

QStringList EnvVars::getStringList(const char* name, const QStringList& defaultValue, QChar separator)
{
    const QString value = getString(name, QString());
    if (value.isEmpty())
        return defaultValue;
    return value.split(separator.isNull() ? QLatin1Char(':') : separator, Qt::KeepEmptyParts,
                       Qt::CaseSensitive);
}

int EnvVars::getInt(const char* name, int defaultValue)
{
    const QByteArray value = getByteArray(name);
    if (value.isEmpty())
        return defaultValue;
    bool ok = false;
    const int result = value.toInt(&ok, 10);
    if (!ok)
        qFatal("Invalid int: %s", value.constData());
    return result;
}

double EnvVars::getDouble(const char* name, double defaultValue)
{
    const QByteArray value = getByteArray(name);
    if (value.isEmpty())
        return defaultValue;
    bool ok = false;
    const double result = value.toDouble(&ok);
    if (!ok)
        qFatal("Invalid double: %s", value.constData());
    return result;
}

bool EnvVars::isStringListed(const char* name, const QString& value)
{
    return getStringList(name, QStringList(), QLatin1Char(':')).contains(value, Qt::CaseSensitive);
}
