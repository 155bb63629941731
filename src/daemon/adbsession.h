#pragma once

#include "adbprotocol/AdbMessageQueue.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <utility>

// One ADB stream seen by the bridge, keyed by the opener's stream id and side.
class AdbSession : public QObject
{
    Q_OBJECT
public:
    enum Origin : quint32 {
        Server = 0, // opened by the local ADB server (OPEN came over TCP)
        Device = 1, // opened by the device (OPEN came over the WebSocket)
    };
    Q_ENUM(Origin)

    using Key = std::pair<quint32, quint32>;

    AdbSession(unsigned id, Origin origin, QObject* parent = nullptr);
    ~AdbSession() override;

    unsigned getId() const { return m_id; }
    Origin getOrigin() const { return m_origin; }
    Key getUniqueKey() const { return { m_id, quint32(m_origin) }; }

    void enqueue(const QByteArray& message);
    void onOkayReceived();
    void discardQueue() { m_messageQueue.discard(); }
    qsizetype queuedMessages() const { return m_messageQueue.size(); }
    qsizetype queuedBytes() const { return m_messageQueue.queuedBytes(); }

    void enableRetainMode() { m_retainMode = true; }
    bool isRetainModeEnabled() const { return m_retainMode; }

    void closeFromServer() { m_closedFromServer = true; }
    void closeFromDevice() { m_closedFromDevice = true; }
    bool isClosedFromServer() const { return m_closedFromServer; }
    bool isClosed() const { return m_closedFromServer && m_closedFromDevice; }

    // Hook for tracing a session's life ("CREATION", "DELETION"); prints nothing.
    void print(const QString& label) const;

public Q_SLOTS:
    void onEmptyMessageQueue();

Q_SIGNALS:
    // A held-back message may now go to the ADB server.
    void messageReady(const QByteArray& message);
    // The queue ran empty on a session closed on both sides: it may be deleted now.
    void sessionClosed(AdbSession* session);

private:
    AdbMessageQueue m_messageQueue;
    const unsigned m_id;
    const Origin m_origin;
    bool m_retainMode = false;
    bool m_closedFromServer = false;
    bool m_closedFromDevice = false;
};
