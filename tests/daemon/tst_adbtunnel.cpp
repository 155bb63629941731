// One tunnel attempt with the real bridge on loopback, and a web socket, an authenticator and an
// adb client that do what each row says: which failures reach the controller, and as what.
#include "mockwebsocket.h"

#include "androidtools/adbclient.h"
#include "androidtools/androidtoolsprovider.h"
#include "daemon/adbtunnel.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>

namespace {

class NoToolsProvider : public AndroidToolsProvider
{
public:
    QString getAdbPath() override { return QStringLiteral("/nonexistent/adb"); }
    QString getAaptPath() override { return {}; }
};

// Answers the authentication at once: success unless an error is set.
class ScriptedAuthenticator : public PlatformAuthenticator
{
public:
    ScriptedAuthenticator(AbstractWebSocket* webSocket, int error, QObject* parent)
        : PlatformAuthenticator(webSocket, QStringLiteral("uuid-1"), nullptr, parent)
        , m_error(error)
    { }
    void connectWebSocket() override
    {
        if (m_error < 0)
            Q_EMIT authenticated();
        else
            Q_EMIT error(PlatformAuthenticator::Error(m_error), QStringLiteral("scripted"));
    }

private:
    int m_error;
};

class ScriptedAdbClient : public AdbClient
{
public:
    ScriptedAdbClient(const QString& serial, bool connects)
        : AdbClient(serial)
        , m_connects(connects)
    { }
    void connectToAdb() override
    {
        if (m_connects)
            Q_EMIT connectSuccess();
        else
            Q_EMIT connectError(QStringLiteral("adb connect failed"));
    }
    void disconnectFromAdb() override { }

private:
    bool m_connects;
};

} // namespace

class TestAdbTunnel : public QObject
{
    Q_OBJECT

private:
    NoToolsProvider m_tools;

private Q_SLOTS:
    void initTestCase() { AndroidToolsProvider::setInstance(&m_tools); }
    void cleanupTestCase() { AndroidToolsProvider::setInstance(nullptr); }

    void reports_data()
    {
        QTest::addColumn<int>("authError"); // -1: authenticated
        QTest::addColumn<QString>("port"); // "free", "taken" or "any" (0)
        QTest::addColumn<bool>("adbConnects");
        QTest::addColumn<int>("drops"); // times the web socket reports a disconnection afterwards
        QTest::addColumn<QList<int>>("errors");
        QTest::addColumn<int>("successes");

        using E = AdbTunnel::Error;
        QTest::newRow("connected") << -1 << "free" << true << 0 << QList<int> {} << 1;
        QTest::newRow("any port: the one picked is kept for a restart")
            << -1 << "any" << true << 0 << QList<int> {} << 1;
        QTest::newRow("platform refuses") << int(PlatformAuthenticator::AuthenticationFailed) << "free"
                                          << true << 0 << QList<int> { E::AuthenticationError } << 0;
        QTest::newRow("web socket fails during authentication")
            << int(PlatformAuthenticator::WebSocketError) << "free" << true << 0
            << QList<int> { E::DisconnectionError } << 0;
        QTest::newRow("requested port taken")
            << -1 << "taken" << true << 0 << QList<int> { E::BridgeBusyPortError } << 0;
        QTest::newRow("adb connect fails") << -1 << "free" << false << 0 << QList<int> { E::AdbError } << 0;
        QTest::newRow("two drops are one disconnection")
            << -1 << "free" << true << 2 << QList<int> { E::DisconnectionError } << 1;
    }
    void reports()
    {
        QFETCH(int, authError);
        QFETCH(QString, port);
        QFETCH(bool, adbConnects);
        QFETCH(int, drops);
        QFETCH(QList<int>, errors);
        QFETCH(int, successes);

        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::LocalHost, 0));
        const quint16 asked = port == QLatin1String("any") ? 0 : squatter.serverPort();
        if (port != QLatin1String("taken"))
            squatter.close();

        AdbTunnelInfo info;
        info.id = QStringLiteral("uuid-1");
        info.port = asked;
        MockWebSocket* socket = nullptr;
        AdbTunnelParts parts;
        parts.makeWebSocket = [&socket](QObject* parent) { return socket = new MockWebSocket(parent); };
        parts.makeAuthenticator = [authError](AbstractWebSocket* webSocket, const QString&, QObject* parent) {
            return new ScriptedAuthenticator(webSocket, authError, parent);
        };
        parts.makeAdbClient
            = [adbConnects](const QString& serial) { return new ScriptedAdbClient(serial, adbConnects); };
        AdbTunnel tunnel(nullptr, nullptr, &info, nullptr, parts);
        QSignalSpy success(&tunnel, &AdbTunnel::success);
        QSignalSpy error(&tunnel, &AdbTunnel::error);

        tunnel.doWork();
        QTRY_COMPARE(success.size() + error.size(), 1);
        for (int i = 0; i < drops; ++i)
            socket->dropConnection();
        QTRY_COMPARE(error.size(), errors.size());
        QCOMPARE(success.size(), successes);
        QList<int> seen;
        for (const QList<QVariant>& arguments : std::as_const(error))
            seen.append(int(arguments.first().value<AdbTunnel::Error>()));
        QCOMPARE(seen, errors);
        if (successes > 0) {
            QVERIFY(info.port != 0);
            if (asked != 0)
                QCOMPARE(info.port, asked);
            QCOMPARE(info.serial, QStringLiteral("localhost:%1").arg(info.port));
        }
    }
};

QTEST_GUILESS_MAIN(TestAdbTunnel)
#include "tst_adbtunnel.moc"
