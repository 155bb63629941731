#include "replyservice.h"

ReplyService::ReplyService(DeviceStreams* streams, quint32 localId, const QByteArray& reply, QObject* parent)
    : DeviceService(streams, localId, parent)
    , m_reply(reply)
{ }

void ReplyService::start()
{
    send(m_reply);
    finish();
}

void ReplyService::receive(const QByteArray&)
{
    acknowledge();
}

void ReplyService::stop()
{
    m_finished = true;
}
