// The link model: order kept whatever the settings, and delays that only ever add.

#include "linkmodel.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

class TestLinkModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void delivery_data();
    void delivery();
};

void TestLinkModel::delivery_data()
{
    // Three chunks of chunkSize bytes: the first sent with the first settings, the other two
    // after the change to the second.
    QTest::addColumn<int>("firstRtt");
    QTest::addColumn<qint64>("firstKbps");
    QTest::addColumn<int>("secondRtt");
    QTest::addColumn<qint64>("secondKbps");
    QTest::addColumn<int>("chunkSize");
    QTest::addColumn<int>("minMs"); // the least time until all have arrived; 0: at once
    // No timer round trip on an unshaped link.
    QTest::newRow("unshaped") << 0 << qint64(0) << 0 << qint64(0) << 1 << 0;
    // Each direction carries half of the round trip.
    QTest::newRow("delay removed") << 200 << qint64(0) << 0 << qint64(0) << 1 << 100;
    QTest::newRow("delay shortened") << 300 << qint64(0) << 20 << qint64(0) << 1 << 150;
    // 1 kB/s: the first chunk takes 200 ms on the wire.
    QTest::newRow("bandwidth lifted") << 0 << qint64(8) << 0 << qint64(0) << 200 << 200;
    // 100 kB/s: each chunk waits for the wire behind the one before.
    QTest::newRow("bandwidth spaces chunks") << 0 << qint64(800) << 0 << qint64(800) << 10000 << 300;
}

void TestLinkModel::delivery()
{
    QFETCH(int, firstRtt);
    QFETCH(qint64, firstKbps);
    QFETCH(int, secondRtt);
    QFETCH(qint64, secondKbps);
    QFETCH(int, chunkSize);
    QFETCH(int, minMs);
    LinkModel link(nullptr);
    QSignalSpy delivered(link.downlink(), &LinkLane::delivered);
    link.setRttMs(firstRtt);
    link.setBandwidthKbps(firstKbps);
    QElapsedTimer clock;
    clock.start();
    link.downlink()->send(QByteArray(chunkSize, 'a'));
    link.setRttMs(secondRtt);
    link.setBandwidthKbps(secondKbps);
    link.downlink()->send(QByteArray(chunkSize, 'b'));
    link.downlink()->send(QByteArray(chunkSize, 'c'));
    QCOMPARE(delivered.size(), minMs == 0 ? 3 : 0);
    QCOMPARE(link.downlink()->queuedBytes(), minMs == 0 ? 0 : 3 * chunkSize);
    QTRY_COMPARE_WITH_TIMEOUT(delivered.size(), 3, 10000);
    QVERIFY2(clock.elapsed() >= minMs, qPrintable(QString::number(clock.elapsed())));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(delivered.at(i).at(0).toByteArray(), QByteArray(chunkSize, char('a' + i)));
    QCOMPARE(link.downlink()->queuedBytes(), 0);
}

QTEST_GUILESS_MAIN(TestLinkModel)
#include "tst_linkmodel.moc"
