#pragma once

#include "adbdeviceprotocol.h"
#include "deviceconnection.h"
#include "deviceprofile.h"
#include "devicestreams.h"

#include <map>

class DeviceService;
class ReverseForwarder;

// The device side of one ADB connection: its services on the sandbox, and its reverse forwards.
class EmulatedDevice : public DeviceConnection, private DeviceStreams
{
    Q_OBJECT

public:
    EmulatedDevice(const DeviceProfile& profile, QObject* parent);
    ~EmulatedDevice() override;

    void write(const QByteArray& bytes) override;
    void close() override;

    const DeviceProfile& profile() const { return m_profile; }

private:
    void streamSend(quint32 localId, const QByteArray& data) override;
    bool streamCongested(quint32 localId) const override;
    void streamAcknowledge(quint32 localId) override;
    void streamFinish(quint32 localId) override;
    quint32 streamOpen(const QByteArray& destination,
                       const std::function<DeviceService*(quint32 localId)>& create) override;

    void pump();
    void handle(const AdbDeviceProtocol::Event& event);
    DeviceService* createService(const QByteArray& name, quint32 localId);
    void dropService(quint32 localId, bool stop);

    DeviceProfile m_profile;
    AdbDeviceProtocol m_protocol;
    std::map<quint32, DeviceService*> m_services;
    ReverseForwarder* m_reverse = nullptr;
    bool m_pumping = false;
    bool m_closed = false;
};
