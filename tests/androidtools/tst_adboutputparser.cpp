#include "androidtools/adbclient.h"
#include "androidtools/adboutputparser.h"

#include <QTest>

using AdbOutputParser::GetStateResult;
using Devices = QList<AdbOutputParser::Device>;

Q_DECLARE_METATYPE(GetStateResult)
Q_DECLARE_METATYPE(AdbOutputParser::Device)

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
        QTest::newRow("binary garbage") << 0 << QByteArrayLiteral("\x00\xff\xfe garbage") << QByteArray()
                                        << GetStateResult::UnrecognizedOutput;
        QTest::newRow("unknown serial, CRLF")
            << 1 << QByteArray() << QByteArrayLiteral("error: device 'localhost:41234' not found\r\n")
            << GetStateResult::NotFound;
        QTest::newRow("not found on stdout only")
            << 1 << QByteArrayLiteral("error: device not found") << QByteArray() << GetStateResult::Failed;
        QTest::newRow("connecting") << 1 << QByteArray()
                                    << QByteArrayLiteral("error: device still connecting\n")
                                    << GetStateResult::Connecting;
        QTest::newRow("unauthorized")
            << 1 << QByteArray() << QByteArrayLiteral("error: device unauthorized.\n")
            << GetStateResult::Failed;
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

    void devices()
    {
        const QByteArray output = QByteArrayLiteral(
            "* daemon not running; starting now at tcp:5037\r\n* daemon started successfully\r\n"
            "List of devices "
            "attached\r\nR58M12ABCDE\tdevice\r\n127.0.0.1:5555\toffline\r\n\r\nemulator-5554\tdevice");
        QCOMPARE(AdbOutputParser::parseDevices(output),
                 (Devices { { QStringLiteral("R58M12ABCDE"), QStringLiteral("device") },
                            { QStringLiteral("127.0.0.1:5555"), QStringLiteral("offline") },
                            { QStringLiteral("emulator-5554"), QStringLiteral("device") } }));
        QVERIFY(AdbOutputParser::isNetworkSerial(QStringLiteral("192.168.1.20:5555")));
        QVERIFY(!AdbOutputParser::isNetworkSerial(QStringLiteral("localhost:5555")));
    }

    void pullProgress_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<int>("expected");
        QTest::newRow("nothing") << QByteArrayLiteral("/sdcard/a.bin: 1 file pulled, 0 skipped.\n") << -1;
        QTest::newRow("rewritten line")
            << QByteArrayLiteral("[  0%] /sdcard/a.bin\r[ 42%] /sdcard/a.bin\r") << 42;
        QTest::newRow("older format") << QByteArrayLiteral("Transferring: 1024/4096 (25%)\r") << 25;
        QTest::newRow("cut in the middle") << QByteArrayLiteral("[ 10%] /sdcard/a.bin\r[ 4") << 10;
        QTest::newRow("percent in a file name") << QByteArrayLiteral("[ 10%] /sdcard/100%.txt\r") << 10;
        QTest::newRow("out of range") << QByteArrayLiteral("[ 10%] x\r[999%] x\r") << 10;
    }

    void pullProgress()
    {
        QFETCH(QByteArray, output);
        QFETCH(int, expected);
        QCOMPARE(AdbOutputParser::lastPullProgress(output), expected);
    }

    void classifyError()
    {
        QCOMPARE(AdbClient::classifyError(
                     QStringLiteral("adb: failed to install x.apk: Failure "
                                    "[INSTALL_FAILED_NO_MATCHING_ABIS: Failed to extract native "
                                    "libraries, res=-113]")),
                 AdbClient::NO_MATCHING_ABIS);
        QCOMPARE(AdbClient::classifyError(QStringLiteral("Failure [INSTALL_FAILED_CPU_ABI_INCOMPATIBLE]")),
                 AdbClient::NO_MATCHING_ABIS);
        QCOMPARE(AdbClient::classifyError(
                     QStringLiteral("Failure [INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES]")),
                 AdbClient::INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES);
        QCOMPARE(AdbClient::classifyError(QStringLiteral("Failure [INSTALL_FAILED_ALREADY_EXISTS]")),
                 AdbClient::UNKNOWN);
    }
};

QTEST_GUILESS_MAIN(tst_AdbOutputParser)
#include "tst_adboutputparser.moc"
