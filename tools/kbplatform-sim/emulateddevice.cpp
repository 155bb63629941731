#include "emulateddevice.h"

#include "replyservice.h"
#include "reverseforwarder.h"
#include "shellprotocol.h"
#include "shellservice.h"
#include "socketrelayservice.h"
#include "syncservice.h"

#include <QTcpSocket>

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
    , m_protocol(profile.cnxnBanner())
{ }

EmulatedDevice::~EmulatedDevice()
{
    // Deleted rather than stopped: nothing of the device outlives it.
    const auto services = std::exchange(m_services, {});
    for (auto& [id, service] : services)
        delete service;
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
    // Reverse forwards live as long as the connection.
    delete std::exchange(m_reverse, nullptr);
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

quint32 EmulatedDevice::streamOpen(const QByteArray& destination,
                                   const std::function<DeviceService*(quint32 localId)>& create)
{
    if (m_closed)
        return 0;
    const quint32 localId = m_protocol.open(destination);
    if (localId == 0)
        return 0;
    m_services.emplace(localId, create(localId));
    pump();
    return localId;
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
    case AdbDeviceProtocol::Event::Accepted: {
        const auto it = m_services.find(event.localId);
        if (it != m_services.end())
            it->second->start();
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
        // Reverse forwards live as long as the connection.
        delete std::exchange(m_reverse, nullptr);
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
    if (name == "sync:")
        return new SyncService(this, localId, m_profile.sandboxDir, m_profile.isModern(), this);
    if (name.startsWith("exec:"))
        return new ShellService(this, localId, m_profile, ShellLaunch::shell(QString::fromUtf8(name.mid(5))),
                                this);
    if (!m_profile.isModern()) {
        if (!name.startsWith("shell:") && !name.startsWith("shell,"))
            return nullptr;
        // An old device knows no shell arguments: whatever the host asks, a plain stream.
        const qsizetype colon = name.indexOf(':');
        if (colon < 0)
            return nullptr;
        return new ShellService(this, localId, m_profile,
                                ShellLaunch::shell(QString::fromUtf8(name.mid(colon + 1))), this);
    }
    if (const auto request = ShellRequest::parse(name)) {
        ShellLaunch launch = ShellLaunch::shell(request->command);
        launch.shellProtocol = request->shellProtocol;
        launch.pty = request->pty;
        launch.term = request->term;
        return new ShellService(this, localId, m_profile, launch, this);
    }
    if (name.startsWith("tcp:")) {
        // "tcp:PORT" or "tcp:HOST:PORT"; the device's network is the simulator host's loopback.
        const QList<QByteArray> parts = name.mid(4).split(':');
        const QByteArray host = parts.size() == 2 ? parts.at(0) : QByteArray("localhost");
        bool ok = false;
        const uint port = parts.constLast().toUInt(&ok, 10);
        if (parts.size() > 2 || !ok || port == 0 || port > 65535
            || (host != "localhost" && host != "127.0.0.1"))
            return nullptr;
        auto* socket = new QTcpSocket;
        socket->connectToHost(QHostAddress::LocalHost, quint16(port));
        // As adbd does, the OPEN is answered only once the connection is made or has failed;
        // on loopback that takes no time.
        if (!socket->waitForConnected(5000)) {
            delete socket;
            return nullptr;
        }
        return new SocketRelayService(this, localId, socket, this);
    }
    if (name.startsWith("reverse:")) {
        if (!m_reverse)
            m_reverse = new ReverseForwarder(this, this);
        return new ReplyService(this, localId, m_reverse->handle(name.mid(8)), this);
    }
    // "abb:" and "abb_exec:" (services.txt) run a binder service's command, its arguments
    // separated by NULs; "cmd" plays the binder services here.
    const bool abbExec = name.startsWith("abb_exec:");
    if (abbExec || name.startsWith("abb:")) {
        ShellLaunch launch;
        launch.program = m_profile.binDir + QStringLiteral("/cmd");
        for (const QByteArray& argument : name.mid(name.indexOf(':') + 1).split('\0'))
            launch.arguments << QString::fromUtf8(argument);
        launch.shellProtocol = !abbExec;
        return new ShellService(this, localId, m_profile, launch, this);
    }
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
