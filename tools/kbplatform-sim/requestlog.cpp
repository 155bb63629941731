#include "requestlog.h"

#include <QDateTime>
#include <QJsonObject>

RequestLog::RequestLog(QObject* parent)
    : QObject(parent)
{ }

RequestLog::~RequestLog() = default;

qint64 RequestLog::record(const QString& method, const QString& path, const QString& query,
                          const QList<QPair<QByteArray, QByteArray>>& headers, const QByteArray& body)
{
    QJsonObject headerObject;
    for (const auto& [name, value] : headers) {
        const QString key = QString::fromLatin1(name).toLower();
        const QString text = QString::fromLatin1(value);
        const QString previous = headerObject.value(key).toString();
        headerObject.insert(key, previous.isEmpty() ? text : previous + QStringLiteral(", ") + text);
    }
    m_entries.push_back(QJsonObject {
        { QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) },
        { QStringLiteral("method"), method },
        { QStringLiteral("path"), path },
        { QStringLiteral("query"), query },
        { QStringLiteral("headers"), headerObject },
        { QStringLiteral("body"), QString::fromUtf8(body.left(MAX_BODY)) },
    });
    while (m_entries.size() > MAX_ENTRIES) {
        m_entries.pop_front();
        ++m_firstIndex;
    }
    return m_firstIndex + qint64(m_entries.size()) - 1;
}

void RequestLog::appendMessage(qint64 index, const QString& message)
{
    const qint64 position = index - m_firstIndex;
    if (position < 0 || position >= qint64(m_entries.size()))
        return;
    QJsonObject& entry = m_entries[std::size_t(position)];
    QJsonArray messages = entry.value(QStringLiteral("messages")).toArray();
    if (messages.size() < 16)
        messages.append(message.left(MAX_BODY));
    entry.insert(QStringLiteral("messages"), messages);
}

QJsonArray RequestLog::toJson() const
{
    QJsonArray array;
    for (const QJsonObject& entry : m_entries)
        array.append(entry);
    return array;
}

void RequestLog::clear()
{
    m_firstIndex += qint64(m_entries.size());
    m_entries.clear();
}
