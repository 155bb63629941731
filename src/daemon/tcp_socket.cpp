#include "tcp_socket.h"

#include <QDebug>

TcpSocket::TcpSocket(QObject* parent)
    : QTcpSocket(parent)
{
    setReadBufferSize(READ_BUFFER_SIZE);
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

void TcpSocket::dispose()
{
    disconnect();
    abort();
    // QAbstractSocket still uses itself after readyRead returns: deleting it from inside that
    // signal, even with deleteLater() from a nested event loop, would be a use after free.
    if (m_reading)
        m_disposed = true;
    else
        delete this;
}

void TcpSocket::setReadingPaused(bool paused)
{
    if (m_readingPaused == paused)
        return;
    m_readingPaused = paused;
    // What arrived meanwhile raises no new readyRead; queued, as we may be inside a reader's slot.
    if (!paused && bytesAvailable() > 0)
        QMetaObject::invokeMethod(this, &TcpSocket::onReadyRead, Qt::QueuedConnection);
}

void TcpSocket::onReadyRead()
{
    if (m_reading || m_disposed || m_readingPaused)
        return;
    m_reading = true;
    QByteArray buffer(READ_CHUNK_SIZE, Qt::Uninitialized);
    while (!m_disposed && !m_readingPaused && bytesAvailable() > 0) {
        const qint64 n = read(buffer.data(), READ_CHUNK_SIZE);
        if (n < 0) {
            qWarning().noquote() << "No bytes read" << error() << errorString();
            // Only a closed device fails a read with bytes available; looping again would spin.
            break;
        }
        Q_EMIT dataReceived(QByteArray::fromRawData(buffer.constData(), n));
    }
    m_reading = false;
    if (m_disposed)
        deleteLater(); // posted at this level: runs once the socket's notification has unwound
}
