#pragma once

#include "adbprotocol/PacketReader.h"
#include "adbsession.h"
#include "tcp_server.h"

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

class AbstractWebSocket;
class AdbPacket;

// Relays ADB messages between the local ADB server (TCP) and an instance (WebSocket), tracking
// streams so that, at tunnel protocol version 2, the ADB server's writes are acknowledged here
// and the device's writes are released one per acknowledgement.
class WebSocketTcpBridge : public QObject
{
    Q_OBJECT
public:
    enum State {
        IDLE = 0, // not started, or stopped
        WAITING = 1, // start() in progress
        RUNNING = 2, // listening and relaying
    };
    Q_ENUM(State)

    enum Error {
        NoError = 0,
        WebSocketError = 1, // not connected at start(), or disconnected while running
        TcpServerError = 2, // the local port could not be listened on
    };
    Q_ENUM(Error)

    // What the device may have waiting for the ADB server's OKAYs on one stream, and how many
    // messages: past either, the instance loses its connection. Each held-back write is one the
    // instance was already told was acknowledged, so it cannot be dropped alone. The ADB server
    // normally drains this far faster than any WAN fills it, but a starved machine (a profiler,
    // a loaded CI box) was seen to let an honest pull pass 64 MiB, hence the generous margin.
    static constexpr qsizetype MAX_QUEUED_BYTES_PER_STREAM = 256 * 1024 * 1024;
    static constexpr qsizetype MAX_QUEUED_MESSAGES_PER_STREAM = 64 * 1024;

    // The socket must be connected and authenticated already; it is used, never owned.
    WebSocketTcpBridge(AbstractWebSocket* webSocket, const QString& uuid, QObject* parent = nullptr);
    ~WebSocketTcpBridge() override;

    // Listens on every local address at port (0: any free port); ends RUNNING or IDLE.
    void start(quint16 port);
    void stop();
    void stop(Error error);

    State getState() const { return m_state; }
    Error getLastError() const { return m_lastError; }
    quint16 getTcpPort() const;
    QList<AdbSession::Key> sessionKeys() const { return m_sessions.keys(); }

public Q_SLOTS:
    void onWebSocketDisconnected();
    void onTcpDataReceived(const QByteArray& data);
    void onWebsocketDataReceived(const QByteArray& message);
    void deleteSessionIfPossible(AdbSession* session);

Q_SIGNALS:
    // Every state change, also a repeated IDLE. On a WebSocket disconnection it is emitted
    // before lastError becomes WebSocketError; in stop(error) after.
    void stateChanged(WebSocketTcpBridge::State state);
    // The local ADB server's connection ended; the bridge keeps listening.
    void tcpSocketDisconnected();

private:
    void setState(State state);
    void processTcpPacket(AdbPacket* packet);
    void processWebSocketPacket(AdbPacket* packet);
    AdbSession* retrieveSession(unsigned serverSideId, unsigned deviceSideId) const;
    void createSession(unsigned id, AdbSession::Origin origin);
    enum Sender { FromServer = 1, FromDevice = 2 };
    // The CNXN as it is to go on: at version 2 without delayed_ack in its features.
    QByteArray withoutDelayedAck(AdbPacket* connect, Sender sender);
    void sendBackOkayToAdbServer(const AdbPacket& message);
    void sendMessageToDevice(const QByteArray& bytes);
    void waitForWebSocketDataToBeSent();
    bool isWebSocketStillFlushing();
    void onTcpClientGone();

    State m_state = IDLE;
    Error m_lastError = NoError;
    QString m_uuid;
    QString m_logPrefix;
    QPointer<AbstractWebSocket> m_webSocket;
    TcpServer m_tcpServer;
    PacketReader m_tcpReader;
    PacketReader m_webSocketReader;
    QMap<AdbSession::Key, AdbSession*> m_sessions;
    int m_delayedAckRemovedFrom = 0; // Senders, reported when the handshake ends
};
