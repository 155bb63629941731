#pragma once

#include <QHostAddress>
#include <QObject>

#include <functional>

class DeviceConnection;
class QTcpServer;

// An instance's device on a plain TCP port, as a networked device would be: the target of
// `adb connect HOST:PORT` without any tunnel.
class DevicePortServer : public QObject
{
    Q_OBJECT

public:
    using DeviceFactory = std::function<DeviceConnection*(QObject* parent)>;

    DevicePortServer(DeviceFactory factory, QObject* parent);
    ~DevicePortServer() override;

    bool listen(const QHostAddress& address, QString* error);
    quint16 port() const;

private Q_SLOTS:
    void onNewConnection();

private:
    DeviceFactory m_factory;
    QTcpServer* m_server;
};
