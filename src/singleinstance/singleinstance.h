#pragma once

#include "singleinstanceserver.h"

#include <QObject>
#include <QVariant>

#include <memory>

class QLockFile;
class SingleInstanceClient;

// Lets one process own a named local socket and the others find it and talk to it.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    SingleInstance(const QString& name, const QString& directory, QObject* parent = nullptr);
    ~SingleInstance() override;

    void setMessageHandlerFunction(const SingleInstanceServer::MessageHandler& handler);
    SingleInstanceServer* getServer() const;

    // 0: now listening, 1: another instance already answers, 2: the socket could not be created.
    int tryCreateInstance();
    bool startServer();
    bool startServer(const QVariantMap& message);
    bool createInstanceOrSendMessage(const QVariantMap& message, int timeoutMs);
    QVariant sendMessage(const QVariantMap& message, int timeoutMs);
    bool sendAsyncMessage(const QVariantMap& message);
    bool waitForInstanceConnected(int timeoutMs);
    bool waitForInstanceDisconnected(int timeoutMs);

    void lock();
    void unlock();

    class Locker
    {
    public:
        explicit Locker(SingleInstance* instance)
            : m_instance(instance)
        {
            m_instance->lock();
        }
        ~Locker() { m_instance->unlock(); }
        Locker(const Locker&) = delete;
        Locker& operator=(const Locker&) = delete;

    private:
        SingleInstance* m_instance;
    };

private:
    SingleInstanceClient* m_client;
    SingleInstanceServer* m_server;
    QString m_lockFilePath;
    std::unique_ptr<QLockFile> m_lockFile;
};
