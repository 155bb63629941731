#pragma once

#include "adbtunnelinfo.h"
#include "platformauthenticator.h"
#include "web_socket_tcp_bridge.h"

#include <QObject>
#include <QUrl>

#include <memory>

class AbstractCredentialsProvider;
class AbstractWebSocket;
class AdbClient;
class NetworkProvider;
class QThread;

// One attempt at connecting one cloud instance to the local ADB server: authentication, the
// bridge on a local port, then `adb connect`. Lives in its controller's worker thread; a
// restart is a new AdbTunnel.
class AdbTunnel : public QObject
{
    Q_OBJECT
public:
    enum Error {
        AuthenticationError = 0,
        DisconnectionError = 1,
        BridgeBusyPortError = 2,
        AdbError = 3,
    };
    Q_ENUM(Error)

    AdbTunnel(NetworkProvider* networkProvider, AbstractCredentialsProvider* credentialsProvider,
              AdbTunnelInfo* info, QObject* parent = nullptr);
    ~AdbTunnel() override;

    QString getDeviceId() const;
    QString getDeviceSerial() const;

public Q_SLOTS:
    void doWork();

Q_SIGNALS:
    void success(); // ADB is connected through the tunnel; emitted from the tunnel's thread
    void error(const AdbTunnel::Error& error); // every failure, once per cause; tunnel's thread

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
};

Q_DECLARE_METATYPE(AdbTunnel::Error)

// The platform's REST base URL: $KB_PLATFORM_BASE_URL, or the production platform.
QUrl getPlatformBaseUrl();
