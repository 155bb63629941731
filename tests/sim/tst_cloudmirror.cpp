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
const QByteArray DAEMON_CLOSE = msg(AdbPacket::CLSE, 5, 9);
const QByteArray DEVICE_CLOSE = msg(AdbPacket::CLSE, 9, 5);

// One step of a script: bytes fed from one side (or a change of congestion), then all that
// went to each side since the step before; the queued bytes and the stream count when given.
struct Step
{
    enum Action { FromDaemon, FromDevice, FromDeviceByteByByte, Congest, Uncongest } action;
    QByteArray bytes;
    QByteArrayList toDevice;
    QByteArrayList toDaemon;
    qint64 queued = -1;
    int streams = -1;
};
using Script = QList<Step>;

} // namespace

Q_DECLARE_METATYPE(Script)

class TestCloudMirror : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void script_data();
    void script();
    void oversizedMessageFails();
};

void TestCloudMirror::script_data()
{
    QTest::addColumn<Script>("steps");
    const QByteArray a = daemonWrite("a");
    const QByteArray b = daemonWrite("b");
    const QByteArray x = deviceWrite("x");
    QTest::newRow("daemon writes go one at a time") << Script {
        { Step::FromDaemon, OPEN_5, { OPEN_5 }, {} },
        { Step::FromDevice, READY_9_5, {}, { READY_9_5 } },
        // The daemon already acknowledged three server writes and sends them together.
        { Step::FromDaemon, a + b + daemonWrite("c"), { a }, {}, 2 * a.size() },
        // Each OKAY releases the next write and is consumed: the server had its OKAY.
        { Step::FromDevice, DEVICE_OKAY, { b }, {} },
        { Step::FromDevice, DEVICE_OKAY, { daemonWrite("c") }, {} },
        { Step::FromDevice, DEVICE_OKAY, {}, {}, 0 },
        // Nothing outstanding now: the next write passes at once.
        { Step::FromDaemon, daemonWrite("d"), { daemonWrite("d") }, {}, 0 },
    };
    const QByteArray ready = msg(AdbPacket::OKAY, 11, 6);
    QTest::newRow("an OKAY answering an OPEN passes") << Script {
        // Stream 5 has a write in flight; stream 6 is only being opened.
        { Step::FromDaemon, a, { a }, {} },
        { Step::FromDevice, ready, {}, { ready } },
        // The same holds for a stream whose writes are all answered.
        { Step::FromDevice, DEVICE_OKAY + DEVICE_OKAY, {}, { DEVICE_OKAY } },
    };
    QTest::newRow("a close waits behind held writes") << Script {
        { Step::FromDaemon, a + b + DAEMON_CLOSE, { a }, {} },
        { Step::FromDevice, DEVICE_OKAY, { b }, {} },
        { Step::FromDevice, DEVICE_OKAY, { DAEMON_CLOSE }, {}, 0, 0 },
        // With nothing held, a close passes straight through.
        { Step::FromDaemon, DAEMON_CLOSE, { DAEMON_CLOSE }, {} },
    };
    QTest::newRow("the device's close drops held writes") << Script {
        { Step::FromDaemon, a + b, { a }, {} },
        { Step::FromDevice, DEVICE_CLOSE, {}, { DEVICE_CLOSE }, 0, 0 },
        // A late OKAY for the closed stream is no longer consumed.
        { Step::FromDevice, DEVICE_OKAY, {}, { DEVICE_OKAY } },
    };
    // A device write is acknowledged here at once, unless congestion holds the OKAY back.
    QTest::newRow("congestion holds acknowledgements") << Script {
        { Step::Congest, {}, {}, {} },
        { Step::FromDevice, x, {}, { x } },
        { Step::Uncongest, {}, { CLOUD_OKAY }, {} },
    };
    const QByteArray cnxn = msg(AdbPacket::CNXN, 0x01000001, 4096, "device::features=x");
    QTest::newRow("messages cut anywhere") << Script {
        { Step::FromDeviceByteByByte, cnxn + x, { CLOUD_OKAY }, { cnxn, x } },
    };
}

void TestCloudMirror::script()
{
    QFETCH(Script, steps);
    CloudMirror mirror;
    for (const Step& step : steps) {
        if (step.action == Step::FromDaemon)
            mirror.feedFromDaemon(step.bytes);
        else if (step.action == Step::FromDevice)
            mirror.feedFromDevice(step.bytes);
        else if (step.action == Step::FromDeviceByteByByte)
            for (const char byte : step.bytes)
                mirror.feedFromDevice(QByteArray(1, byte));
        else
            mirror.setCongested(step.action == Step::Congest);
        QCOMPARE(mirror.takeToDevice(), step.toDevice);
        QCOMPARE(mirror.takeToDaemon(), step.toDaemon);
        if (step.queued >= 0)
            QCOMPARE(mirror.queuedBytes(), step.queued);
        if (step.streams >= 0)
            QCOMPARE(mirror.streamCount(), step.streams);
    }
    QVERIFY(!mirror.hasFailed());
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
