#include "deviceservice.h"

#include "devicestreams.h"

DeviceService::DeviceService(DeviceStreams* streams, quint32 localId, QObject* parent)
    : QObject(parent)
    , m_streams(streams)
    , m_localId(localId)
{ }

DeviceService::~DeviceService() = default;

void DeviceService::send(const QByteArray& data)
{
    if (!m_finished)
        m_streams->streamSend(m_localId, data);
}

bool DeviceService::congested() const
{
    return m_streams->streamCongested(m_localId);
}

void DeviceService::acknowledge()
{
    m_streams->streamAcknowledge(m_localId);
}

void DeviceService::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    m_streams->streamFinish(m_localId);
}
