// The link model: order kept whatever the settings, and delays that only ever add.

#include "linkmodel.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

class TestLinkModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void immediateWithoutDelay();
    void orderKeptAcrossChanges_data();
    void orderKeptAcrossChanges();
    void bandwidthSpacesChunks();
};

void TestLinkModel::immediateWithoutDelay()
{
    LinkModel link(nullptr);
    QSignalSpy delivered(link.uplink(), &LinkLane::delivered);
    link.uplink()->send("a");
    QCOMPARE(delivered.size(), 1); // no timer round trip on an unshaped link
    QCOMPARE(link.uplink()->queuedBytes(), 0);
}

void TestLinkModel::orderKeptAcrossChanges_data()
{
    QTest::addColumn<int>("firstRtt");
    QTest::addColumn<int>("secondRtt");
    QTest::addColumn<qint64>("secondKbps");
    QTest::newRow("delay removed") << 200 << 0 << qint64(0);
    QTest::newRow("delay shortened") << 300 << 20 << qint64(0);
    QTest::newRow("bandwidth lifted") << 0 << 0 << qint64(0);
}

void TestLinkModel::orderKeptAcrossChanges()
{
    QFETCH(int, firstRtt);
    QFETCH(int, secondRtt);
    QFETCH(qint64, secondKbps);
    LinkModel link(nullptr);
    QSignalSpy delivered(link.downlink(), &LinkLane::delivered);
    link.setRttMs(firstRtt);
    if (firstRtt == 0)
        link.setBandwidthKbps(80); // 10 bytes per second: the first chunk takes a while
    link.downlink()->send(QByteArray(2, 'a'));
    link.setRttMs(secondRtt);
    link.setBandwidthKbps(secondKbps);
    link.downlink()->send("b");
    link.downlink()->send("c");
    QCOMPARE(delivered.size(), 0);
    QCOMPARE(link.downlink()->queuedBytes(), 4);
    QTRY_COMPARE_WITH_TIMEOUT(delivered.size(), 3, 10000);
    QCOMPARE(delivered.at(0).at(0).toByteArray(), QByteArray("aa"));
    QCOMPARE(delivered.at(1).at(0).toByteArray(), QByteArray("b"));
    QCOMPARE(delivered.at(2).at(0).toByteArray(), QByteArray("c"));
    QCOMPARE(link.downlink()->queuedBytes(), 0);
}

void TestLinkModel::bandwidthSpacesChunks()
{
    LinkModel link(nullptr);
    link.setBandwidthKbps(800); // 100 kB/s
    QSignalSpy delivered(link.uplink(), &LinkLane::delivered);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 4; ++i)
        link.uplink()->send(QByteArray(5000, 'x')); // 20 kB: at least 200 ms on the wire
    QTRY_COMPARE_WITH_TIMEOUT(delivered.size(), 4, 10000);
    QVERIFY2(clock.elapsed() >= 200, qPrintable(QString::number(clock.elapsed())));
}

QTEST_GUILESS_MAIN(TestLinkModel)
#include "tst_linkmodel.moc"
