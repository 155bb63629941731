#pragma once

#include <QAbstractSocket>
#include <QObject>

class AbstractWebSocket;
class WebServiceClient;
class WebServiceResult;

// Obtains the right to use one instance's ADB WebSocket: instance access token, instance
// details (the WebSocket URL), then the token handshake on the socket. After `authenticated`
// it lets go of the socket, which belongs to the bridge from then on. Runs once.
class PlatformAuthenticator : public QObject
{
    Q_OBJECT
public:
    enum Error {
        RequestFailed = 0,
        InvalidResponse = 1,
        WebSocketError = 2,
        AuthenticationFailed = 3,
        GenericError = 4,
    };
    Q_ENUM(Error)

    PlatformAuthenticator(AbstractWebSocket* webSocket, const QString& instanceId,
                          WebServiceClient* webServiceClient, QObject* parent = nullptr);
    ~PlatformAuthenticator() override;

    virtual void connectWebSocket(); // virtual so a tunnel can be tested without the platform
    static QString errorCodeToString(PlatformAuthenticator::Error error);

Q_SIGNALS:
    void authenticated(); // the platform acknowledged the token; the socket is the caller's now
    void error(PlatformAuthenticator::Error error, const QString& message); // at most once

private Q_SLOTS:
    void retrieveInstanceAccessToken();
    void onInstanceAccessTokenReceived(const WebServiceResult& result);
    void retrieveInstanceDetails();
    void onInstanceDetailsReceived(const WebServiceResult& result);
    void authenticate();
    void onTextMessageReceived(const QString& message);
    void onWebSocketError(QAbstractSocket::SocketError socketError);
    void onWebSocketDisconnected();

private:
    friend class PlatformAuthenticatorProbe; // the fuzz target feeds replies to the readers below

    QString extractInstanceAccessTokenFromReply(const WebServiceResult& result);
    QString getAdbTunnelUriFromInstanceDetails(const WebServiceResult& result);
    void authenticationError(PlatformAuthenticator::Error error, const QString& message);
    void releaseWebSocket();

    AbstractWebSocket* m_webSocket;
    QString m_instanceId;
    QString m_accessToken;
    WebServiceClient* m_webServiceClient;
};

Q_DECLARE_METATYPE(PlatformAuthenticator::Error)
