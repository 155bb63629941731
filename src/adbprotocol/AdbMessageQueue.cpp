#include "AdbMessageQueue.h"

AdbMessageQueue::AdbMessageQueue(QObject* parent)
    : QObject(parent)
{ }

AdbMessageQueue::~AdbMessageQueue() = default;

void AdbMessageQueue::enqueue(const QByteArray& message)
{
    QMutexLocker locker(&m_mutex);
    if (m_ready && m_queue.isEmpty()) {
        m_ready = false;
        locker.unlock();
        Q_EMIT messageReady(message);
        Q_EMIT idle();
        return;
    }
    m_queue.append(message);
    m_queuedBytes += message.size();
}

void AdbMessageQueue::onOkayReceived()
{
    QMutexLocker locker(&m_mutex);
    if (m_queue.isEmpty()) {
        m_ready = true;
        return;
    }
    m_ready = false;
    const QByteArray first = m_queue.takeFirst();
    m_queuedBytes -= first.size();
    const bool drained = m_queue.isEmpty();
    locker.unlock();
    Q_EMIT messageReady(first);
    if (drained)
        Q_EMIT idle();
}

void AdbMessageQueue::discard()
{
    QMutexLocker locker(&m_mutex);
    m_queue.clear();
    m_queuedBytes = 0;
    m_ready = false;
}

qsizetype AdbMessageQueue::size() const
{
    QMutexLocker locker(&m_mutex);
    return m_queue.size();
}

qsizetype AdbMessageQueue::queuedBytes() const
{
    QMutexLocker locker(&m_mutex);
    return m_queuedBytes;
}
