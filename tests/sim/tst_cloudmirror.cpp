// The cloud half of tunnel protocol version 2, on scripted message sequences.

#include "cloudmirror.h"

#include "adbprotocol/AdbPacket.h"

#include <QTest>

namespace {

QByteArray msg(quint32 command, quint32 arg0, quint32 arg1, const QByteArray& payload = QByteArray())
{
    return AdbPacket(command, arg0, arg1, payload).toByteArray();
}

// Ids: the daemon's (ADB server's) stream is 5, the device's 9.
const QByteArray OPEN_5 = msg(AdbPacket::OPEN, 5, 0, "shell:cat\0");
const QByteArray READY_9_5 = msg(AdbPacket::OKAY, 9, 5);
QByteArray daemonWrite(const QByteArray& data)
{
    return msg(AdbPacket::WRTE, 5, 9, data);
}
QByteArray deviceWrite(const QByteArray& data)
{
    return msg(AdbPacket::WRTE, 9, 5, data);
}
const QByteArray DEVICE_OKAY = msg(AdbPacket::OKAY, 9, 5);
const QByteArray CLOUD_OKAY = msg(AdbPacket::OKAY, 5, 9); // what the cloud answers a device write with

} // namespace

class TestCloudMirror : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void daemonWritesGoOneAtATime();
    void deviceWritesAreAcknowledgedHere();
    void okayAnsweringOpenPasses();
    void closeWaitsBehindHeldWrites();
    void deviceCloseDropsHeldWrites();
    void congestionHoldsAcknowledgements();
    void messagesCutAnywhere();
    void oversizedMessageFails();
};

void TestCloudMirror::daemonWritesGoOneAtATime()
{
    CloudMirror mirror;
    mirror.feedFromDaemon(OPEN_5);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { OPEN_5 });
    mirror.feedFromDevice(READY_9_5);
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList { READY_9_5 });

    // The daemon already acknowledged three server writes and sends them together.
    mirror.feedFromDaemon(daemonWrite("a") + daemonWrite("b") + daemonWrite("c"));
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { daemonWrite("a") });
    QVERIFY(mirror.queuedBytes() > 0);

    for (const char* next : { "b", "c" }) {
        mirror.feedFromDevice(DEVICE_OKAY);
        QCOMPARE(mirror.takeToDaemon(), QByteArrayList()); // consumed: the server had its OKAY
        QCOMPARE(mirror.takeToDevice(), QByteArrayList { daemonWrite(next) });
    }
    mirror.feedFromDevice(DEVICE_OKAY);
    QVERIFY(mirror.takeToDaemon().isEmpty());
    QVERIFY(mirror.takeToDevice().isEmpty());
    QCOMPARE(mirror.queuedBytes(), 0);

    // Nothing outstanding now: the next write passes at once.
    mirror.feedFromDaemon(daemonWrite("d"));
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { daemonWrite("d") });
}

void TestCloudMirror::deviceWritesAreAcknowledgedHere()
{
    CloudMirror mirror;
    mirror.feedFromDevice(deviceWrite("x") + deviceWrite("y"));
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList({ deviceWrite("x"), deviceWrite("y") }));
    QCOMPARE(mirror.takeToDevice(), QByteArrayList({ CLOUD_OKAY, CLOUD_OKAY }));
}

void TestCloudMirror::okayAnsweringOpenPasses()
{
    CloudMirror mirror;
    // Stream 5 has a write in flight; stream 6 is only being opened.
    mirror.feedFromDaemon(daemonWrite("a"));
    mirror.takeToDevice();
    const QByteArray ready = msg(AdbPacket::OKAY, 11, 6);
    mirror.feedFromDevice(ready);
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList { ready });
    // The same holds for a stream whose writes are all answered.
    mirror.feedFromDevice(DEVICE_OKAY);
    mirror.feedFromDevice(DEVICE_OKAY);
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList { DEVICE_OKAY });
}

void TestCloudMirror::closeWaitsBehindHeldWrites()
{
    CloudMirror mirror;
    const QByteArray close = msg(AdbPacket::CLSE, 5, 9);
    mirror.feedFromDaemon(daemonWrite("a") + daemonWrite("b") + close);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { daemonWrite("a") });
    mirror.feedFromDevice(DEVICE_OKAY);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { daemonWrite("b") });
    mirror.feedFromDevice(DEVICE_OKAY);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { close });
    QCOMPARE(mirror.streamCount(), 0);

    // With nothing held, a close passes straight through.
    mirror.feedFromDaemon(close);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { close });
}

void TestCloudMirror::deviceCloseDropsHeldWrites()
{
    CloudMirror mirror;
    mirror.feedFromDaemon(daemonWrite("a") + daemonWrite("b"));
    mirror.takeToDevice();
    const QByteArray close = msg(AdbPacket::CLSE, 9, 5);
    mirror.feedFromDevice(close);
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList { close });
    QCOMPARE(mirror.queuedBytes(), 0);
    QCOMPARE(mirror.streamCount(), 0);
    // A late OKAY for the closed stream is no longer consumed.
    mirror.feedFromDevice(DEVICE_OKAY);
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList { DEVICE_OKAY });
    QVERIFY(mirror.takeToDevice().isEmpty());
}

void TestCloudMirror::congestionHoldsAcknowledgements()
{
    CloudMirror mirror;
    mirror.setCongested(true);
    mirror.feedFromDevice(deviceWrite("x"));
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList { deviceWrite("x") });
    QVERIFY(mirror.takeToDevice().isEmpty());
    mirror.setCongested(false);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { CLOUD_OKAY });
}

void TestCloudMirror::messagesCutAnywhere()
{
    CloudMirror mirror;
    const QByteArray cnxn = msg(AdbPacket::CNXN, 0x01000001, 4096, "device::features=x");
    const QByteArray bytes = cnxn + deviceWrite("payload");
    for (const char byte : bytes)
        mirror.feedFromDevice(QByteArray(1, byte));
    QCOMPARE(mirror.takeToDaemon(), QByteArrayList({ cnxn, deviceWrite("payload") }));
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { CLOUD_OKAY });
}

void TestCloudMirror::oversizedMessageFails()
{
    CloudMirror mirror;
    QByteArray header = daemonWrite(QByteArray());
    header[14] = 0x40; // 4 MiB announced
    // Whole messages before the bad header still pass.
    mirror.feedFromDaemon(OPEN_5 + header);
    QCOMPARE(mirror.takeToDevice(), QByteArrayList { OPEN_5 });
    QVERIFY(mirror.hasFailed());
    QVERIFY(mirror.errorString().contains(QLatin1String("daemon")));
    QVERIFY(mirror.takeToDevice().isEmpty());
}

QTEST_GUILESS_MAIN(TestCloudMirror)
#include "tst_cloudmirror.moc"
