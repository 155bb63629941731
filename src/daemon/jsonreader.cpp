#include "jsonreader.h"

#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace {
// Configuration files are a few hundred bytes; refuse to slurp something absurd.
constexpr qint64 MAX_FILE_SIZE = 4 * 1024 * 1024;
} // namespace

JsonReader::JsonReader(const QString& path)
    : m_path(path)
{
    qDebug() << "Using JSON" << m_path;
}

QVariant JsonReader::getValue(const QString& key) const
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qWarning() << "Couldn't open file." << m_path << file.errorString();
        return {};
    }
    if (file.size() > MAX_FILE_SIZE) {
        qWarning() << "File too large, ignored:" << m_path << file.size() << "bytes";
        return {};
    }
    // A malformed file reads as an empty object: every key absent.
    const QJsonObject object = QJsonDocument::fromJson(file.readAll()).object();
    const auto it = object.constFind(key);
    if (it == object.constEnd())
        return {};
    return it->toVariant();
}
