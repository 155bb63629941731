#pragma once

#include <QObject>
#include <QVariant>

#include <functional>

class QLocalServer;
class QLocalSocket;

// The listening end: owns the local socket and hands each request map to the message handler.
class SingleInstanceServer : public QObject
{
    Q_OBJECT
public:
    using MessageHandler = std::function<QVariant(const QVariantMap&)>;

    SingleInstanceServer(const QString& name, const QString& directory, QObject* parent = nullptr);
    ~SingleInstanceServer() override;

    bool listen();
    QString getInstanceName() const;
    QString serverName() const;
    void setMessageHandlerFunction(const MessageHandler& handler);
    MessageHandler getMessageHandlerFunction() const;

public Q_SLOTS:
    void onNewConnection();

private:
    void handleRequest(QLocalSocket* socket, const QByteArray& payload);

    QString m_instanceName;
    QString m_serverName;
    MessageHandler m_messageHandlerFunction;
    QLocalServer* m_localServer = nullptr;
};
