#include "reverseforwarder.h"

#include "devicestreams.h"
#include "socketrelayservice.h"

#include <QTcpServer>
#include <QTcpSocket>

namespace {

constexpr std::size_t MAX_LISTENERS = 128;

// ADB's protocol strings: four hex digits of length, then the text.
QByteArray protocolString(const QByteArray& text)
{
    return QByteArray::number(text.size(), 16).rightJustified(4, '0') + text;
}

QByteArray failure(const QByteArray& message)
{
    return "FAIL" + protocolString(message);
}

std::optional<quint16> tcpPort(const QByteArray& spec)
{
    if (!spec.startsWith("tcp:"))
        return std::nullopt;
    bool ok = false;
    const uint port = spec.mid(4).toUInt(&ok, 10);
    if (!ok || port > 65535)
        return std::nullopt;
    return quint16(port);
}

} // namespace

ReverseForwarder::ReverseForwarder(DeviceStreams* streams, QObject* serviceParent)
    : QObject(serviceParent)
    , m_streams(streams)
    , m_serviceParent(serviceParent)
{ }

ReverseForwarder::~ReverseForwarder() = default;

QByteArray ReverseForwarder::handle(const QByteArray& request)
{
    if (request == "list-forward") {
        QByteArray list;
        for (const auto& [remote, listener] : m_listeners)
            list += "host " + remote + ' ' + listener.local + '\n';
        return protocolString(list);
    }
    if (request == "killforward-all") {
        for (auto& [remote, listener] : m_listeners)
            delete listener.server;
        m_listeners.clear();
        return "OKAY";
    }
    if (request.startsWith("killforward:")) {
        const QByteArray remote = request.mid(12);
        const auto it = m_listeners.find(remote);
        if (it == m_listeners.end())
            return failure("listener '" + remote + "' not found");
        delete it->second.server;
        m_listeners.erase(it);
        return "OKAY";
    }
    if (request.startsWith("forward:"))
        return forward(request.mid(8));
    return failure("unknown reverse request: " + request);
}

QByteArray ReverseForwarder::forward(const QByteArray& spec)
{
    QByteArray rest = spec;
    const bool noRebind = rest.startsWith("norebind:");
    if (noRebind)
        rest = rest.mid(9);
    const qsizetype semicolon = rest.indexOf(';');
    if (semicolon < 0)
        return failure("bad forward: " + spec);
    const QByteArray remote = rest.left(semicolon);
    const QByteArray local = rest.mid(semicolon + 1);
    const auto port = tcpPort(remote);
    if (!port || local.isEmpty())
        return failure("cannot bind listener: only tcp:PORT listeners on the emulated device");

    const auto existing = m_listeners.find(remote);
    if (existing != m_listeners.end()) {
        if (noRebind)
            return failure("cannot rebind existing socket");
        existing->second.local = local;
        return "OKAY";
    }
    // Each listener holds a port of the simulator's host.
    if (m_listeners.size() >= MAX_LISTENERS)
        return failure("cannot bind listener: too many reverse forwards");
    auto* server = new QTcpServer(this);
    // The device's ports are the simulator host's loopback ports: nothing beyond it can reach them.
    if (!server->listen(QHostAddress::LocalHost, *port)) {
        const QByteArray error = server->errorString().toUtf8();
        delete server;
        return failure("cannot bind listener: " + error);
    }
    const QByteArray bound = "tcp:" + QByteArray::number(server->serverPort());
    m_listeners[bound] = Listener { server, local };
    connect(server, &QTcpServer::newConnection, this, [this, server] { onNewConnection(server); });
    // adb.cpp: a listener asked for port 0 reports the port it got.
    return *port == 0 ? "OKAY" + protocolString(QByteArray::number(server->serverPort()))
                      : QByteArray("OKAY");
}

void ReverseForwarder::onNewConnection(QTcpServer* server)
{
    QByteArray local;
    for (const auto& [remote, listener] : m_listeners) {
        if (listener.server == server)
            local = listener.local;
    }
    while (QTcpSocket* socket = server->nextPendingConnection()) {
        const quint32 id = m_streams->streamOpen(local, [this, socket](quint32 localId) {
            return new SocketRelayService(m_streams, localId, socket, m_serviceParent);
        });
        if (id == 0) {
            socket->abort();
            socket->deleteLater();
        }
    }
}
