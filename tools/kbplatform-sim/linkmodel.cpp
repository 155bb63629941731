#include "linkmodel.h"

#include <QTimer>

#include <algorithm>

LinkLane::LinkLane(QObject* parent)
    : QObject(parent)
    , m_timer(new QTimer(this))
{
    m_clock.start();
    m_timer->setSingleShot(true);
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &LinkLane::release);
}

LinkLane::~LinkLane() = default;

void LinkLane::setDelayMs(int delayMs)
{
    m_delayNs = qint64(std::max(delayMs, 0)) * 1000000;
}

void LinkLane::setBandwidthKbps(qint64 kbps)
{
    m_bandwidthKbps = std::max<qint64>(kbps, 0);
}

void LinkLane::send(const QByteArray& chunk)
{
    if (m_items.empty() && m_delayNs == 0 && m_bandwidthKbps == 0) {
        Q_EMIT delivered(chunk);
        return;
    }
    const qint64 now = m_clock.nsecsElapsed();
    qint64 wireDone = std::max(now, m_wireFreeNs);
    if (m_bandwidthKbps > 0) // 1 kbit/s is one bit per millisecond
        wireDone += qint64(chunk.size()) * 8 * 1000000 / m_bandwidthKbps;
    m_wireFreeNs = wireDone;
    qint64 due = wireDone + m_delayNs;
    if (!m_items.empty())
        due = std::max(due, m_items.back().dueNs); // a shorter delay set meanwhile must not reorder
    m_items.push_back({ due, chunk });
    m_queuedBytes += chunk.size();
    if (m_items.size() == 1)
        arm();
}

void LinkLane::release()
{
    const qint64 now = m_clock.nsecsElapsed();
    while (!m_items.empty() && m_items.front().dueNs <= now) {
        const QByteArray chunk = std::move(m_items.front().chunk);
        m_items.pop_front();
        m_queuedBytes -= chunk.size();
        Q_EMIT delivered(chunk);
    }
    if (m_items.empty())
        Q_EMIT drained();
    else
        arm();
}

void LinkLane::arm()
{
    const qint64 waitNs = m_items.front().dueNs - m_clock.nsecsElapsed();
    // Round up, so that the timer never fires before the chunk is due.
    m_timer->start(int(std::max<qint64>(0, (waitNs + 999999) / 1000000)));
}

LinkModel::LinkModel(QObject* parent)
    : QObject(parent)
    , m_uplink(new LinkLane(this))
    , m_downlink(new LinkLane(this))
{ }

LinkModel::~LinkModel() = default;

void LinkModel::setRttMs(int rttMs)
{
    // Each direction carries half of the round trip; an odd millisecond goes to the downlink.
    m_uplink->setDelayMs(rttMs / 2);
    m_downlink->setDelayMs(rttMs - rttMs / 2);
}

void LinkModel::setBandwidthKbps(qint64 kbps)
{
    m_uplink->setBandwidthKbps(kbps);
    m_downlink->setBandwidthKbps(kbps);
}
