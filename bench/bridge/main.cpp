// Bridge throughput: a loopback TCP client plays the ADB server and pushes WRTE messages on one
// stream, one outstanding at a time as adb does; a loopback WebSocket server plays the instance.
// At version 1 every write waits for the instance's OKAY; at version 2 the bridge answers.
//
// Without --run the program runs itself once per version and prints the ratio.

#include "adbprotocol/AdbPacket.h"
#include "adbprotocol/AdbTunnelLogger.h"
#include "adbprotocol/PacketReader.h"
#include "daemon/adbtunnelversion.h"
#include "daemon/web_socket_tcp_bridge.h"
#include "network/websocket.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cstdio>

namespace {

constexpr quint32 CLIENT_STREAM = 1;
constexpr quint32 DEVICE_STREAM = 1000;

// Both ends of the tunnel, living in their own thread so that the bridge has the main one.
class Ends : public QObject
{
    Q_OBJECT
public:
    Ends(qint64 totalBytes, int payloadSize, int okayDelayMs)
        : m_server(QStringLiteral("bench"), QWebSocketServer::NonSecureMode, this)
        , m_client(this)
        , m_totalBytes(totalBytes)
        , m_payload(payloadSize, 'w')
        , m_okayDelayMs(okayDelayMs)
    { }

    quint16 listen()
    {
        m_server.listen(QHostAddress::LocalHost, 0);
        connect(&m_server, &QWebSocketServer::newConnection, this, [this] {
            m_instance = m_server.nextPendingConnection();
            m_instance->setParent(this);
            connect(m_instance, &QWebSocket::binaryFrameReceived, this, &Ends::onInstanceFrame);
        });
        return m_server.serverPort();
    }

    void startClient(quint16 bridgePort)
    {
        connect(&m_client, &QTcpSocket::readyRead, this, &Ends::onClientData);
        connect(&m_client, &QTcpSocket::connected, this, [this] {
            m_client.write(AdbPacket(AdbPacket::CNXN, 0x01000001, 1024 * 1024, "host::").toByteArray());
            m_client.write(
                AdbPacket(AdbPacket::OPEN, CLIENT_STREAM, 0, QByteArray("sink:", 6)).toByteArray());
        });
        m_client.connectToHost(QHostAddress::LocalHost, bridgePort);
    }

Q_SIGNALS:
    void finished(qint64 nanoseconds, qint64 messages);

private:
    void sendWrite()
    {
        if (m_sentBytes >= m_totalBytes)
            return;
        if (m_writes == 0)
            m_timer.start();
        m_client.write(AdbPacket(AdbPacket::WRTE, CLIENT_STREAM, DEVICE_STREAM, m_payload).toByteArray());
        m_sentBytes += m_payload.size();
        ++m_writes;
    }

    // The ADB server side: each OKAY on the stream lets the next write go.
    void onClientData()
    {
        m_clientReader.append(m_client.readAll());
        while (m_clientReader.packetAvailable()) {
            const AdbPacket packet = m_clientReader.read();
            if (packet.command() == AdbPacket::OKAY)
                sendWrite();
        }
    }

    // The instance side: accepts the stream, counts the bytes, acknowledges at version 1.
    void onInstanceFrame(const QByteArray& frame)
    {
        m_instanceReader.append(frame);
        while (m_instanceReader.packetAvailable()) {
            const AdbPacket packet = m_instanceReader.read();
            if (packet.command() == AdbPacket::OPEN) {
                sendFromInstance(AdbPacket(AdbPacket::OKAY, DEVICE_STREAM, CLIENT_STREAM, {}).toByteArray());
            } else if (packet.command() == AdbPacket::WRTE) {
                m_receivedBytes += packet.dataLength();
                ++m_receivedWrites;
                if (m_receivedBytes >= m_totalBytes) {
                    Q_EMIT finished(m_timer.nsecsElapsed(), m_receivedWrites);
                    return;
                }
                if (!AdbTunnelVersion::isMegaFastEnabled())
                    sendFromInstance(
                        AdbPacket(AdbPacket::OKAY, DEVICE_STREAM, CLIENT_STREAM, {}).toByteArray());
            }
        }
    }

    void sendFromInstance(const QByteArray& message)
    {
        if (m_okayDelayMs <= 0) {
            m_instance->sendBinaryMessage(message);
            return;
        }
        QTimer::singleShot(m_okayDelayMs, this, [this, message] { m_instance->sendBinaryMessage(message); });
    }

