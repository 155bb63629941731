#include "tcp_server.h"

#include "adbprotocol/AdbTunnelLogger.h"
#include "tcp_socket.h"

#include <QDebug>

TcpServer::TcpServer(QObject* parent)
    : QTcpServer(parent)
{
    connect(this, &QTcpServer::newConnection, this, &TcpServer::onClientConnected);
}

TcpServer::~TcpServer()
{
    if (m_client)
        m_client->dispose();
}

void TcpServer::incomingConnection(qintptr socketDescriptor)
{
    // Our own socket class, so that nextPendingConnection() hands out a TcpSocket.
    auto* socket = new TcpSocket(nullptr);
    if (!socket->setSocketDescriptor(socketDescriptor, QAbstractSocket::ConnectedState,
                                     QIODevice::ReadWrite)) {
        qWarning() << "Tcp server cannot accept a connection:" << socket->errorString();
        delete socket;
        return;
    }
    // ADB messages are small and answered one by one: with Nagle on, the second of two small
    // writes waits for the ADB server's delayed acknowledgement (~40 ms on Linux).
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    addPendingConnection(socket);
}

void TcpServer::onClientConnected()
{
    while (hasPendingConnections()) {
        auto* socket = qobject_cast<TcpSocket*>(nextPendingConnection());
        if (!socket)
            continue;
        if (m_client && m_client->state() != QAbstractSocket::UnconnectedState) {
            // The ADB server talks over a single connection; a second one is never served.
            socket->close();
            delete socket;
            continue;
        }
        if (m_client)
            m_client->dispose();
        m_client = socket;
        connect(socket, &TcpSocket::dataReceived, this, &TcpServer::onDataReceived);
        connect(socket, &QAbstractSocket::disconnected, this, &TcpServer::socketDisconnected);
    }
}

void TcpServer::onDataReceived(const QByteArray& data)
{
    Q_EMIT dataReceived(data);
}

void TcpServer::sendData(const QByteArray& data)
{
    if (!isListening()) {
        qWarning() << "Tcp server not started.";
        return;
    }
    if (!m_client) {
        qDebug() << "No connected client.";
        return;
    }
    AdbTunnelLogger::printAdbMessage(data, QStringLiteral("ADB SERVER <= TUNNEL SOFT"));
    m_client->sendData(data);
}

void TcpServer::stop()
{
    close();
    if (m_client) {
        TcpSocket* client = m_client;
        m_client = nullptr;
        client->dispose();
    }
}
