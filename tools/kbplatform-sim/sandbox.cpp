#include "sandbox.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

Sandbox::Sandbox(const QString& rootDir)
    : m_root(QFileInfo(rootDir).canonicalFilePath())
{
    if (m_root.isEmpty())
        m_root = QDir::cleanPath(QFileInfo(rootDir).absoluteFilePath());
}

QString Sandbox::resolve(const QByteArray& devicePath, QString* error) const
{
    const QString path = QString::fromUtf8(devicePath);
    if (path.isEmpty() || devicePath.contains('\0')) {
        *error = QStringLiteral("invalid path");
        return QString();
    }
    QStringList parts;
    for (const QString& part : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            if (parts.isEmpty()) {
                *error = QStringLiteral("%1: path leaves the device's file system").arg(path);
                return QString();
            }
            parts.removeLast();
            continue;
        }
        parts.append(part);
    }
    const QString hostPath
        = parts.isEmpty() ? m_root : m_root + QLatin1Char('/') + parts.join(QLatin1Char('/'));

    // The deepest part that exists decides where the path really leads: a link on the way,
    // or the path itself being a link, must resolve inside the root.
    QString probe = hostPath;
    while (true) {
        const QFileInfo info(probe);
        if (info.isSymLink() && !info.exists()) {
            *error = QStringLiteral("%1: dangling symbolic link").arg(path);
            return QString();
        }
        if (info.exists()) {
            if (!contains(info.canonicalFilePath())) {
                *error = QStringLiteral("%1: symbolic link leaves the device's file system").arg(path);
                return QString();
            }
            break;
        }
        if (probe.size() <= m_root.size())
            break;
        probe = probe.left(probe.lastIndexOf(QLatin1Char('/')));
    }
    return hostPath;
}

bool Sandbox::contains(const QString& canonicalPath) const
{
    return canonicalPath == m_root || canonicalPath.startsWith(m_root + QLatin1Char('/'));
}
