// A TCP relay that puts the simulator's link model between `adb connect` and an instance's raw
// device port, so that the direct baseline crosses the same round trip and bandwidth cap as the
// tunnel's WebSocket. Prints {"port": N} when listening. Each line "RTT_MS BANDWIDTH_KBPS" on
// standard input changes the link of every connection, like POST /_sim/link does.

#include "linkmodel.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QHostAddress>
#include <QPointer>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>

#include <cstdio>
#include <unistd.h>

namespace {

class Relay : public QObject
{
    Q_OBJECT
public:
    Relay(QTcpSocket* client, quint16 targetPort, int rttMs, qint64 kbps, QObject* parent)
        : QObject(parent)
        , m_client(client)
        , m_target(new QTcpSocket(this))
        , m_link(new LinkModel(this))
    {
        m_client->setParent(this);
        setLink(rttMs, kbps);
        for (QTcpSocket* socket : { m_client, m_target })
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(m_link->uplink(), &LinkLane::delivered, m_target,
                [this](const QByteArray& chunk) { m_target->write(chunk); });
        connect(m_link->downlink(), &LinkLane::delivered, m_client,
                [this](const QByteArray& chunk) { m_client->write(chunk); });
        connect(m_client, &QTcpSocket::readyRead, this,
                [this] { m_link->uplink()->send(m_client->readAll()); });
        connect(m_target, &QTcpSocket::readyRead, this,
                [this] { m_link->downlink()->send(m_target->readAll()); });
        connect(m_client, &QTcpSocket::disconnected, this, &Relay::finish);
        connect(m_target, &QTcpSocket::disconnected, this, &Relay::finish);
        m_target->connectToHost(QHostAddress::LocalHost, targetPort);
    }

    void setLink(int rttMs, qint64 kbps)
    {
        m_link->setRttMs(rttMs);
        m_link->setBandwidthKbps(kbps);
    }

private:
    void finish()
    {
        m_client->disconnectFromHost();
        m_target->disconnectFromHost();
        deleteLater();
    }

    QTcpSocket* m_client;
    QTcpSocket* m_target;
    LinkModel* m_link;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOptions({
        { QStringLiteral("target-port"), QStringLiteral("Device port on 127.0.0.1."),
          QStringLiteral("port") },
        { QStringLiteral("rtt-ms"), QStringLiteral("Round trip."), QStringLiteral("ms"),
          QStringLiteral("0") },
        { QStringLiteral("bandwidth-kbps"), QStringLiteral("Cap per direction, 0: none."),
          QStringLiteral("kbps"), QStringLiteral("0") },
    });
    parser.process(app);
    const quint16 targetPort = parser.value(QStringLiteral("target-port")).toUShort();
    if (targetPort == 0) {
        std::fprintf(stderr, "--target-port is required\n");
        return 1;
    }
    int rttMs = parser.value(QStringLiteral("rtt-ms")).toInt();
    qint64 kbps = parser.value(QStringLiteral("bandwidth-kbps")).toLongLong();

    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0)) {
        std::fprintf(stderr, "cannot listen: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    QList<QPointer<Relay>> relays;
    QObject::connect(&server, &QTcpServer::newConnection, &server, [&] {
        while (QTcpSocket* client = server.nextPendingConnection())
            relays.append(new Relay(client, targetPort, rttMs, kbps, &server));
    });

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &server, [&] {
        char line[128];
        const ssize_t n = ::read(STDIN_FILENO, line, sizeof line - 1);
        if (n <= 0) { // the driver went away
            QCoreApplication::quit();
            return;
        }
        line[n] = '\0';
        int newRtt = 0;
        long long newKbps = 0;
        if (std::sscanf(line, "%d %lld", &newRtt, &newKbps) != 2)
            return;
        rttMs = newRtt;
        kbps = newKbps;
        relays.removeAll(nullptr);
        for (const auto& relay : relays)
            relay->setLink(rttMs, kbps);
        std::printf("{\"rtt_ms\": %d, \"bandwidth_kbps\": %lld}\n", rttMs, newKbps);
        std::fflush(stdout);
    });

    std::printf("{\"port\": %u}\n", server.serverPort());
    std::fflush(stdout);
    return app.exec();
}

#include "main.moc"
