#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>

#include <deque>

// The requests the platform received, newest last, for tests to check what the daemon sent.
class RequestLog : public QObject
{
    Q_OBJECT

public:
    static constexpr std::size_t MAX_ENTRIES = 1000;
    static constexpr qsizetype MAX_BODY = 64 * 1024;

    explicit RequestLog(QObject* parent);
    ~RequestLog() override;

    // Returns the entry's index, for later additions (a WebSocket's authentication message).
    qint64 record(const QString& method, const QString& path, const QString& query,
                  const QList<QPair<QByteArray, QByteArray>>& headers, const QByteArray& body);
    void appendMessage(qint64 index, const QString& message);
    QJsonArray toJson() const;
    void clear();

private:
    std::deque<QJsonObject> m_entries;
    qint64 m_firstIndex = 0;
};
