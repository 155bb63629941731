#include "attachedserials.h"

#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace {
const QLatin1String SERIALS_KEY("serials");
} // namespace

AttachedSerials::AttachedSerials(const QString& filePath)
    : m_path(filePath)
{ }

QStringList AttachedSerials::parse(const QByteArray& content)
{
    QStringList serials;
    const QJsonArray array = QJsonDocument::fromJson(content).object().value(SERIALS_KEY).toArray();
    for (const QJsonValue& value : array) {
        if (!value.toString().isEmpty())
            serials.append(value.toString());
    }
    return serials;
}

QStringList AttachedSerials::takeLeftovers()
{
    QFile file(m_path);
    QStringList leftovers;
    if (file.open(QIODevice::ReadOnly))
        leftovers = parse(file.read(1 << 20)); // a few serials; more than this is not our file
    m_serials.clear();
    if (!leftovers.isEmpty())
        save();
    return leftovers;
}

void AttachedSerials::add(const QString& serial)
{
    if (serial.isEmpty() || m_serials.contains(serial))
        return;
    m_serials.append(serial);
    save();
}

void AttachedSerials::remove(const QString& serial)
{
    if (m_serials.removeAll(serial) > 0)
        save();
}

void AttachedSerials::clear()
{
    m_serials.clear();
    save();
}

void AttachedSerials::save() const
{
    // Written whole and renamed into place: a daemon killed mid-write leaves the old record.
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning().noquote() << "Cannot record attached serials in" << m_path << file.errorString();
        return;
    }
    file.write(QJsonDocument(QJsonObject { { SERIALS_KEY, QJsonArray::fromStringList(m_serials) } })
                   .toJson(QJsonDocument::Compact));
    if (!file.commit())
        qWarning().noquote() << "Cannot record attached serials in" << m_path << file.errorString();
}
