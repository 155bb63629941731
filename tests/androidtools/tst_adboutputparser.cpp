#include "androidtools/adboutputparser.h"

#include <QTest>

using AdbOutputParser::GetStateResult;

Q_DECLARE_METATYPE(GetStateResult)

class tst_AdbOutputParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void getState_data()
    {
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("out");
        QTest::addColumn<QByteArray>("err");
        QTest::addColumn<GetStateResult>("expected");

        QTest::newRow("device, CRLF, server started on stderr")
            << 0 << QByteArrayLiteral("device\r\n")
            << QByteArrayLiteral(
                   "* daemon not running; starting now at tcp:5037\n* daemon started successfully\n")
            << GetStateResult::DeviceFound;
        QTest::newRow("offline with exit 0")
            << 0 << QByteArrayLiteral("offline") << QByteArray() << GetStateResult::UnrecognizedOutput;
        QTest::newRow("unknown serial, CRLF")
            << 1 << QByteArray() << QByteArrayLiteral("error: device 'localhost:41234' not found\r\n")
            << GetStateResult::NotFound;
        QTest::newRow("not found on stdout only")
            << 1 << QByteArrayLiteral("error: device not found") << QByteArray() << GetStateResult::Failed;
        QTest::newRow("connecting") << 1 << QByteArray()
                                    << QByteArrayLiteral("error: device still connecting\n")
                                    << GetStateResult::Connecting;
        QTest::newRow("device printed but failed")
            << 255 << QByteArrayLiteral("device") << QByteArrayLiteral("error: closed")
            << GetStateResult::Failed;
    }

    void getState()
    {
        QFETCH(int, exitCode);
        QFETCH(QByteArray, out);
        QFETCH(QByteArray, err);
        QFETCH(GetStateResult, expected);
        QCOMPARE(AdbOutputParser::parseGetState(exitCode, AdbOutputParser::toText(out),
                                                AdbOutputParser::toText(err)),
                 expected);
    }
};

QTEST_GUILESS_MAIN(tst_AdbOutputParser)
#include "tst_adboutputparser.moc"
