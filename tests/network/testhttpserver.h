#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QSslConfiguration>
#include <QSslServer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>

struct TestHttpRequest
{
    QByteArray method;
    QByteArray target;
    QMap<QByteArray, QByteArray> headers; // names in lower case
};

struct TestHttpResponse
{
    enum Mode {
        Answer,
        NeverAnswer, // keep the connection open and silent
        CloseMidBody, // announce the whole body, send half of it, close
    };

    int status = 200;
    QByteArray body; // sent as application/json
    Mode mode = Answer;

    static TestHttpResponse json(int status, const QByteArray& body) { return { status, body, Answer }; }
};

// A minimal HTTP/1.1 server on 127.0.0.1, plain or TLS, that records every request and answers
// through a handler given by the test.
class TestHttpServer : public QObject
{
public:
    using Handler = std::function<TestHttpResponse(const TestHttpRequest&)>;

    explicit TestHttpServer(Handler handler)
        : m_handler(std::move(handler))
    { }

    bool listen() { return listenOn(new QTcpServer(this)); }
    bool listenTls(const QSslCertificate& certificate, const QSslKey& key)
    {
        auto* server = new QSslServer(this);
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setLocalCertificate(certificate);
        configuration.setPrivateKey(key);
        server->setSslConfiguration(configuration);
        m_scheme = QStringLiteral("https");
        return listenOn(server);
    }
    QUrl baseUrl() const
    {
        return QUrl(QStringLiteral("%1://127.0.0.1:%2").arg(m_scheme).arg(m_server->serverPort()));
    }
    QList<TestHttpRequest> requests() const { return m_requests; }
    QList<QByteArray> targets() const
    {
        QList<QByteArray> targets;
        for (const TestHttpRequest& request : m_requests)
            targets.append(request.method + ' ' + request.target);
        return targets;
    }

private:
    bool listenOn(QTcpServer* server)
    {
        m_server = server;
        // A TLS server hands a connection over only once its handshake is done.
        connect(server, &QTcpServer::pendingConnectionAvailable, this, [this] {
            while (QTcpSocket* socket = m_server->nextPendingConnection()) {
                socket->setParent(this);
                auto buffer = std::make_shared<QByteArray>();
                connect(socket, &QTcpSocket::readyRead, this,
                        [this, socket, buffer] { read(socket, *buffer); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                if (socket->bytesAvailable() > 0)
                    read(socket, *buffer);
            }
        });
        return server->listen(QHostAddress::LocalHost);
    }

    void read(QTcpSocket* socket, QByteArray& buffer)
    {
        buffer += socket->readAll();
        for (;;) {
            const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
            if (headerEnd < 0)
                return;
            const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
            TestHttpRequest request;
            const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
            request.method = requestLine.value(0);
            request.target = requestLine.value(1);
            for (const QByteArray& line : lines.mid(1)) {
                const qsizetype colon = line.indexOf(':');
                if (colon > 0)
                    request.headers.insert(line.left(colon).trimmed().toLower(),
                                           line.mid(colon + 1).trimmed());
            }
            const qsizetype end = headerEnd + 4 + request.headers.value("content-length").toInt();
            if (buffer.size() < end)
                return;
            buffer.remove(0, end);

            m_requests.append(request);
            const TestHttpResponse response = m_handler(request);
            if (response.mode == TestHttpResponse::NeverAnswer)
                return;
            const QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status)
                + (response.status < 400 ? " OK" : " Error") + "\r\nContent-Type: application/json\r\n"
                + "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n\r\n";
            if (response.mode == TestHttpResponse::CloseMidBody) {
                // The client must see the status line before the connection drops.
                socket->write(head);
                const QByteArray part = response.body.left(response.body.size() / 2);
                QTimer::singleShot(50, socket, [socket, part]() {
                    socket->write(part);
                    socket->disconnectFromHost();
                });
                return;
            }
            socket->write(head + response.body);
        }
    }

    Handler m_handler;
    QTcpServer* m_server = nullptr;
    QString m_scheme = QStringLiteral("http");
    QList<TestHttpRequest> m_requests;
};
