#include "socketrelayservice.h"

#include <QTcpSocket>

namespace {

constexpr qint64 READ_CHUNK = 256 * 1024;
constexpr qint64 MAX_UNWRITTEN = 1024 * 1024;

} // namespace

SocketRelayService::SocketRelayService(DeviceStreams* streams, quint32 localId, QTcpSocket* socket,
                                       QObject* parent)
    : DeviceService(streams, localId, parent)
    , m_socket(socket)
{
    m_socket->setParent(this);
    // Unread bytes stay in the kernel while the host is behind: TCP pushes back on the peer.
    m_socket->setReadBufferSize(READ_CHUNK);
    connect(m_socket, &QTcpSocket::readyRead, this, &SocketRelayService::drain);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &SocketRelayService::onBytesWritten);
    connect(m_socket, &QTcpSocket::disconnected, this, &SocketRelayService::onDisconnected);
    if (m_socket->state() != QAbstractSocket::ConnectedState)
        m_peerClosed = true;
}

SocketRelayService::~SocketRelayService()
{
    stop();
}

void SocketRelayService::start()
{
    m_started = true;
    drain();
}

void SocketRelayService::receive(const QByteArray& data)
{
    if (m_finished || m_peerClosed) {
        acknowledge();
        return;
    }
    m_socket->write(data);
    if (m_socket->bytesToWrite() < MAX_UNWRITTEN)
        acknowledge();
    else
        ++m_unacknowledged;
}

void SocketRelayService::onBytesWritten()
{
    while (m_unacknowledged > 0 && m_socket->bytesToWrite() < MAX_UNWRITTEN) {
        --m_unacknowledged;
        acknowledge();
    }
}

void SocketRelayService::resume()
{
    drain();
}

void SocketRelayService::drain()
{
    if (!m_started || m_finished)
        return;
    while (!congested() && m_socket->bytesAvailable() > 0)
        send(m_socket->read(READ_CHUNK));
    if (m_peerClosed && m_socket->bytesAvailable() == 0)
        finish();
}

void SocketRelayService::onDisconnected()
{
    m_peerClosed = true;
    // The host's writes have nowhere to go now: let it send the rest into the void.
    for (; m_unacknowledged > 0; --m_unacknowledged)
        acknowledge();
    drain();
}

void SocketRelayService::stop()
{
    if (m_finished && !m_socket)
        return;
    m_finished = true;
    if (!m_socket)
        return;
    // The host closed the stream: what it wrote still reaches the peer, then the connection ends.
    QTcpSocket* socket = std::exchange(m_socket, nullptr);
    socket->disconnect(this);
    socket->setParent(nullptr);
    if (socket->state() == QAbstractSocket::UnconnectedState) {
        socket->deleteLater();
        return;
    }
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    socket->disconnectFromHost();
}
