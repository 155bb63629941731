// The daemon's commands, replies and registry of states, over real controllers whose attempts are
// scripted (no platform, no adb).
#include "fakeadbtunnel.h"

#include "daemon/adbtunneldaemon.h"
#include "network/networkprovider.h"

#include <QRegularExpression>
#include <QTest>

#include <memory>

namespace {
QVariantMap request(const QString& command, const QString& id = QString())
{
    QVariantMap map { { QStringLiteral("command"), command } };
    if (!id.isNull())
        map.insert(QStringLiteral("id"), id);
    return map;
}

QVariantMap connectRequest(const QString& id, int port)
{
    QVariantMap map = request(QStringLiteral("connect"), id);
    map.insert(QStringLiteral("adb-serial-port"), port);
    return map;
}
} // namespace

class TestAdbTunnelDaemon : public QObject
{
    Q_OBJECT

private:
    NetworkProvider m_network;
    std::unique_ptr<FakeTunnelFactory> m_tunnels;
    std::unique_ptr<AdbTunnelDaemon> m_daemon;

    void makeDaemon(const QString& scripts)
    {
        m_daemon.reset();
        m_tunnels = std::make_unique<FakeTunnelFactory>(scripts);
        m_daemon = std::make_unique<AdbTunnelDaemon>(
            &m_network, nullptr, nullptr,
            [this](const QString& id, quint16 port) { return m_tunnels->controller(id, port); });
    }

    // "getinstances" as uuid -> {adb_serial, state}; the reply's shape is checked on the way.
    QHash<QString, QPair<QString, QString>> instances()
    {
        const QVariantMap reply = m_daemon->handleMessage(request(QStringLiteral("getinstances"))).toMap();
        if (reply.keys() != QStringList { QStringLiteral("instances") })
            return { { QStringLiteral("bad reply"), {} } };
        QHash<QString, QPair<QString, QString>> result;
        const QVariantList list = reply.value(QStringLiteral("instances")).toList();
        for (const QVariant& entry : list) {
            const QVariantMap map = entry.toMap();
            result.insert(map.value(QStringLiteral("uuid")).toString(),
                          { map.value(QStringLiteral("adb_serial")).toString(),
                            map.value(QStringLiteral("state")).toString() });
        }
        return result;
    }

private Q_SLOTS:
    void cleanup()
    {
        m_daemon.reset();
        m_tunnels.reset();
    }

