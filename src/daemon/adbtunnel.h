#pragma once

#include "abstractadbtunnel.h"
#include "adbtunnelinfo.h"
#include "platformauthenticator.h"
#include "web_socket_tcp_bridge.h"

#include <QObject>
#include <QUrl>

#include <functional>
#include <memory>

class AbstractCredentialsProvider;
class AbstractWebSocket;
class AdbClient;
class NetworkProvider;
class QThread;

// The parts of a tunnel that reach beyond this process: the instance's web socket, the platform's
// authentication and the local adb. An empty member means the real one.
struct AdbTunnelParts
{
    // Called in the tunnel's thread; parent is the tunnel.
    std::function<AbstractWebSocket*(QObject* parent)> makeWebSocket;
    // Called in the tunnel's thread with the tunnel's web socket; parent is the tunnel.
    std::function<PlatformAuthenticator*(AbstractWebSocket* webSocket, const QString& instanceId,
                                         QObject* parent)>
        makeAuthenticator;
    // Called in the tunnel's thread; the tunnel moves the client to its ADB thread.
    std::function<AdbClient*(const QString& serial)> makeAdbClient;
};

// One attempt at connecting one cloud instance to the local ADB server: authentication, the
// bridge on a local port, then `adb connect`. Lives in its controller's worker thread; a
// restart is a new AdbTunnel.
class AdbTunnel : public AbstractAdbTunnel
{
    Q_OBJECT
public:
    AdbTunnel(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
              AdbTunnelInfo* info, QObject* parent = nullptr, AdbTunnelParts parts = {});
    ~AdbTunnel() override;

    QString getDeviceId() const;
    QString getDeviceSerial() const;

public Q_SLOTS:
    void doWork() override;

private Q_SLOTS:
    void onAuthenticationSuccess();
    void onAuthenticationError(PlatformAuthenticator::Error error, const QString& message);
    void onWebSocketDisconnected();
    void onWebSocketError();
    void onBridgeStateChanged(WebSocketTcpBridge::State state);
    void connectToAdbTunnel();
    void onAdbconnectSuccess();
    void onAdbconnectError(const QString& reason);

private:
    // Records why in the shared info, so that the daemon can tell the user, then emits error().
    void fail(Error error, const QString& reason);
    PlatformAuthenticator* makeAuthenticator();

    struct AdbClientDeleter
    {
        void operator()(AdbClient* client) const;
    };

    AbstractWebSocket* m_webSocket = nullptr;
    PlatformAuthenticator* m_authenticator = nullptr;
    WebSocketTcpBridge* m_bridge = nullptr;
    std::unique_ptr<AdbClient, AdbClientDeleter> m_adbClient;
    AdbTunnelInfo* m_info;
    NetworkProvider* m_networkProvider;
    AbstractCredentialsProvider* m_credentialsProvider;
    QThread* m_adbThread;
    AdbTunnelParts m_parts;
};

// The platform's REST base URL: $KB_PLATFORM_BASE_URL, or the production platform.
QUrl getPlatformBaseUrl();
