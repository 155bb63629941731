#include "abstractwebsocket.h"

AbstractWebSocket::AbstractWebSocket(QObject* parent)
    : QObject(parent)
{
    // Sockets live in tunnel threads; these signals may be queued to other threads.
    qRegisterMetaType<QAbstractSocket::SocketState>();
    qRegisterMetaType<QList<QSslError>>();
}

AbstractWebSocket::~AbstractWebSocket() = default;

qint64 AbstractWebSocket::bytesToWrite() const
{
    return 0;
}

void AbstractWebSocket::setReadingPaused(bool)
{
}

bool AbstractWebSocket::isReadingPaused() const
{
    return false;
}
