#pragma once

#include "adbtunnelinfo.h"

#include <QObject>
#include <QUrl>

class AbstractCredentialsProvider;
class NetworkProvider;

// One attempt at connecting one cloud instance to the local ADB server. Lives in its
// controller's worker thread; a restart is a new AdbTunnel.
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

private:
    AdbTunnelInfo* m_info;
    NetworkProvider* m_networkProvider;
    AbstractCredentialsProvider* m_credentialsProvider;
};

Q_DECLARE_METATYPE(AdbTunnel::Error)

// The platform's REST base URL: $KB_PLATFORM_BASE_URL, or the production platform.
QUrl getPlatformBaseUrl();
