#pragma once

#include "adbprotocol/PacketReader.h"
#include "adbsession.h"
#include "tcp_server.h"
#include "tcp_socket.h"

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

    // Flow control, one bound per tunnel and direction: once more than HIGH_WATERMARK bytes wait
    // for the slower side, the other side is no longer read (TCP then slows it down); reading
    // resumes below LOW_WATERMARK. Towards the ADB server the bytes waiting are all sessions'
    // held-back writes plus what the local socket has not written yet; towards the device, what
    // the WebSocket has not written yet. Nothing is dropped to stay under them.
    static constexpr qint64 HIGH_WATERMARK = 16 * 1024 * 1024;
    static constexpr qint64 LOW_WATERMARK = 4 * 1024 * 1024;

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
    // Bytes waiting for the ADB server: the sessions' held-back writes and the local socket's
    // unwritten bytes (the measure of the device-side watermark).
    qint64 heldForAdbServer() const;

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
    void onTcpClientAdmitted();
    void onTcpClientGone();
    // Drops every session with its held-back writes: the ADB server's streams they belong to are gone.
    void resetSessions();
    void enqueueForAdbServer(AdbSession* session, const QByteArray& message);
    void okayFromAdbServer(AdbSession* session);
    void updateWebSocketReading();
    void updateTcpReading();

    State m_state = IDLE;
    Error m_lastError = NoError;
    QString m_uuid;
    QString m_logPrefix;
    QPointer<AbstractWebSocket> m_webSocket;
    TcpServer m_tcpServer;
    PacketReader m_tcpReader;
    PacketReader m_webSocketReader;
    QMap<AdbSession::Key, AdbSession*> m_sessions;
    QPointer<TcpSocket> m_client; // the ADB server's connection the sessions belong to
    qint64 m_queuedForAdbServer = 0; // sum of the sessions' queuedBytes()
    bool m_webSocketReadingPaused = false;
    bool m_tcpReadingPaused = false;
    int m_delayedAckRemovedFrom = 0; // Senders, reported when the handshake ends
};
