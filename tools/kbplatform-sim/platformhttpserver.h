#pragma once

#include <QAbstractHttpServer>
#include <QHttpServerResponder>
#include <QJsonObject>

class PlatformSimulator;

// The platform's REST API ("/v1/...") and the simulator's admin API ("/_sim/..."). Instance
// WebSockets arrive through newWebSocketConnection().
class PlatformHttpServer : public QAbstractHttpServer
{
    Q_OBJECT

public:
    explicit PlatformHttpServer(PlatformSimulator* simulator);
    ~PlatformHttpServer() override;

protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override;
    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override;

private:
    using Status = QHttpServerResponder::StatusCode;

    void handleRest(const QHttpServerRequest& request, QTcpSocket* socket);
    void handleAdmin(const QHttpServerRequest& request, QTcpSocket* socket);
    // Answers a failed authorisation and returns false, or returns true.
    bool checkAuthorization(const QHttpServerRequest& request, QTcpSocket* socket);
    static void reply(const QHttpServerRequest& request, QTcpSocket* socket, const QJsonObject& body,
                      Status status = Status::Ok);
    static void replyError(const QHttpServerRequest& request, QTcpSocket* socket, Status status,
                           const QString& message);

    PlatformSimulator* m_simulator;
};
