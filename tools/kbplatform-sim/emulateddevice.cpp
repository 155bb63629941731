#include "emulateddevice.h"

#include "shellservice.h"
#include "syncservice.h"

#include <QLoggingCategory>

namespace {

// Per stream: enough for two full WRTEs, so a service never starves the link.
qsizetype congestionLimit(quint32 maxPayload)
{
    return 2 * qsizetype(maxPayload);
}

} // namespace

EmulatedDevice::EmulatedDevice(const DeviceProfile& profile, QObject* parent)
    : DeviceConnection(parent)
    , m_profile(profile)
    , m_protocol(profile.banner)
{ }

EmulatedDevice::~EmulatedDevice()
{
    for (auto& [id, service] : m_services)
        service->stop();
}

void EmulatedDevice::write(const QByteArray& bytes)
{
    if (m_closed)
        return;
    m_protocol.feed(bytes);
    pump();
}

void EmulatedDevice::close()
{
    if (m_closed)
        return;
    m_closed = true;
    const auto services = std::exchange(m_services, {});
    for (auto& [id, service] : services) {
        service->stop();
        service->deleteLater();
    }
    Q_EMIT closed(QStringLiteral("closed by the host"));
}

void EmulatedDevice::streamSend(quint32 localId, const QByteArray& data)
{
    m_protocol.write(localId, data);
    pump();
}

bool EmulatedDevice::streamCongested(quint32 localId) const
{
    return m_protocol.pendingBytes(localId) >= congestionLimit(m_protocol.maxPayload());
}

void EmulatedDevice::streamAcknowledge(quint32 localId)
{
    m_protocol.acknowledge(localId);
    pump();
}

void EmulatedDevice::streamFinish(quint32 localId)
{
    m_protocol.close(localId);
    dropService(localId, false);
    pump();
}

void EmulatedDevice::pump()
{
    // Services call back into the device from inside handle(); the outermost call drains.
    if (m_pumping || m_closed)
        return;
    m_pumping = true;
    while (!m_closed) {
        const QByteArray output = m_protocol.takeOutput();
        if (!output.isEmpty())
            Q_EMIT received(output);
        const auto events = m_protocol.takeEvents();
        if (events.isEmpty() && !m_protocol.hasOutput())
            break;
        for (const auto& event : events) {
            if (m_closed)
                break;
            handle(event);
        }
    }
    m_pumping = false;
}

void EmulatedDevice::handle(const AdbDeviceProtocol::Event& event)
{
    switch (event.type) {
    case AdbDeviceProtocol::Event::Opened: {
        DeviceService* service = createService(event.data, event.localId);
        if (!service) {
            qInfo() << "device: refusing unknown service" << event.data;
            m_protocol.refuse(event.localId);
            return;
        }
        m_services.emplace(event.localId, service);
        m_protocol.accept(event.localId);
        service->start();
        return;
    }
    case AdbDeviceProtocol::Event::Data: {
        const auto it = m_services.find(event.localId);
        if (it == m_services.end()) {
            // The service is done; the host's late data has nowhere to go.
            m_protocol.acknowledge(event.localId);
            return;
        }
        it->second->receive(event.data);
        return;
    }
    case AdbDeviceProtocol::Event::Closed:
        dropService(event.localId, true);
        return;
    case AdbDeviceProtocol::Event::Writable: {
        const auto it = m_services.find(event.localId);
        if (it != m_services.end() && !streamCongested(event.localId))
            it->second->resume();
        return;
    }
    case AdbDeviceProtocol::Event::Failed: {
        qWarning() << "device: dropping the connection:" << event.data;
        m_closed = true;
        const auto services = std::exchange(m_services, {});
        for (auto& [id, service] : services) {
            service->stop();
            service->deleteLater();
        }
        Q_EMIT closed(QStringLiteral("ADB protocol error: %1").arg(QString::fromUtf8(event.data)));
        return;
    }
    }
}

DeviceService* EmulatedDevice::createService(const QByteArray& name, quint32 localId)
{
    if (name.startsWith("shell:") || name.startsWith("shell,")) {
        // Options after "shell," select the v2 protocol, which this device does not advertise;
        // a host that asks anyway gets the plain stream.
        const qsizetype colon = name.indexOf(':');
        if (colon < 0)
            return nullptr;
        return new ShellService(this, localId, m_profile, QString::fromUtf8(name.mid(colon + 1)), this);
    }
    if (name.startsWith("exec:"))
        return new ShellService(this, localId, m_profile, QString::fromUtf8(name.mid(5)), this);
    if (name == "sync:")
        return new SyncService(this, localId, m_profile.sandboxDir, this);
    return nullptr;
}

void EmulatedDevice::dropService(quint32 localId, bool stop)
{
    const auto it = m_services.find(localId);
    if (it == m_services.end())
        return;
    DeviceService* service = it->second;
    m_services.erase(it);
    if (stop)
        service->stop();
    service->deleteLater();
}
