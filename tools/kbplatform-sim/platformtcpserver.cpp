#include "platformtcpserver.h"

#include <QSslSocket>
#include <QTimer>

QByteArray HttpHead::value(const QByteArray& name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return QByteArray();
}

std::optional<HttpHead> HttpHead::parse(const QByteArray& head)
{
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    if (requestLine.size() != 3 || !requestLine.at(2).startsWith("HTTP/1."))
        return std::nullopt;
    HttpHead result { requestLine.at(0), requestLine.at(1), {} };
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        if (line.isEmpty())
            continue;
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            return std::nullopt;
        result.headers.append({ line.left(colon).trimmed(), line.mid(colon + 1).trimmed() });
    }
    return result;
}

PlatformTcpServer::PlatformTcpServer(QObject* parent)
    : QTcpServer(parent)
{ }

PlatformTcpServer::~PlatformTcpServer() = default;

void PlatformTcpServer::incomingConnection(qintptr handle)
{
    QTcpSocket* socket = nullptr;
    if (m_ssl) {
        auto* sslSocket = new QSslSocket(this);
        if (!sslSocket->setSocketDescriptor(handle)) {
            delete sslSocket;
            return;
        }
        sslSocket->setSslConfiguration(*m_ssl);
        sslSocket->startServerEncryption();
        socket = sslSocket;
    } else {
        socket = new QTcpSocket(this);
        if (!socket->setSocketDescriptor(handle)) {
            delete socket;
            return;
        }
    }
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { examine(socket); });
    // A client that never finishes its first request head does not hold a socket for ever.
    QTimer::singleShot(HEAD_TIMEOUT_MS, socket, [socket] {
        if (socket->property("kbsim_examined").isNull())
            socket->abort();
    });
}

void PlatformTcpServer::examine(QTcpSocket* socket)
{
    // peek(), not read(): what is not a WebSocket reaches the HTTP server byte for byte.
    const QByteArray start = socket->peek(MAX_HEAD);
    const qsizetype end = start.indexOf("\r\n\r\n");
    if (end < 0 && start.size() < MAX_HEAD)
        return;
    socket->setProperty("kbsim_examined", true);
    socket->disconnect(this);
    const auto head = end < 0 ? std::nullopt : HttpHead::parse(start.left(end));
    if (head && head->value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0) {
        socket->read(end + 4);
        disconnect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        Q_EMIT webSocketRequested(socket, *head);
        return;
    }
    addPendingConnection(socket);
    Q_EMIT newConnection();
    // The HTTP server connected to readyRead just now; the bytes it waits for are already here.
    Q_EMIT socket->readyRead();
}
