#include "testkit.h"

#include "singleinstance/singleinstance.h"

#include <QLocalSocket>
#include <QTemporaryDir>
#include <QtTest>

using TestKit::localFrame;

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
        QTest::addColumn<QByteArray>("reply"); // empty: no reply frame at all
        QTest::addColumn<QVariantMap>("handled"); // what the handler got; empty: not called
        QTest::newRow("command") << true
                                 << QByteArray(R"({"async":false,"message":{"command":"getinstances"}})")
                                 << QByteArray(R"({"reply":{"echo":"getinstances"}})")
                                 << QVariantMap { { QStringLiteral("command"),
                                                    QStringLiteral("getinstances") } };
        QTest::newRow("async: handled, not answered")
            << true << QByteArray(R"({"async":true,"message":{"command":"stop"}})") << QByteArray()
            << QVariantMap { { QStringLiteral("command"), QStringLiteral("stop") } };
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
        // In pieces, with the server reading in between: a whole frame in one read is what
        // tst_cli's client sends through the real program.
        const QByteArray bytes = localFrame(request);
        for (int i = 0; i < bytes.size(); i += 3) {
            socket.write(bytes.mid(i, 3));
            socket.flush();
            QCoreApplication::processEvents();
        }
        QTRY_COMPARE(socket.state(), QLocalSocket::UnconnectedState);
        QCOMPARE(socket.readAll(), reply.isEmpty() ? QByteArray() : localFrame(reply));
        QCOMPARE(m_received, handler ? QList<QVariantMap> { handled } : QList<QVariantMap>());
    }

    void badInputIsDroppedAndServingGoesOn_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("json array") << localFrame("[1,2,3]");
        QTest::newRow("huge length") << QByteArray::fromHex("7ffffff07ffffffc");
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
