#pragma once

#include <QString>
#include <QStringList>

// The ADB serials this daemon has attached to the local ADB server, mirrored in a file of the
// configuration home. A daemon that ends normally detaches its serials and leaves the record
// empty; one that is killed leaves them listed, and the next daemon detaches exactly those.
class AttachedSerials
{
public:
    explicit AttachedSerials(const QString& filePath);

    // The serials a predecessor left behind; the record is emptied.
    QStringList takeLeftovers();
    void add(const QString& serial);
    void remove(const QString& serial);
    void clear();

    // The serials of a record file's content; empty for anything that is not one.
    static QStringList parse(const QByteArray& content);

private:
    void save() const;

    QString m_path;
    QStringList m_serials;
};
