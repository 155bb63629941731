#pragma once

#include "adbdeviceprotocol.h"
#include "deviceconnection.h"

#include <QProcessEnvironment>

#include <map>

class DeviceService;

// What makes one emulated device: its files, its shell environment and its CNXN banner.
struct DeviceProfile
{
    QString sandboxDir; // the device's "/"
    QString binDir; // prepended to PATH in shells (holds getprop)
    QByteArray banner;
};

// The device side of one ADB connection: "shell:", "exec:" and "sync:" on the sandbox.
class EmulatedDevice : public DeviceConnection
{
    Q_OBJECT

public:
    EmulatedDevice(const DeviceProfile& profile, QObject* parent);
    ~EmulatedDevice() override;

    void write(const QByteArray& bytes) override;
    void close() override;

    const DeviceProfile& profile() const { return m_profile; }

    // Called by the services of this device.
    void streamSend(quint32 localId, const QByteArray& data);
    bool streamCongested(quint32 localId) const;
    void streamAcknowledge(quint32 localId);
    void streamFinish(quint32 localId);

private:
    void pump();
    void handle(const AdbDeviceProtocol::Event& event);
    DeviceService* createService(const QByteArray& name, quint32 localId);
    void dropService(quint32 localId, bool stop);

    DeviceProfile m_profile;
    AdbDeviceProtocol m_protocol;
    std::map<quint32, DeviceService*> m_services;
    bool m_pumping = false;
    bool m_closed = false;
};
