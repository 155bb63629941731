#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>

// Hold-back queue of one ADB stream's messages towards the ADB server: releases one message,
// then waits for the server's OKAY before releasing the next.
class AdbMessageQueue : public QObject
{
    Q_OBJECT
public:
    explicit AdbMessageQueue(QObject* parent = nullptr);
    ~AdbMessageQueue() override;

    void enqueue(const QByteArray& message);
    void onOkayReceived();
    // Drops what is held back: the ADB server closed the stream and discards its writes. The
    // message released last stays unacknowledged, so nothing is released any more.
    void discard();

    qsizetype size() const;
    // Bytes held back, the released message awaiting its OKAY not included.
    qsizetype queuedBytes() const;

Q_SIGNALS:
    // A message may go to the ADB server now; emitted outside the lock, so receivers may call back.
    void messageReady(const QByteArray& message);
    // The last queued message was just released; nothing is waiting any more.
    void idle();

private:
    mutable QMutex m_mutex;
    bool m_ready = true; // nothing released is awaiting its OKAY
    QList<QByteArray> m_queue;
    qsizetype m_queuedBytes = 0;
};
