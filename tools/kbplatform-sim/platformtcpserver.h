#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QSslConfiguration>
#include <QTcpServer>

#include <optional>

class QTcpSocket;

// The head of an HTTP/1.1 request.
struct HttpHead
{
    QByteArray method;
    QByteArray target; // path and query as sent
    QList<QPair<QByteArray, QByteArray>> headers;

    QByteArray value(const QByteArray& name) const; // case-insensitive; the first one
    // Parses "METHOD target HTTP/1.x" and the header lines up to (not including) the blank line.
    static std::optional<HttpHead> parse(const QByteArray& head);
};

// The simulator's one listening port. Each connection (after TLS, in HTTPS mode) is held until
// its first request head has arrived: a WebSocket upgrade is handed out by webSocketRequested
// with the head consumed, anything else goes untouched to the HTTP server bound to this one.
// The WebSocket side is ours so that the cloud half can read slowly, stop reading and send
// frames QWebSocket never would.
class PlatformTcpServer : public QTcpServer
{
    Q_OBJECT

public:
    static constexpr qsizetype MAX_HEAD = 16 * 1024;
    static constexpr int HEAD_TIMEOUT_MS = 10000;

    explicit PlatformTcpServer(QObject* parent);
    ~PlatformTcpServer() override;

    void setSslConfiguration(const QSslConfiguration& configuration) { m_ssl = configuration; }

Q_SIGNALS:
    // The socket's request is a WebSocket upgrade; its head has been read. The receiver owns it.
    void webSocketRequested(QTcpSocket* socket, const HttpHead& head);

protected:
    void incomingConnection(qintptr handle) override;

private:
    void examine(QTcpSocket* socket);

    std::optional<QSslConfiguration> m_ssl;
};