    void simpleCommands_data()
    {
        QTest::addColumn<QVariantMap>("message");
        QTest::addColumn<bool>("reply");
        QTest::addColumn<QString>("warning");

        QTest::newRow("start") << request(QStringLiteral("start")) << true << QString();
        QTest::newRow("command words are case-sensitive")
            << request(QStringLiteral("START")) << false << QStringLiteral("Invalid message");
        QTest::newRow("disconnect of an unknown id")
            << request(QStringLiteral("disconnect"), QStringLiteral("nobody")) << true
            << QStringLiteral("no adb tunnel to finish for device");
    }
    void simpleCommands()
    {
        QFETCH(QVariantMap, message);
        QFETCH(bool, reply);
        QFETCH(QString, warning);
        makeDaemon(QString());
        if (!warning.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QRegularExpression::escape(warning)));
        QCOMPARE(m_daemon->handleMessage(message), QVariant(reply));
        QVERIFY(instances().isEmpty());
        QCOMPARE(m_tunnels->attempts(), 0);
    }

    // What "getinstances" shows once the controller has settled (or, for scripts ending in a
    // waiting attempt, once that attempt runs).
    void stateFollowsTheController_data()
    {
        QTest::addColumn<QString>("scripts");
        QTest::addColumn<int>("attempts");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("serial");
        QTest::addColumn<bool>("controllerKept");

        QTest::newRow("connected") << "S" << 1 << "CONNECTED"
                                   << "localhost:6001" << true;
        QTest::newRow("first attempt still running") << "-" << 1 << "PENDING"
                                                     << "" << true;
        QTest::newRow("restarting before any success stays pending") << "D" << 2 << "PENDING"
                                                                     << "" << true;
        QTest::newRow("restarting after a success stays connected") << "SD" << 2 << "CONNECTED"
                                                                    << "localhost:6001" << true;
        QTest::newRow("busy port") << "P" << 1 << "PORT_BUSY"
                                   << "" << false;
        QTest::newRow("authentication refused") << "A" << 1 << "FAILED"
                                                << "" << false;
        QTest::newRow("restarts used up") << "B*10" << 10 << "FAILED"
                                          << "" << false;
        QTest::newRow("connected, then used up") << "SD D*10" << 11 << "FAILED"
                                                 << "" << false;
    }
    void stateFollowsTheController()
    {
        QFETCH(QString, scripts);
        QFETCH(int, attempts);
        QFETCH(QString, state);
        QFETCH(QString, serial);
        QFETCH(bool, controllerKept);
        makeDaemon(scripts);
        const QString id = QStringLiteral("uuid-1");

        QCOMPARE(m_daemon->handleMessage(connectRequest(id, 6001)), QVariant(true));
        QTRY_COMPARE(m_tunnels->started(), attempts);
        if (!controllerKept) {
            // The given-up controller is deleted with its last tunnel.
            QTRY_COMPARE(m_tunnels->destroyed(), attempts);
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("No tunnel found")));
        } else if (state == QLatin1String("CONNECTED")) {
            QTRY_COMPARE(m_daemon->getStateFromDeviceId(id), CONNECTED);
        }
        using Entry = QPair<QString, QString>;
        QCOMPARE(instances(), (QHash<QString, Entry> { { id, Entry { serial, state } } }));
        QCOMPARE(m_tunnels->attempts(), attempts);
    }

    void connectTwiceKeepsTheFirstTunnel()
    {
        makeDaemon(QStringLiteral("-"));
        const QString id = QStringLiteral("uuid-1");
        QCOMPARE(m_daemon->handleMessage(request(QStringLiteral("connect"), id)), QVariant(true));
        QTest::ignoreMessage(QtWarningMsg, "adb tunnel is already running for this device.");
        QCOMPARE(m_daemon->handleMessage(connectRequest(id, 7000)), QVariant(true));
        QCOMPARE(m_daemon->getStateFromDeviceId(id), CONNECTED);
        QTRY_COMPARE(m_tunnels->started(), 1);
        QCOMPARE(m_tunnels->ports(), QList<quint16> { 0 }); // no "adb-serial-port": any port
    }

    void disconnectEndsTheTunnelAndForgetsTheId_data()
    {
        QTest::addColumn<QString>("scripts");
        QTest::newRow("connected") << "S";
        QTest::newRow("failed: only the record is left") << "A";
    }
    void disconnectEndsTheTunnelAndForgetsTheId()
    {
        QFETCH(QString, scripts);
        makeDaemon(scripts + QStringLiteral(" S"));
        const QString id = QStringLiteral("uuid-1");
        const QString other = QStringLiteral("uuid-2");
        m_daemon->handleMessage(connectRequest(id, 6001));
        m_daemon->handleMessage(connectRequest(other, 6002));
        QTRY_COMPARE(m_tunnels->started(), 2);
        QTRY_VERIFY(m_daemon->getStateFromDeviceId(id) != PENDING);

        if (scripts == QLatin1String("A"))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("no adb tunnel to finish")));
        QCOMPARE(m_daemon->handleMessage(request(QStringLiteral("disconnect"), id)), QVariant(true));
        QCOMPARE(m_tunnels->destroyed(), 1);
        QCOMPARE(m_daemon->getStateFromDeviceId(id), DISCONNECTED);
        QCOMPARE(instances().keys(), QList<QString> { other });

        // A new connect starts over with a fresh controller.
        m_daemon->handleMessage(connectRequest(id, 6001));
        QTRY_COMPARE(m_tunnels->started(), 3);
        QCOMPARE(m_daemon->getStateFromDeviceId(id), PENDING);
    }

    void destroyingTheDaemonEndsEveryTunnel()
    {
        makeDaemon(QStringLiteral("S -"));
        m_daemon->handleMessage(connectRequest(QStringLiteral("uuid-1"), 0));
        m_daemon->handleMessage(connectRequest(QStringLiteral("uuid-2"), 0));
        QTRY_COMPARE(m_tunnels->started(), 2);
        m_daemon.reset();
        QCOMPARE(m_tunnels->destroyed(), 2);
    }
};

QTEST_GUILESS_MAIN(TestAdbTunnelDaemon)
#include "tst_adbtunneldaemon.moc"