    QWebSocketServer m_server;
    QWebSocket* m_instance = nullptr;
    QTcpSocket m_client;
    PacketReader m_clientReader;
    PacketReader m_instanceReader;
    const qint64 m_totalBytes;
    const QByteArray m_payload;
    const int m_okayDelayMs;
    qint64 m_sentBytes = 0;
    qint64 m_writes = 0;
    qint64 m_receivedBytes = 0;
    qint64 m_receivedWrites = 0;
    QElapsedTimer m_timer;
};

int runOnce(qint64 totalBytes, int payloadSize, int okayDelayMs)
{
    QThread thread;
    thread.start();
    auto* ends = new Ends(totalBytes, payloadSize, okayDelayMs);
    ends->moveToThread(&thread);
    quint16 instancePort = 0;
    QMetaObject::invokeMethod(ends, &Ends::listen, Qt::BlockingQueuedConnection, &instancePort);

    WebSocket webSocket(QString(), QWebSocketProtocol::VersionLatest, nullptr);
    WebSocketTcpBridge bridge(&webSocket, QStringLiteral("bench"));
    QObject::connect(&webSocket, &AbstractWebSocket::connected, &bridge, [&] {
        bridge.start(0);
        const quint16 bridgePort = bridge.getTcpPort();
        QMetaObject::invokeMethod(ends, [ends, bridgePort] { ends->startClient(bridgePort); });
    });
    int status = 1;
    QObject::connect(ends, &Ends::finished, &bridge, [&](qint64 ns, qint64 messages) {
        const double seconds = double(ns) / 1e9;
        std::printf("version %d: %lld MiB in %lld messages of %d bytes: %.3f s, %.1f MB/s, %.0f messages/s\n",
                    AdbTunnelVersion::getVersion(), totalBytes >> 20, messages, payloadSize, seconds,
                    double(totalBytes) / 1e6 / seconds, double(messages) / seconds);
        std::fflush(stdout);
        status = 0;
        QCoreApplication::quit();
    });
    webSocket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(instancePort)));
    QCoreApplication::exec();

    webSocket.abort();
    QMetaObject::invokeMethod(ends, &QObject::deleteLater);
    thread.quit();
    thread.wait();
    return status;
}

// The packet reader alone on a chunk of many small messages.
void benchReader()
{
    const QByteArray one = AdbPacket(AdbPacket::WRTE, 1, 2, QByteArray(16, 'r')).toByteArray();
    const QByteArray chunk = one.repeated(100000);
    QElapsedTimer timer;
    timer.start();
    qint64 messages = 0;
    for (int round = 0; round < 20; ++round) {
        PacketReader reader;
        reader.append(chunk);
        while (reader.packetAvailable()) {
            reader.read();
            ++messages;
        }
    }
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    std::printf("reader: %lld messages of %lld bytes from 4 MB chunks: %.0f messages/s, %.1f MB/s\n",
                messages, qint64(one.size()), double(messages) / seconds,
                double(messages * one.size()) / 1e6 / seconds);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    AdbTunnelLogger::installAdbTunnelLogCategory();
    qSetMessagePattern(QStringLiteral("%{if-warning}%{message}%{endif}%{if-critical}%{message}%{endif}"));

    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption runOption(QStringLiteral("run"),
                                       QStringLiteral("Run once at the current KB_ADBTUNNEL_VERSION."));
    const QCommandLineOption mibOption(QStringLiteral("mib"), QStringLiteral("Traffic in MiB (256)."),
                                       QStringLiteral("n"), QStringLiteral("256"));
    const QCommandLineOption payloadOption(QStringLiteral("payload"),
                                           QStringLiteral("WRTE payload bytes (65536)."), QStringLiteral("n"),
                                           QStringLiteral("65536"));
    const QCommandLineOption delayOption(
        QStringLiteral("okay-delay-ms"),
        QStringLiteral("Delay of the instance's OKAYs, to mimic a distant instance (0)."),
        QStringLiteral("ms"), QStringLiteral("0"));
    parser.addOptions({ runOption, mibOption, payloadOption, delayOption });
    parser.process(app);
    const qint64 totalBytes = parser.value(mibOption).toLongLong() << 20;
    const int payload = qBound(1, parser.value(payloadOption).toInt(), int(PacketReader::MAX_PAYLOAD));
    const int delay = parser.value(delayOption).toInt();

    if (parser.isSet(runOption))
        return runOnce(totalBytes, payload, delay);

    benchReader();
    double seconds[3] = {};
    for (int version = 1; version <= 2; ++version) {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("KB_ADBTUNNEL_VERSION"), QString::number(version));
        env.remove(QStringLiteral("KB_ADBTUNNEL_DEBUG"));
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QElapsedTimer timer;
        timer.start();
        child.start(QCoreApplication::applicationFilePath(),
                    { QStringLiteral("--run"), QStringLiteral("--mib"), parser.value(mibOption),
                      QStringLiteral("--payload"), QString::number(payload),
                      QStringLiteral("--okay-delay-ms"), QString::number(delay) });
        child.waitForFinished(-1);
        const QByteArray out = child.readAllStandardOutput();
        std::fputs(out.constData(), stdout);
        if (child.exitCode() != 0)
            return 1;
        const int at = out.indexOf(" s, ");
        seconds[version] = out.left(at).mid(out.left(at).lastIndexOf(' ') + 1).toDouble();
    }
    if (seconds[2] > 0)
        std::printf("version 2 / version 1 throughput: %.2f\n", seconds[1] / seconds[2]);
    return 0;
}

#include "main.moc"
