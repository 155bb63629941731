#include "testkit.h"

#include "singleinstance/singleinstance.h"
#include "singleinstance/singleinstanceclient.h"
#include "singleinstance/singleinstanceutils.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <thread>

namespace {

const auto frame = TestKit::localFrame;

QByteArray readRawReply(QLocalSocket& socket)
{
    QByteArray bytes;
    for (int i = 0;
         i < 500 && (bytes.size() < 8 || bytes.size() < 4 + qFromBigEndian<qint32>(bytes.constData())); ++i) {
        QTest::qWait(10);
        bytes += socket.readAll();
    }
    return bytes;
}

} // namespace

class TestSingleInstance : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_instance = std::make_unique<SingleInstance>(QStringLiteral("kbadbtunneld"), m_dir->path());
        m_received.clear();
        m_instance->setMessageHandlerFunction([this](const QVariantMap& message) {
            m_received.append(message);
            return QVariant(
                QVariantMap { { QStringLiteral("echo"), message.value(QStringLiteral("command")) } });
        });
        QCOMPARE(m_instance->tryCreateInstance(), 0);
    }

    void cleanup()
    {
        m_instance.reset();
        m_dir.reset();
    }

    void requestAndReplyAreByteExact_data()
    {
        QTest::addColumn<bool>("handler");
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QVariantMap>("handled"); // what the handler got; empty: not called
        QTest::newRow("command") << true
                                 << QByteArray(R"({"async":false,"message":{"command":"getinstances"}})")
                                 << QByteArray(R"({"reply":{"echo":"getinstances"}})")
                                 << QVariantMap { { QStringLiteral("command"),
                                                    QStringLiteral("getinstances") } };
        QTest::newRow("missing message is an empty map")
            << true << QByteArray(R"({"async":false})") << QByteArray(R"({"reply":{"echo":null}})")
            << QVariantMap();
        QTest::newRow("heartbeat answered without a handler")
            << false << QByteArray(R"({"async":false,"message":{"heartbeat":"ping"}})")
            << QByteArray(R"({"reply":{"heartbeat":"pong"}})") << QVariantMap();
    }

    void requestAndReplyAreByteExact()
    {
        QFETCH(bool, handler);
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, reply);
        QFETCH(QVariantMap, handled);
        if (!handler)
            m_instance->setMessageHandlerFunction({});
        QLocalSocket socket;
        socket.connectToServer(m_instance->getServer()->serverName());
        QVERIFY(socket.waitForConnected(1000));
        socket.write(frame(request));
        QCOMPARE(readRawReply(socket), frame(reply));
        QCOMPARE(m_received, handler ? QList<QVariantMap> { handled } : QList<QVariantMap>());
        QTRY_COMPARE(socket.state(), QLocalSocket::UnconnectedState);
    }

    void frameArrivingInPiecesIsReadWhole()
    {
        // The writer runs on its own thread, as a real client process would: the server reads
        // a frame by pumping this thread's event loop.
        const QString serverName = m_instance->getServer()->serverName();
        QByteArray reply;
        std::thread writer([serverName, &reply] {
            QLocalSocket socket;
            socket.connectToServer(serverName);
            if (!socket.waitForConnected(1000))
                return;
            const QByteArray bytes = frame("{\"async\":false,\"message\":{\"command\":\"start\"}}");
            for (int i = 0; i < bytes.size(); i += 3) {
                socket.write(bytes.mid(i, 3));
                socket.waitForBytesWritten(1000);
                QThread::msleep(2);
            }
            while (reply.size() < 34 && socket.waitForReadyRead(5000))
                reply += socket.readAll();
        });
        QTRY_COMPARE(m_received.size(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(reply.size() >= 34, 5000);
        writer.join();
        QCOMPARE(reply, frame("{\"reply\":{\"echo\":\"start\"}}"));
    }

    void asyncRequestGetsNoReplyAndIsClosed()
    {
        QLocalSocket socket;
        socket.connectToServer(m_instance->getServer()->serverName());
        QVERIFY(socket.waitForConnected(1000));
        socket.write(frame("{\"async\":true,\"message\":{\"command\":\"stop\"}}"));
        QTRY_COMPARE(socket.state(), QLocalSocket::UnconnectedState);
        QCOMPARE(socket.bytesAvailable(), 0);
        QCOMPARE(m_received.size(), 1);
    }

    void badInputIsDroppedAndServingGoesOn_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("not json") << frame("{nope");
        QTest::newRow("json array") << frame("[1,2,3]");
        QTest::newRow("negative length") << QByteArray::fromHex("fffffff0deadbeef");
        QTest::newRow("huge length") << QByteArray::fromHex("7ffffff07ffffffc");
        QTest::newRow("inner length disagrees") << QByteArray::fromHex("0000000600000010") + "ab";
    }

    void badInputIsDroppedAndServingGoesOn()
    {
        QFETCH(QByteArray, bytes);
        QLocalSocket bad;
        bad.connectToServer(m_instance->getServer()->serverName());
        QVERIFY(bad.waitForConnected(1000));
        bad.write(bytes);
        bad.flush();
        QTest::qWait(50);

        // A client that connects and never speaks must not hold up the others either.
        QLocalSocket silent;
        silent.connectToServer(m_instance->getServer()->serverName());
        QVERIFY(silent.waitForConnected(1000));

        SingleInstance other(QStringLiteral("kbadbtunneld"), m_dir->path());
        const QVariant reply
            = other.sendMessage({ { QStringLiteral("command"), QStringLiteral("start") } }, 5000);
        QCOMPARE(reply.toMap().value(QStringLiteral("echo")).toString(), QStringLiteral("start"));
        QVERIFY(m_received.size() == 1);
    }

    void clientSideWaits()
    {
        SingleInstance other(QStringLiteral("kbadbtunneld"), m_dir->path());
        QCOMPARE(other.tryCreateInstance(), 1);
        QVERIFY(other.waitForInstanceConnected(0));
        QVERIFY(!other.waitForInstanceDisconnected(300)); // still answering pings

        m_instance.reset();
        QVERIFY(other.waitForInstanceDisconnected(5000));
        QVERIFY(!other.waitForInstanceConnected(0));
        QVERIFY(
            !other.sendMessage({ { QStringLiteral("command"), QStringLiteral("stop") } }, 1000).isValid());
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<SingleInstance> m_instance;
    QList<QVariantMap> m_received;
};

QTEST_GUILESS_MAIN(TestSingleInstance)
#include "tst_singleinstance.moc"
