#include "adbsession.h"

AdbSession::AdbSession(unsigned id, Origin origin, QObject* parent)
    : QObject(parent)
    , m_messageQueue(this)
    , m_id(id)
    , m_origin(origin)
{
    connect(&m_messageQueue, &AdbMessageQueue::idle, this, &AdbSession::onEmptyMessageQueue);
    connect(&m_messageQueue, &AdbMessageQueue::messageReady, this, &AdbSession::messageReady);
}

AdbSession::~AdbSession() = default;

void AdbSession::enqueue(const QByteArray& message)
{
    m_messageQueue.enqueue(message);
}

void AdbSession::onOkayReceived()
{
    m_messageQueue.onOkayReceived();
}

void AdbSession::print(const QString& label) const
{
    Q_UNUSED(label)
}

void AdbSession::onEmptyMessageQueue()
{
    if (isClosed())
        Q_EMIT sessionClosed(this);
}
