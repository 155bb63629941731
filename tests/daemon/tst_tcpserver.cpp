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
        QTest::newRow("empty") << QByteArray("") << 0 << false << false;
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

    void sendWithoutListening()
    {
        TcpServer server;
        QTest::ignoreMessage(QtWarningMsg, "Tcp server not started.");
        server.sendData("x");
        QVERIFY(server.listen(QHostAddress::LocalHost, 0));
        QTest::ignoreMessage(QtDebugMsg, "No connected client.");
        server.sendData("x");
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
