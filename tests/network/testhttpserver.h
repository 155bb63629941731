#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QUrl>

#include <functional>

class QSslCertificate;
class QSslKey;
class QTcpServer;
class QTcpSocket;

struct TestHttpRequest
{
    QByteArray method;
    QByteArray target;
    QMap<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
};

struct TestHttpResponse
{
    enum Mode {
        Answer,
        NeverAnswer, // keep the connection open and silent
        CloseWithoutAnswer,
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
    Q_OBJECT
public:
    using Handler = std::function<TestHttpResponse(const TestHttpRequest&)>;

    explicit TestHttpServer(Handler handler, QObject* parent = nullptr);
    ~TestHttpServer() override;

    bool listen();
    bool listenTls(const QSslCertificate& certificate, const QSslKey& key);
    QUrl baseUrl() const;
    QList<TestHttpRequest> requests() const { return m_requests; }
    QList<QByteArray> targets() const;
    int connectionCount() const { return m_connectionCount; }

Q_SIGNALS:
    void requestReceived(); // Emitted after a request has been recorded, before it is answered

private:
    void onNewConnection();
    void onReadyRead(QTcpSocket* socket);

    Handler m_handler;
    QTcpServer* m_server = nullptr;
    bool m_tls = false;
    int m_connectionCount = 0;
    QList<TestHttpRequest> m_requests;
    QMap<QTcpSocket*, QByteArray> m_buffers;
};
