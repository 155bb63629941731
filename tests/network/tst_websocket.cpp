#include "network/websocket.h"
#include "testkit.h"

#include <QCryptographicHash>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <memory>

using namespace std::chrono_literals;

namespace {

// Answers the opening handshake with whatever response it is given, then stays silent: a peer
// that is connected and dead, or one that speaks the handshake wrongly.
class RawServer : public QObject
{
public:
    explicit RawServer(const QByteArray& statusAndHeaders)
        : m_response(statusAndHeaders)
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = m_server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
                m_request += socket->readAll();
                if (!m_request.contains("\r\n\r\n"))
                    return;
                const QByteArray key = m_request.mid(m_request.indexOf("Sec-WebSocket-Key: ") + 19, 24);
                const QByteArray accept
                    = QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11",
                                               QCryptographicHash::Sha1)
                          .toBase64();
                QByteArray response = m_response;
                socket->write(response.replace("$ACCEPT", accept) + "\r\n");
                socket->disconnect(this);
            });
        });
    }
    QUrl url() const { return QUrl(QStringLiteral("ws://127.0.0.1:%1/adb?x=1").arg(m_server.serverPort())); }
    QByteArray request() const { return m_request; }

private:
    QTcpServer m_server;
    QByteArray m_response;
    QByteArray m_request;
};

const QByteArray GOOD_RESPONSE
    = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: $ACCEPT\r\n";

} // namespace

