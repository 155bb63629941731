// Whoever the tunnel port serves gets a shell on the cloud device: only this machine's loopback
// is served, also while no ADB server holds the port, unless the user opted in to remote peers.
#include "adbprotocol/AdbPacket.h"
#include "e2efixture.h"

#include <QElapsedTimer>
#include <QNetworkInterface>
#include <QTcpSocket>
#include <QtTest>

namespace {

// An address of one of this machine's own interfaces that is not loopback: a connection from it
// looks to the daemon like one from the network, without leaving the machine.
QHostAddress ownNonLoopbackAddress()
{
    for (const QHostAddress& address : QNetworkInterface::allAddresses()) {
        // An IPv6 link-local address would need its interface's scope to be reached.
        if (!address.isLoopback()
            && !(address.protocol() == QAbstractSocket::IPv6Protocol && address.isLinkLocal()))
            return address;
    }
    return {};
}

struct Peer
{
    quint16 localPort = 0;
    bool closed = false;
    QByteArray received;
};

// Connects from `from` to the tunnel port and greets it as an ADB server would; returns once
// the daemon closed the connection, sent the device's answer, or waitMs passed.
Peer actAsAdbServer(const QHostAddress& from, quint16 port, int waitMs = 10000)
{
    Peer peer;
    QTcpSocket socket;
    if (!socket.bind(from, 0))
        return peer;
    socket.connectToHost(from, port);
    if (!socket.waitForConnected(5000))
        return peer;
    peer.localPort = socket.localPort();
    // ADB protocol.txt: CNXN(version, maxdata, "system-identity-string"), the first message an
    // ADB server sends on a transport.
    socket.write(AdbPacket(AdbPacket::CNXN, 0x01000001, 256 * 1024, QByteArray("host::\0", 7)).toByteArray());
    QElapsedTimer timer;
    timer.start();
    while (socket.state() == QAbstractSocket::ConnectedState && peer.received.size() < 24
           && timer.elapsed() < waitMs) {
        socket.waitForReadyRead(100);
        peer.received += socket.readAll();
    }
    peer.received += socket.readAll();
    peer.closed = socket.state() == QAbstractSocket::UnconnectedState;
    return peer;
}

} // namespace

class TestE2eAdmission : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void peerFromTheNetwork_data()
    {
        QTest::addColumn<bool>("allowRemote");
        QTest::newRow("refused") << false;
        QTest::newRow("admitted with KB_TUNNEL_ALLOW_REMOTE=1") << true;
    }

    void peerFromTheNetwork()
    {
        QFETCH(bool, allowRemote);
        const QHostAddress remote = ownNonLoopbackAddress();
        if (remote.isNull())
            QSKIP("This machine has no non-loopback address to connect from.");

        E2eFixture fixture;
        if (allowRemote)
            fixture.setEnv(QStringLiteral("KB_TUNNEL_ALLOW_REMOTE"), QStringLiteral("1"));
        const QString serial = fixture.startAndConnect();
        QVERIFY(!serial.isEmpty());
        const QString uuid = fixture.instanceUuid();
        const quint16 port = quint16(serial.mid(serial.indexOf(QLatin1Char(':')) + 1).toUInt());
        const auto refusalLogged = [&fixture, &remote](const Peer& peer) {
            return QString::fromUtf8(fixture.log())
                .contains(QStringLiteral("Refused a connection to the tunnel port from %1 port %2")
                              .arg(remote.toString())
                              .arg(peer.localPort));
        };

        if (!allowRemote) {
            // While the user's ADB server is connected, and right after it went away.
            for (const bool adbServerGone : { false, true }) {
                if (adbServerGone)
                    QCOMPARE(fixture.adb({ QStringLiteral("kill-server") }).exitCode, 0);
                const Peer peer = actAsAdbServer(remote, port);
                QVERIFY(peer.localPort != 0);
                QVERIFY(peer.closed);
                QCOMPARE(peer.received, QByteArray());
                QTRY_VERIFY(refusalLogged(peer));
                if (!adbServerGone)
                    QCOMPARE(fixture.shell(serial, QStringLiteral("echo still mine")),
                             QByteArray("still mine\n"));
            }
        } else {
            // The port is served to one peer at a time: right after the ADB server went away the
            // stranger is first, unless the daemon's own "adb connect" restarted a server sooner.
            Peer peer;
            for (int attempt = 0; attempt < 5 && !peer.received.startsWith("CNXN"); ++attempt) {
                QCOMPARE(fixture.adb({ QStringLiteral("kill-server") }).exitCode, 0);
                peer = actAsAdbServer(remote, port);
                QVERIFY(peer.localPort != 0);
                QVERIFY(!refusalLogged(peer));
            }
            QVERIFY2(peer.received.startsWith("CNXN"), peer.received.toHex().constData());
        }

        // Once the stranger is gone the user's ADB server gets the device back.
        fixture.adb({ QStringLiteral("start-server") });
        QTRY_VERIFY_WITH_TIMEOUT(fixture.deviceIsBack(serial), 60000);
        QCOMPARE(fixture.shell(serial, QStringLiteral("echo still mine")), QByteArray("still mine\n"));
        QCOMPARE(fixture.state(uuid), QStringLiteral("CONNECTED"));
    }
};

QTEST_GUILESS_MAIN(TestE2eAdmission)
#include "tst_e2e_admission.moc"
