#pragma once

#include "cloudmirror.h"
#include "sessionhost.h"

#include "adbprotocol/PacketReader.h"

#include <QObject>

#include <optional>

class DeviceConnection;
class FaultInjector;
class LinkModel;
class QTimer;
class RequestLog;
class WebSocketConnection;

// One instance ADB WebSocket: the token handshake, then ADB bytes between the daemon and a
// device of the instance, through the link model, and at tunnel version 2 through the cloud
// mirror. Both directions are bounded by backpressure: the daemon's WebSocket is not read while
// too much waits for the device, and at version 2 the device's writes are not acknowledged while
// too much waits for the daemon (at version 1 the daemon's own acknowledgements do that).
class WebSocketSession : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 HANDSHAKE_TIMEOUT_MS = 10000;
    // Bytes from the daemon waiting for the device above which the WebSocket is not read.
    static constexpr qint64 UPLINK_HIGH = 8 * 1024 * 1024;
    static constexpr qint64 UPLINK_LOW = 2 * 1024 * 1024;
    static constexpr qint64 CONGESTED = 4 * 1024 * 1024;

    WebSocketSession(WebSocketConnection* socket, SessionHost* host, FaultInjector* faults, RequestLog* log,
                     qint64 logIndex, QObject* parent);
    ~WebSocketSession() override;

    bool isRelaying() const { return m_state == State::Relaying; }
    int tunnelVersion() const { return m_version; }
    void setLink(int rttMs, qint64 bandwidthKbps);
    void scheduleClose(const SessionHost::CloseRequest& request);
    // Takes effect at once while relaying, else right after the authentication.
    void applyCloudFault(const SessionHost::CloudFault& fault);

private Q_SLOTS:
    void onTextMessageReceived(const QString& message);
    void onBinaryMessageReceived(const QByteArray& message);
    void onDisconnected();
    void onUplinkDelivered(const QByteArray& chunk);
    void onDownlinkDelivered(const QByteArray& chunk);
    void onDeviceReceived(const QByteArray& bytes);
    void onDeviceClosed(const QString& reason);
    void updateCongestion();
    void updateUplink();

private:
    // Misbehaving: a raw stream of bytes that are no longer a relay.
    enum class State { Handshake, Relaying, Misbehaving, Closing };

    void authenticate(const QString& message);
    void refuse(const QString& message);
    void closeSocket(int code, const QString& reason, bool abort = false);
    void flushMirror();
    void countBytes(qint64 bytes);
    qint64 uplinkBacklog() const;

    WebSocketConnection* m_socket;
    SessionHost* m_host;
    FaultInjector* m_faults;
    RequestLog* m_log;
    qint64 m_logIndex;
    State m_state = State::Handshake;
    int m_version = 1;
    QTimer* m_handshakeTimer;
    LinkModel* m_link = nullptr;
    DeviceConnection* m_device = nullptr;
    PacketReader m_deviceReader; // version 1: cuts the device's bytes into one message per frame
    std::optional<CloudMirror> m_mirror;
    bool m_flushing = false;
    bool m_uplinkPaused = false;
    bool m_stalled = false;
    qint64 m_bytes = 0;
    std::optional<SessionHost::CloseRequest> m_close;
    qint64 m_closeAtBytes = 0;
};
