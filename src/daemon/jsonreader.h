#pragma once

#include <QString>
#include <QVariant>

// Reads one top-level key of a JSON file. The file is read on every call so that edits made
// while the daemon runs are seen at once; there is no cache to go stale.
class JsonReader
{
public:
    explicit JsonReader(const QString& path);

    QVariant getValue(const QString& key) const;
    QString path() const { return m_path; }

private:
    QString m_path;
};
