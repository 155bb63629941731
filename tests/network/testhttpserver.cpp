#include "testhttpserver.h"

#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

TestHttpServer::TestHttpServer(Handler handler, QObject* parent)
    : QObject(parent)
    , m_handler(std::move(handler))
{ }

TestHttpServer::~TestHttpServer() = default;

bool TestHttpServer::listen()
{
    m_server = new QTcpServer(this);
    connect(m_server, &QTcpServer::newConnection, this, &TestHttpServer::onNewConnection);
    return m_server->listen(QHostAddress::LocalHost);
}

bool TestHttpServer::listenTls(const QSslCertificate& certificate, const QSslKey& key)
{
    auto* server = new QSslServer(this);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(certificate);
    configuration.setPrivateKey(key);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    server->setSslConfiguration(configuration);
    // A client that refuses the certificate still counts as a connection attempt.
    connect(server, &QSslServer::startedEncryptionHandshake, this, [this]() { ++m_connectionCount; });
    connect(server, &QTcpServer::pendingConnectionAvailable, this, &TestHttpServer::onNewConnection);
    m_server = server;
    m_tls = true;
    return m_server->listen(QHostAddress::LocalHost);
}

QUrl TestHttpServer::baseUrl() const
{
    QUrl url;
    url.setScheme(m_tls ? QStringLiteral("https") : QStringLiteral("http"));
    url.setHost(QStringLiteral("127.0.0.1"));
    url.setPort(m_server->serverPort());
    return url;
}

QList<QByteArray> TestHttpServer::targets() const
{
    QList<QByteArray> targets;
    for (const TestHttpRequest& request : m_requests)
        targets.append(request.method + ' ' + request.target);
    return targets;
}

void TestHttpServer::onNewConnection()
{
    while (QTcpSocket* socket = m_server->nextPendingConnection()) {
        if (!m_tls)
            ++m_connectionCount;
        socket->setParent(this);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket]() { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket]() {
            m_buffers.remove(socket);
            socket->deleteLater();
        });
        if (socket->bytesAvailable() > 0)
            onReadyRead(socket);
    }
}

void TestHttpServer::onReadyRead(QTcpSocket* socket)
{
    QByteArray& buffer = m_buffers[socket];
    buffer += socket->readAll();
    for (;;) {
        const int headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        TestHttpRequest request;
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        for (int i = 1; i < lines.size(); ++i) {
            const int colon = lines.at(i).indexOf(':');
            if (colon > 0)
                request.headers.insert(lines.at(i).left(colon).trimmed().toLower(),
                                       lines.at(i).mid(colon + 1).trimmed());
        }
        const int length = request.headers.value("content-length").toInt();
        if (buffer.size() < headerEnd + 4 + length)
            return;
        request.body = buffer.mid(headerEnd + 4, length);
        buffer.remove(0, headerEnd + 4 + length);

        m_requests.append(request);
        Q_EMIT requestReceived();
        const TestHttpResponse response = m_handler(request);
        switch (response.mode) {
        case TestHttpResponse::NeverAnswer:
            return;
        case TestHttpResponse::CloseWithoutAnswer:
            socket->disconnectFromHost();
            return;
        case TestHttpResponse::Answer:
        case TestHttpResponse::CloseMidBody:
            break;
        }
        const QByteArray out = "HTTP/1.1 " + QByteArray::number(response.status)
            + (response.status < 400 ? " OK" : " Error") + "\r\nContent-Type: application/json\r\n"
            + "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n\r\n";
        if (response.mode == TestHttpResponse::CloseMidBody) {
            // The client must see the status line before the connection drops.
            socket->write(out);
            const QByteArray part = response.body.left(response.body.size() / 2);
            QTimer::singleShot(50, socket, [socket, part]() {
                socket->write(part);
                socket->disconnectFromHost();
            });
            return;
        }
        socket->write(out + response.body);
    }
}
