#pragma once

#include <QByteArray>
#include <QString>

// Maps the device's paths into one host directory, which plays the device's "/". Nothing that
// resolve() accepts lies outside it: ".." cannot climb above the root, and symbolic links are
// followed only as far as they stay inside.
class Sandbox
{
public:
    explicit Sandbox(const QString& rootDir);

    QString root() const { return m_root; }
    // The host path for a device path (absolute or relative to "/"), or an empty string with
    // *error set when the path is malformed or leads outside.
    QString resolve(const QByteArray& devicePath, QString* error) const;

private:
    bool contains(const QString& canonicalPath) const;

    QString m_root; // canonical
};
