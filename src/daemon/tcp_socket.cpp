#include "tcp_socket.h"

#include <QDebug>
#include <QPointer>

TcpSocket::TcpSocket(QObject* parent)
    : QTcpSocket(parent)
{
    connect(this, &QTcpSocket::readyRead, this, &TcpSocket::onReadyRead);
    connect(this, &QAbstractSocket::errorOccurred, this, [this](QAbstractSocket::SocketError socketError) {
        qDebug().noquote() << "Tcp client error:" << socketError << errorString();
    });
}

TcpSocket::~TcpSocket() = default;

void TcpSocket::sendData(const QByteArray& data)
{
    const qint64 written = write(data);
    if (written < 0)
        qWarning().noquote() << "No bytes written" << error() << errorString();
    else if (written < qint64(int(data.size())))
        qWarning() << "Write" << written << "bytes instead of" << int(data.size()) << "in tcp socket.";
}

void TcpSocket::onReadyRead()
{
    QByteArray buffer(READ_CHUNK_SIZE, Qt::Uninitialized);
    // A receiver may end up deleting this socket (the bridge being torn down mid-relay).
    const QPointer<TcpSocket> self(this);
    while (self && bytesAvailable() > 0) {
        const qint64 n = read(buffer.data(), READ_CHUNK_SIZE);
        if (n < 0) {
            qWarning().noquote() << "No bytes read" << error() << errorString();
            // Only a closed device fails a read with bytes available; looping again would spin.
            break;
        }
        Q_EMIT dataReceived(QByteArray::fromRawData(buffer.constData(), n));
    }
}
