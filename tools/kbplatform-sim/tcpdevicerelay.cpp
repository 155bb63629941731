#include "tcpdevicerelay.h"

#include <QTcpSocket>

TcpDeviceRelay::TcpDeviceRelay(const QString& host, quint16 port, QObject* parent)
    : DeviceConnection(parent)
    , m_socket(new QTcpSocket(this))
{
    // The device's own flow control bounds what it sends; this only caps what Qt pre-reads.
    m_socket->setReadBufferSize(HIGH_WATER);
    // ADB messages are small and answer one another: no Nagle delay on the way to the device.
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(m_socket, &QTcpSocket::readyRead, this, &TcpDeviceRelay::onReadyRead);
    connect(m_socket, &QTcpSocket::disconnected, this, &TcpDeviceRelay::onDisconnected);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &TcpDeviceRelay::onBytesWritten);
    connect(m_socket, &QTcpSocket::errorOccurred, this, [this](QAbstractSocket::SocketError) {
        finish(QStringLiteral("device connection: %1").arg(m_socket->errorString()));
    });
    m_socket->connectToHost(host, port);
}

TcpDeviceRelay::~TcpDeviceRelay() = default;

void TcpDeviceRelay::write(const QByteArray& bytes)
{
    if (m_closed)
        return;
    m_socket->write(bytes);
    if (backlog() >= HIGH_WATER)
        m_congested = true;
}

void TcpDeviceRelay::close()
{
    m_socket->abort();
    finish(QStringLiteral("closed by the host"));
}

qint64 TcpDeviceRelay::backlog() const
{
    return m_socket->bytesToWrite();
}

void TcpDeviceRelay::onReadyRead()
{
    const QByteArray bytes = m_socket->readAll();
    if (!bytes.isEmpty() && !m_closed)
        Q_EMIT received(bytes);
}

void TcpDeviceRelay::onDisconnected()
{
    finish(QStringLiteral("the device closed the connection"));
}

void TcpDeviceRelay::onBytesWritten()
{
    if (m_congested && backlog() < HIGH_WATER / 2) {
        m_congested = false;
        Q_EMIT backlogDrained();
    }
}

void TcpDeviceRelay::finish(const QString& reason)
{
    if (m_closed)
        return;
    m_closed = true;
    Q_EMIT closed(reason);
}
