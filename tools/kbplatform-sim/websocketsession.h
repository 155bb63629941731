#pragma once

#include "cloudmirror.h"
#include "siminstance.h"

#include "adbprotocol/PacketReader.h"

#include <QObject>
#include <QPointer>

#include <optional>

class DeviceConnection;
class FaultInjector;
class LinkModel;
class QTimer;
class QWebSocket;
class RequestLog;

// One instance ADB WebSocket: the token handshake, then ADB bytes between the daemon and a
// device of the instance, through the link model, and at tunnel version 2 through the cloud
// mirror.
class WebSocketSession : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 MAX_MESSAGE = 4 * 1024 * 1024;
    static constexpr qint64 HANDSHAKE_TIMEOUT_MS = 10000;
    // What the daemon may have in flight towards the device before the WebSocket is dropped.
    static constexpr qint64 MAX_BACKLOG = 256 * 1024 * 1024;
    static constexpr qint64 CONGESTED = 4 * 1024 * 1024;

    WebSocketSession(QWebSocket* socket, SimInstance* instance, FaultInjector* faults, RequestLog* log,
                     qint64 logIndex);
    ~WebSocketSession() override;

    bool isRelaying() const { return m_state == State::Relaying; }
    int tunnelVersion() const { return m_version; }
    void setLink(int rttMs, qint64 bandwidthKbps);
    void scheduleClose(const SimInstance::CloseRequest& request);

private Q_SLOTS:
    void onTextMessageReceived(const QString& message);
    void onBinaryMessageReceived(const QByteArray& message);
    void onDisconnected();
    void onUplinkDelivered(const QByteArray& chunk);
    void onDownlinkDelivered(const QByteArray& chunk);
    void onDeviceReceived(const QByteArray& bytes);
    void onDeviceClosed(const QString& reason);
    void updateCongestion();

private:
    enum class State { Handshake, Relaying, Closing };

    void authenticate(const QString& message);
    void refuse(const QString& message);
    void closeSocket(int code, const QString& reason, bool abort = false);
    void flushMirror();
    void countBytes(qint64 bytes);
    bool checkBacklog();

    QWebSocket* m_socket;
    SimInstance* m_instance;
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
    qint64 m_bytes = 0;
    std::optional<SimInstance::CloseRequest> m_close;
    qint64 m_closeAtBytes = 0;
};
