#pragma once

#include <QObject>
#include <QVariant>

#include <memory>

class QLocalSocket;

// The sending end: one connection per request, at most one reply per connection.
class SingleInstanceClient : public QObject
{
    Q_OBJECT
public:
    enum Mode {
        Async = 0, // no reply is expected
        Sync = 1, // a reply is awaited
    };

    SingleInstanceClient(const QString& name, const QString& directory, QObject* parent = nullptr);
    ~SingleInstanceClient() override;

    bool connectToExistingInstance();
    bool disconnectFromExistingInstance();
    // The handler's reply, or an invalid variant when none arrived within timeoutMs.
    QVariant sendMessage(const QVariantMap& message, int timeoutMs);
    bool sendAsyncMessage(const QVariantMap& message);
    bool sendMessageInternal(const QVariantMap& message, Mode mode);

private:
    QString m_serverName;
    std::unique_ptr<QLocalSocket> m_socket;
};