class TestWebSocket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_server
            = std::make_unique<QWebSocketServer>(QStringLiteral("test"), QWebSocketServer::NonSecureMode);
        QVERIFY(m_server->listen(QHostAddress::LocalHost));
        m_peer = nullptr;
        connect(m_server.get(), &QWebSocketServer::newConnection, this, [this] {
            m_peer = m_server->nextPendingConnection();
            m_peer->setParent(m_server.get()); // handed out without an owner
        });
        m_client = std::make_unique<WebSocket>(QString(), QWebSocketProtocol::Version13, nullptr);
    }

    void cleanup()
    {
        m_client.reset();
        m_server.reset();
    }

    void echo_data()
    {
        QTest::addColumn<qsizetype>("size");
        QTest::newRow("empty") << qsizetype(0);
        QTest::newRow("16-bit length") << qsizetype(300);
        QTest::newRow("64-bit length") << qsizetype(70000);
        // The server cuts messages into 512 KiB frames: reassembly of continuation frames.
        QTest::newRow("fragmented by the server") << qsizetype(2 * 1024 * 1024 + 3);
    }

    void echo()
    {
        QFETCH(qsizetype, size);
        connectClient();
        QVERIFY(m_peer);
        connect(m_peer, &QWebSocket::binaryMessageReceived, m_peer,
                [this](const QByteArray& m) { m_peer->sendBinaryMessage(m); });
        connect(m_peer, &QWebSocket::textMessageReceived, m_peer,
                [this](const QString& m) { m_peer->sendTextMessage(m); });
        QSignalSpy binary(m_client.get(), &AbstractWebSocket::binaryMessageReceived);
        QSignalSpy text(m_client.get(), &AbstractWebSocket::textMessageReceived);
        QSignalSpy written(m_client.get(), &AbstractWebSocket::bytesWritten);

        const QByteArray payload = TestKit::randomBytes(size, 1);
        QCOMPARE(m_client->sendBinaryMessage(payload), size);
        const QString words = QStringLiteral("{\"connection\": \"SUCCESS\", \"\u00e9\u20ac\": %1}").arg(size);
        m_client->sendTextMessage(words);
        QTRY_COMPARE_WITH_TIMEOUT(text.size(), 1, 10000);
        QCOMPARE(binary.size(), 1);
        QCOMPARE(binary.at(0).at(0).toByteArray(), payload);
        QCOMPARE(text.at(0).at(0).toString(), words);

        // Everything handed over reached the socket, frame overhead included.
        qint64 total = 0;
        for (const QList<QVariant>& args : written)
            total += args.at(0).toLongLong();
        const qint64 header = size < 126 ? 6 : size <= 0xFFFF ? 8 : 14;
        QCOMPARE(total, size + header + 6 + words.toUtf8().size());
        QCOMPARE(m_client->bytesToWrite(), 0);
    }

    void handshake_data()
    {
        QTest::addColumn<QByteArray>("response"); // null: nothing listens
        QTest::addColumn<QString>("errorText"); // empty: the upgrade succeeds
        QTest::newRow("upgraded") << GOOD_RESPONSE << QString();
        QTest::newRow("nothing listens") << QByteArray() << "Connection refused";
        QTest::newRow("refused upgrade")
            << QByteArray("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n") << "403 Forbidden";
        QTest::newRow("wrong accept")
            << QByteArray(GOOD_RESPONSE).replace("$ACCEPT", "c29tZXRoaW5nIGVsc2U=") << "Sec-WebSocket-Accept";
        QTest::newRow("no upgrade") << QByteArray(
            "HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: $ACCEPT\r\n")
                                    << "did not upgrade";
        QTest::newRow("unasked extension")
            << GOOD_RESPONSE + "Sec-WebSocket-Extensions: permessage-deflate\r\n"
            << "extension";
        QTest::newRow("not HTTP") << QByteArray("SSH-2.0-OpenSSH_9.2\r\n") << "no HTTP status line";
    }

    void handshake()
    {
        QFETCH(QByteArray, response);
        QFETCH(QString, errorText);
        RawServer server(response);
        const QUrl url = response.isNull()
            ? QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(TestKit::freeLoopbackPort()))
            : server.url();
        m_client = std::make_unique<WebSocket>(QStringLiteral("https://app.example"),
                                               QWebSocketProtocol::Version13, nullptr);
        QSignalSpy states(m_client.get(), &AbstractWebSocket::stateChanged);
        QSignalSpy disconnected(m_client.get(), &AbstractWebSocket::disconnected);
        QSignalSpy connected(m_client.get(), &AbstractWebSocket::connected);
        QSignalSpy errors(m_client.get(), &AbstractWebSocket::errorOccured);
        m_client->open(url);
        if (errorText.isEmpty()) {
            QVERIFY(connected.wait());
            const QByteArray request = server.request();
            QVERIFY2(request.startsWith("GET /adb?x=1 HTTP/1.1\r\n"), request.constData());
            for (const QByteArray& line :
                 { QByteArray("\r\nHost: 127.0.0.1:") + QByteArray::number(url.port()) + "\r\n",
                   QByteArray("\r\nUpgrade: websocket\r\n"), QByteArray("\r\nSec-WebSocket-Version: 13\r\n"),
                   QByteArray("\r\nOrigin: https://app.example\r\n"),
                   QByteArray("\r\nUser-Agent: Tarnwright Kestrelbox ") })
                QVERIFY2(request.contains(line), line.constData());
            QCOMPARE(m_client->state(), QAbstractSocket::ConnectedState);
            return;
        }
        QVERIFY(disconnected.wait());
        QCOMPARE(connected.size(), 0);
        // A failed connection shows as state changes only, never as errorOccured.
        QCOMPARE(errors.size(), 0);
        QCOMPARE(states.first().at(0).value<QAbstractSocket::SocketState>(),
                 QAbstractSocket::ConnectingState);
        QCOMPARE(states.last().at(0).value<QAbstractSocket::SocketState>(),
                 QAbstractSocket::UnconnectedState);
        QCOMPARE(m_client->state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(m_client->error(), QAbstractSocket::ConnectionRefusedError);
        QVERIFY2(m_client->errorString().contains(errorText), qPrintable(m_client->errorString()));
    }

    void closeHandshake()
    {
        // Our own close, invoked by name as across threads: a normal close both ends see.
        connectClient();
        QVERIFY(m_peer);
        QSignalSpy peerClosed(m_peer, &QWebSocket::disconnected);
        QSignalSpy disconnected(m_client.get(), &AbstractWebSocket::disconnected);
        QVERIFY(QMetaObject::invokeMethod(m_client.get(), "close"));
        QVERIFY(disconnected.wait());
        QTRY_COMPARE(peerClosed.size(), 1);
        QCOMPARE(m_peer->closeCode(), QWebSocketProtocol::CloseCodeNormal);

        // Closed by the server: its code and reason are ours to read.
        connectClient();
        QVERIFY(m_peer);
        QSignalSpy again(m_client.get(), &AbstractWebSocket::disconnected);
        m_peer->close(QWebSocketProtocol::CloseCode(4001), QStringLiteral("instance stopped"));
        QVERIFY(again.wait());
        QCOMPARE(int(m_client->closeCode()), 4001);
        QCOMPARE(m_client->closeReason(), QStringLiteral("instance stopped"));

        // Destroyed while connected: the server hears that we went away.
        connectClient();
        QVERIFY(m_peer);
        QSignalSpy gone(m_peer, &QWebSocket::disconnected);
        m_client.reset();
        QVERIFY(gone.wait());
        QCOMPARE(m_peer->closeCode(), QWebSocketProtocol::CloseCodeGoingAway);
    }

    // In 1 MiB fragments, so that only the message limit can stop it. One oversized frame is
    // refused at its header by the frame reader (tst_websocketframe), and its warning is checked
    // end to end against the simulator by tst_e2e_flowcontrol ("oversized-frame").
    void oversizedMessageIsRefused()
    {
        connectClient();
        QVERIFY(m_peer);
        m_peer->setOutgoingFrameSize(1024 * 1024);
        QSignalSpy received(m_client.get(), &AbstractWebSocket::binaryMessageReceived);
        QSignalSpy disconnected(m_client.get(), &AbstractWebSocket::disconnected);
        QSignalSpy peerClosed(m_peer, &QWebSocket::disconnected);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("exceeds the limit.*code 1009")));
        m_peer->sendBinaryMessage(QByteArray(WebSocketFrameReader::DEFAULT_MAX_MESSAGE_SIZE + 1, 'x'));
        QVERIFY(disconnected.wait(10000));
        QCOMPARE(received.size(), 0);
        QCOMPARE(m_client->closeCode(), QWebSocketProtocol::CloseCodeTooMuchData);
        QTRY_COMPARE_WITH_TIMEOUT(peerClosed.size(), 1, 10000);
        QCOMPARE(m_peer->closeCode(), QWebSocketProtocol::CloseCodeTooMuchData);
    }

    void livenessWatch()
    {
        // A live server answers the pings, so a quiet connection stays.
        m_client->setLivenessTimes(100ms, 200ms);
        connectClient();
        QVERIFY(m_peer);
        QSignalSpy pong(m_client.get(), &AbstractWebSocket::pong);
        QSignalSpy disconnected(m_client.get(), &AbstractWebSocket::disconnected);
        QTRY_VERIFY_WITH_TIMEOUT(pong.size() >= 3, 5000);
        QCOMPARE(disconnected.size(), 0);
        // The server's own ping is answered with its payload.
        QSignalSpy peerPong(m_peer, &QWebSocket::pong);
        m_peer->ping("xyz");
        QVERIFY(peerPong.wait());
        QCOMPARE(peerPong.at(0).at(1).toByteArray(), QByteArray("xyz"));

        // A server that went silent with TCP open is noticed, but not while we are not reading.
        RawServer dead(GOOD_RESPONSE);
        QSignalSpy connected(m_client.get(), &AbstractWebSocket::connected);
        m_client->open(dead.url());
        QVERIFY(connected.wait());
        disconnected.clear();
        m_client->setReadingPaused(true);
        QVERIFY(!disconnected.wait(800));
        m_client->setReadingPaused(false);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("not even an answer to a ping")));
        QVERIFY(disconnected.wait(5000));
        QCOMPARE(m_client->state(), QAbstractSocket::UnconnectedState);
    }

private:
    void connectClient()
    {
        m_peer = nullptr;
        QSignalSpy connected(m_client.get(), &AbstractWebSocket::connected);
        m_client->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/").arg(m_server->serverPort())));
        QVERIFY(connected.wait());
        QTRY_VERIFY(m_peer);
    }

    std::unique_ptr<QWebSocketServer> m_server;
    std::unique_ptr<WebSocket> m_client;
    QWebSocket* m_peer = nullptr;
};

QTEST_GUILESS_MAIN(TestWebSocket)
#include "tst_websocket.moc"
