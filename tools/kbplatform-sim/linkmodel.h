#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>

#include <deque>

class QTimer;

// One direction of the link between the daemon and the cloud: every chunk is held for half the
// round trip plus its transmission time at the bandwidth cap, and chunks leave in the order
// they came. Settings apply to chunks sent after the change.
class LinkLane : public QObject
{
    Q_OBJECT

public:
    explicit LinkLane(QObject* parent);
    ~LinkLane() override;

    void setDelayMs(int delayMs);
    void setBandwidthKbps(qint64 kbps); // kilobits per second; 0 = unlimited
    void send(const QByteArray& chunk);
    qint64 queuedBytes() const { return m_queuedBytes; }

Q_SIGNALS:
    void delivered(const QByteArray& chunk); // in send order; may fire from inside send()
    void drained(); // the queue ran empty after having held chunks

private Q_SLOTS:
    void release();

private:
    struct Item
    {
        qint64 dueNs;
        QByteArray chunk;
    };

    void arm();

    QElapsedTimer m_clock;
    QTimer* m_timer;
    std::deque<Item> m_items;
    qint64 m_queuedBytes = 0;
    qint64 m_delayNs = 0;
    qint64 m_bandwidthKbps = 0;
    qint64 m_wireFreeNs = 0; // when the previous chunk has finished going out
};

// Both directions of one daemon-to-cloud link.
class LinkModel : public QObject
{
    Q_OBJECT

public:
    explicit LinkModel(QObject* parent);
    ~LinkModel() override;

    void setRttMs(int rttMs);
    void setBandwidthKbps(qint64 kbps);
    LinkLane* uplink() const { return m_uplink; } // daemon to cloud
    LinkLane* downlink() const { return m_downlink; } // cloud to daemon

private:
    LinkLane* m_uplink;
    LinkLane* m_downlink;
};
