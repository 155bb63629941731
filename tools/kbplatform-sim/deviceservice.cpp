#include "deviceservice.h"

#include "emulateddevice.h"

DeviceService::DeviceService(EmulatedDevice* device, quint32 localId)
    : QObject(device)
    , m_device(device)
    , m_localId(localId)
{ }

DeviceService::~DeviceService() = default;

void DeviceService::send(const QByteArray& data)
{
    if (!m_finished)
        m_device->streamSend(m_localId, data);
}

bool DeviceService::congested() const
{
    return m_device->streamCongested(m_localId);
}

void DeviceService::acknowledge()
{
    m_device->streamAcknowledge(m_localId);
}

void DeviceService::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    m_device->streamFinish(m_localId);
}
