#include "tcp_server.h"

#include "adbprotocol/AdbTunnelLogger.h"
#include "tcp_socket.h"
#include "utils/envvars.h"

#include <QDebug>
#include <QHostAddress>

const char* const TcpServer::ENV_ALLOW_REMOTE = "KB_TUNNEL_ALLOW_REMOTE";

TcpServer::TcpServer(QObject* parent)
    : QTcpServer(parent)
{
    connect(this, &QTcpServer::newConnection, this, &TcpServer::onClientConnected);
    const QString allowRemote = EnvVars::getString(ENV_ALLOW_REMOTE, QString());
    m_allowRemote = allowRemote == QLatin1String("1");
    if (m_allowRemote) {
        qWarning() << "KB_TUNNEL_ALLOW_REMOTE=1: any host that reaches this port gets the device";
    } else if (!allowRemote.isEmpty() && allowRemote != QLatin1String("0")) {
        qWarning().noquote() << QStringLiteral("KB_TUNNEL_ALLOW_REMOTE=%1 is neither 1 nor 0: only "
                                               "this machine may use the tunnel")
                                    .arg(allowRemote);
    }
}

bool TcpServer::admits(const QHostAddress& peer) const
{
    return m_allowRemote || peer.isLoopback();
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
    // The listener is on every address so that "localhost" works whichever family it resolves
    // to; whoever is served here is the ADB server, with a shell on the cloud device and no
    // authentication of its own. A stranger is turned away before it can take or displace the
    // client's place, without a byte from the device.
    if (!admits(socket->peerAddress())) {
        // The dual-stack listener sees IPv4 peers as ::ffff:a.b.c.d; users know them as a.b.c.d.
        bool isIPv4 = false;
        const quint32 ipv4 = socket->peerAddress().toIPv4Address(&isIPv4);
        const QHostAddress peer = isIPv4 ? QHostAddress(ipv4) : socket->peerAddress();
        qWarning().noquote() << QStringLiteral("Refused a connection to the tunnel port from %1 port %2: "
                                               "only this machine may use the tunnel")
                                    .arg(peer.toString())
                                    .arg(socket->peerPort());
        socket->abort();
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
