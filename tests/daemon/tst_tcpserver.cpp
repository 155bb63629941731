#include "daemon/adbtunnelversion.h"
#include "daemon/tcp_server.h"
#include "daemon/tcp_socket.h"

#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>

class TestTcpServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tunnelVersion_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("version");
        QTest::addColumn<bool>("megaFast");
        QTest::addColumn<bool>("recognized");
        QTest::newRow("unset") << QByteArray() << 2 << true << true;
        QTest::newRow("1") << QByteArray("1") << 1 << false << true;
        QTest::newRow("2") << QByteArray("2") << 2 << true << true;
        QTest::newRow("7 is announced as is") << QByteArray("7") << 7 << true << false;
        QTest::newRow("abc") << QByteArray("abc") << 0 << false << false;
        QTest::newRow("-3") << QByteArray("-3") << -3 << false << false;
    }
    void tunnelVersion()
    {
        QFETCH(QByteArray, value);
        QFETCH(int, version);
        QFETCH(bool, megaFast);
        QFETCH(bool, recognized);
        if (qstrcmp(QTest::currentDataTag(), "unset") == 0) {
            qunsetenv(AdbTunnelVersion::ENV_KB_ADBTUNNEL_VERSION);
        } else {
            qputenv(AdbTunnelVersion::ENV_KB_ADBTUNNEL_VERSION, value);
            if (!recognized)
                QTest::ignoreMessage(QtCriticalMsg, "Adb tunnel version not recognized!");
            QTest::ignoreMessage(
                QtDebugMsg,
                qPrintable(QStringLiteral("Override adb tunnel version from 2 to %1").arg(version)));
        }
        const AdbTunnelVersion::Settings settings = AdbTunnelVersion::readSettings();
        qunsetenv(AdbTunnelVersion::ENV_KB_ADBTUNNEL_VERSION);
        QCOMPARE(settings.version, version);
        QCOMPARE(settings.megaFast, megaFast);
    }

    void admission_data()
    {
        QTest::addColumn<QByteArray>("allowRemote");
        QTest::addColumn<QString>("peer");
        QTest::addColumn<bool>("admitted");
        const QStringList loopback { QStringLiteral("127.0.0.1"), QStringLiteral("127.45.6.7"),
                                     QStringLiteral("::1"), QStringLiteral("::ffff:127.0.0.1") };
        const QStringList others { QStringLiteral("192.0.2.2"), QStringLiteral("0.0.0.0"),
                                   QStringLiteral("128.0.0.1"), QStringLiteral("::ffff:192.0.2.2"),
                                   QStringLiteral("fd00::2"),   QStringLiteral("::") };
        for (const QByteArray& allow :
             { QByteArray(), QByteArray("0"), QByteArray("1"), QByteArray("yes") }) {
            for (const QString& peer : loopback)
                QTest::addRow("%s from %s", allow.constData(), qPrintable(peer)) << allow << peer << true;
            for (const QString& peer : others) {
                QTest::addRow("%s from %s", allow.constData(), qPrintable(peer))
                    << allow << peer << (allow == "1");
            }
        }
    }

    void admission()
    {
        QFETCH(QByteArray, allowRemote);
        QFETCH(QString, peer);
        QFETCH(bool, admitted);
        if (allowRemote.isNull())
            qunsetenv(TcpServer::ENV_ALLOW_REMOTE);
        else
            qputenv(TcpServer::ENV_ALLOW_REMOTE, allowRemote);
        if (allowRemote == "1")
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(QStringLiteral("^KB_TUNNEL_ALLOW_REMOTE=1: ")));
        if (allowRemote == "yes")
            QTest::ignoreMessage(QtWarningMsg,
                                 "KB_TUNNEL_ALLOW_REMOTE=yes is neither 1 nor 0: only this "
                                 "machine may use the tunnel");
        const TcpServer server;
        qunsetenv(TcpServer::ENV_ALLOW_REMOTE);
        QVERIFY(!QHostAddress(peer).isNull());
        QCOMPARE(server.admits(QHostAddress(peer)), admitted);
    }

    void readsInChunksAndKeepsStaleClient()
    {
        TcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost, 0));
        QByteArrayList chunks;
        connect(&server, &TcpServer::dataReceived, this, [&](const QByteArray& data) {
            chunks.append(QByteArray(data.constData(), data.size())); // a view: copy it
        });
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, server.serverPort());
        QTRY_VERIFY(server.client());
        QCOMPARE(server.client()->socketOption(QAbstractSocket::LowDelayOption).toInt(), 1);

        QByteArray data(10000, Qt::Uninitialized);
        for (int i = 0; i < data.size(); ++i)
            data[i] = char(i * 7);
        client.write(data);
        client.flush(); // all of it is in the receive queue before the server reads
        QTRY_COMPARE(chunks.join().size(), data.size());
        QCOMPARE(chunks.join(), data);
        QCOMPARE(chunks.size(), 3);
        QCOMPARE(chunks.at(2).size(), 1808);

        QByteArray echoed;
        connect(&client, &QTcpSocket::readyRead, this, [&] { echoed += client.readAll(); });
        server.sendData("reply");
        QTRY_COMPARE(echoed, QByteArray("reply"));

        QSignalSpy gone(&server, &TcpServer::socketDisconnected);
        client.disconnectFromHost();
        QVERIFY(gone.wait());
        QVERIFY(server.client());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^No bytes written")));
        server.sendData("lost");

        QTcpSocket next;
        next.connectToHost(QHostAddress::LocalHost, server.serverPort());
        QTRY_VERIFY(server.client() && server.client()->state() == QAbstractSocket::ConnectedState);
        QSignalSpy nextGone(&next, &QTcpSocket::disconnected);
        server.stop();
        QVERIFY(!server.isListening());
        QVERIFY(!server.client());
        QVERIFY(nextGone.wait());
    }
};

QTEST_GUILESS_MAIN(TestTcpServer)
#include "tst_tcpserver.moc"
