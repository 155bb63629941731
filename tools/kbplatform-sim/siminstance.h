#pragma once

#include "emulateddevice.h"
#include "sessionhost.h"

#include <QDateTime>
#include <QHostAddress>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>

#include <map>
#include <memory>
#include <optional>

class DeviceConnection;
class DevicePortServer;
class FaultInjector;
class RequestLog;
class WebSocketConnection;
class WebSocketSession;

// One cloud instance: its device (emulated, or a relay to a real adbd), the device's raw TCP
// port, the access tokens issued for it, its link model settings and its open WebSockets.
class SimInstance : public QObject, public SessionHost
{
    Q_OBJECT

public:
    struct Settings
    {
        QString uuid;
        QString sandboxDir; // the emulated device's "/"
        QString supportDir; // simulator files outside the sandbox (getprop)
        QString deviceHost; // relay target; empty for the emulated device
        quint16 devicePort = 0;
        int rttMs = 0;
        qint64 bandwidthKbps = 0;
        DeviceDialect deviceDialect = DeviceDialect::Modern;
    };

    static constexpr int MAX_ACCESS_TOKENS = 256;
    static constexpr qint64 ACCESS_TOKEN_TTL_MS = 10 * 60 * 1000;

    SimInstance(const Settings& settings, FaultInjector* faults, RequestLog* log, QObject* parent);
    ~SimInstance() override;

    bool start(const QHostAddress& address, QString* error);

    QString uuid() const override { return m_settings.uuid; }
    quint16 devicePort() const;
    QJsonObject toJson() const;

    QString issueAccessToken();
    bool isAccessTokenValid(const QString& token) override;

    DeviceConnection* createDevice(QObject* parent) const override;
    void acceptWebSocket(WebSocketConnection* socket, qint64 logIndex);

    void setLink(int rttMs, qint64 bandwidthKbps);
    int rttMs() const override { return m_settings.rttMs; }
    qint64 bandwidthKbps() const override { return m_settings.bandwidthKbps; }
    // Applies to the WebSockets relaying now and to later ones, until changed.
    void setCloudFault(const CloudFault& fault);
    CloudFault cloudFault() const override { return m_cloudFault; }
    // Applies to the WebSockets relaying now; with none, to the next one to authenticate.
    void closeWebSockets(const CloseRequest& request);
    std::optional<CloseRequest> takePendingClose() override;

private:
    bool writeSupportFiles(QString* error);

    Settings m_settings;
    FaultInjector* m_faults;
    RequestLog* m_log;
    DeviceProfile m_profile;
    DevicePortServer* m_portServer = nullptr;
    std::map<QString, QDateTime> m_accessTokens;
    QList<QPointer<WebSocketSession>> m_sessions;
    std::optional<CloseRequest> m_pendingClose;
    CloudFault m_cloudFault;
};
