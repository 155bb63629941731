#include "deviceportserver.h"

#include "deviceconnection.h"

#include <QTcpServer>
#include <QTcpSocket>

DevicePortServer::DevicePortServer(DeviceFactory factory, QObject* parent)
    : QObject(parent)
    , m_factory(std::move(factory))
    , m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, &DevicePortServer::onNewConnection);
}

DevicePortServer::~DevicePortServer() = default;

bool DevicePortServer::listen(const QHostAddress& address, QString* error)
{
    if (m_server->listen(address, 0))
        return true;
    *error = m_server->errorString();
    return false;
}

quint16 DevicePortServer::port() const
{
    return m_server->serverPort();
}

void DevicePortServer::onNewConnection()
{
    while (QTcpSocket* socket = m_server->nextPendingConnection()) {
        // Unread host bytes stay in the kernel (TCP pushes back) while the device is behind.
        socket->setReadBufferSize(DeviceConnection::HIGH_WATER);
        // ADB messages are small and answer one another (OKAY for WRTE): Nagle would hold each
        // one back for the peer's delayed TCP acknowledgement.
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        DeviceConnection* device = m_factory(socket);
        const auto feed = [socket, device] {
            if (device->backlog() < DeviceConnection::HIGH_WATER && socket->bytesAvailable() > 0)
                device->write(socket->readAll());
        };
        connect(socket, &QTcpSocket::readyRead, device, feed);
        connect(device, &DeviceConnection::backlogDrained, socket, feed);
        connect(device, &DeviceConnection::received, socket,
                [socket](const QByteArray& bytes) { socket->write(bytes); });
        connect(device, &DeviceConnection::closed, socket, [socket](const QString& reason) {
            qInfo() << "device port: connection ended:" << reason;
            socket->disconnectFromHost();
        });
        connect(socket, &QTcpSocket::disconnected, device, [socket, device] {
            device->close();
            socket->deleteLater();
        });
        if (socket->bytesAvailable() > 0)
            feed();
    }
}
