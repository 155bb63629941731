#include "androidtools/adbclient.h"
#include "androidtools/adboutputparser.h"

#include <QTest>

using AdbOutputParser::GetStateResult;

Q_DECLARE_METATYPE(GetStateResult)
Q_DECLARE_METATYPE(AdbOutputParser::Device)

class tst_AdbOutputParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void getState_data();
    void getState();
    void devices_data();
    void devices();
    void networkSerial_data();
    void networkSerial();
    void pullProgress_data();
    void pullProgress();
    void classifyError_data();
    void classifyError();
};

void tst_AdbOutputParser::getState_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QByteArray>("err");
    QTest::addColumn<GetStateResult>("expected");

    QTest::newRow("device") << 0 << QByteArrayLiteral("device\n") << QByteArray()
                            << GetStateResult::DeviceFound;
    QTest::newRow("device, CRLF") << 0 << QByteArrayLiteral("device\r\n") << QByteArray()
                                  << GetStateResult::DeviceFound;
    QTest::newRow("device, no final newline, server started on stderr")
        << 0 << QByteArrayLiteral("device")
        << QByteArrayLiteral(
               "* daemon not running; starting now at tcp:5037\n* daemon started successfully\n")
        << GetStateResult::DeviceFound;
    QTest::newRow("offline with exit 0")
        << 0 << QByteArrayLiteral("offline\n") << QByteArray() << GetStateResult::UnrecognizedOutput;
    QTest::newRow("device among other words") << 0 << QByteArrayLiteral("device\nbootloader\n")
                                              << QByteArray() << GetStateResult::UnrecognizedOutput;
    QTest::newRow("binary garbage") << 0 << QByteArrayLiteral("\x00\xff\xfe garbage") << QByteArray()
                                    << GetStateResult::UnrecognizedOutput;
    QTest::newRow("nothing printed") << 0 << QByteArray() << QByteArray()
                                     << GetStateResult::UnrecognizedOutput;
    QTest::newRow("unknown serial") << 1 << QByteArray()
                                    << QByteArrayLiteral("error: device '127.0.0.1:1' not found\n")
                                    << GetStateResult::NotFound;
    QTest::newRow("unknown serial after server start, CRLF")
        << 1 << QByteArray()
        << QByteArrayLiteral(
               "* daemon not running; starting now at tcp:5037\r\n* daemon started successfully\r\n"
               "error: device 'localhost:41234' not found\r\n")
        << GetStateResult::NotFound;
    QTest::newRow("not found is case-sensitive")
        << 1 << QByteArray() << QByteArrayLiteral("error: NOT FOUND") << GetStateResult::Failed;
    QTest::newRow("not found on stdout only")
        << 1 << QByteArrayLiteral("error: device not found") << QByteArray() << GetStateResult::Failed;
    QTest::newRow("connecting") << 1 << QByteArray() << QByteArrayLiteral("error: device still connecting\n")
                                << GetStateResult::Connecting;
    QTest::newRow("unauthorized") << 1 << QByteArray()
                                  << QByteArrayLiteral(
                                         "error: device unauthorized.\nThis adb server's $ADB_VENDOR_KEYS "
                                         "is not set\n")
                                  << GetStateResult::Failed;
    QTest::newRow("device printed but failed")
        << 255 << QByteArrayLiteral("device") << QByteArrayLiteral("error: closed") << GetStateResult::Failed;
}

void tst_AdbOutputParser::getState()
{
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, err);
    QFETCH(GetStateResult, expected);
    QCOMPARE(
        AdbOutputParser::parseGetState(exitCode, AdbOutputParser::toText(out), AdbOutputParser::toText(err)),
        expected);
}

void tst_AdbOutputParser::devices_data()
{
    using Devices = QList<AdbOutputParser::Device>;
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<Devices>("expected");

    QTest::newRow("none") << QByteArrayLiteral("List of devices attached\n\n") << Devices {};
    QTest::newRow("server starting, CRLF, no final newline")
        << QByteArrayLiteral(
               "* daemon not running; starting now at tcp:5037\r\n* daemon started successfully\r\n"
               "List of devices attached\r\nR58M12ABCDE\tdevice\r\nemulator-5554\toffline")
        << Devices { { QStringLiteral("R58M12ABCDE"), QStringLiteral("device") },
                     { QStringLiteral("emulator-5554"), QStringLiteral("offline") } };
    QTest::newRow("network and unauthorized")
        << QByteArrayLiteral("List of devices attached\n127.0.0.1:5555\tdevice\nlocalhost:41234\tdevice\n"
                             "0123456789\tunauthorized\n\n")
        << Devices { { QStringLiteral("127.0.0.1:5555"), QStringLiteral("device") },
                     { QStringLiteral("localhost:41234"), QStringLiteral("device") },
                     { QStringLiteral("0123456789"), QStringLiteral("unauthorized") } };
}

void tst_AdbOutputParser::devices()
{
    QFETCH(QByteArray, output);
    QFETCH(QList<AdbOutputParser::Device>, expected);
    QCOMPARE(AdbOutputParser::parseDevices(output), expected);
}

void tst_AdbOutputParser::networkSerial_data()
{
    QTest::addColumn<QString>("serial");
    QTest::addColumn<bool>("expected");
    QTest::newRow("ipv4 and port") << QStringLiteral("192.168.1.20:5555") << true;
    QTest::newRow("host name") << QStringLiteral("localhost:5555") << false;
    QTest::newRow("usb") << QStringLiteral("R58M12ABCDE") << false;
    QTest::newRow("no port") << QStringLiteral("192.168.1.20") << false;
    QTest::newRow("emulator") << QStringLiteral("emulator-5554") << false;
}

void tst_AdbOutputParser::networkSerial()
{
    QFETCH(QString, serial);
    QFETCH(bool, expected);
    QCOMPARE(AdbOutputParser::isNetworkSerial(serial), expected);
}

void tst_AdbOutputParser::pullProgress_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("expected");
    QTest::newRow("nothing") << QByteArray() << -1;
    QTest::newRow("rewritten line") << QByteArrayLiteral("[  0%] /sdcard/a.bin\r[ 42%] /sdcard/a.bin\r")
                                    << 42;
    QTest::newRow("one per line, then summary") << QByteArrayLiteral(
        "[ 99%] /sdcard/a.bin\n[100%] /sdcard/a.bin\n/sdcard/a.bin: 1 file pulled, 0 skipped.\n")
                                                << 100;
    QTest::newRow("older format") << QByteArrayLiteral("Transferring: 1024/4096 (25%)\r") << 25;
    QTest::newRow("cut in the middle") << QByteArrayLiteral("[ 10%] /sdcard/a.bin\r[ 4") << 10;
    QTest::newRow("percent in a file name") << QByteArrayLiteral("[ 10%] /sdcard/100%.txt\r") << 10;
    QTest::newRow("out of range") << QByteArrayLiteral("[ 10%] x\r[999%] x\r") << 10;
}

void tst_AdbOutputParser::pullProgress()
{
    QFETCH(QByteArray, output);
    QFETCH(int, expected);
    QCOMPARE(AdbOutputParser::lastPullProgress(output), expected);
}

void tst_AdbOutputParser::classifyError_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<AdbClient::Error>("expected");
    QTest::newRow("no matching abis")
        << QStringLiteral("Performing Streamed Install\nadb: failed to install x.apk: Failure "
                          "[INSTALL_FAILED_NO_MATCHING_ABIS: Failed to extract native libraries, res=-113]")
        << AdbClient::NO_MATCHING_ABIS;
    QTest::newRow("cpu abi incompatible")
        << QStringLiteral("Failure [INSTALL_FAILED_CPU_ABI_INCOMPATIBLE]") << AdbClient::NO_MATCHING_ABIS;
    QTest::newRow("update incompatible") << QStringLiteral(
        "Failure [INSTALL_FAILED_UPDATE_INCOMPATIBLE: Package com.x signatures do not match]")
                                         << AdbClient::INSTALL_FAILED_UPDATE_INCOMPATIBLE;
    QTest::newRow("inconsistent certificates")
        << QStringLiteral("Failure [INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES]")
        << AdbClient::INSTALL_PARSE_FAILED_INCONSISTENT_CERTIFICATES;
    QTest::newRow("already exists") << QStringLiteral("Failure [INSTALL_FAILED_ALREADY_EXISTS]")
                                    << AdbClient::UNKNOWN;
    QTest::newRow("empty") << QString() << AdbClient::UNKNOWN;
}

void tst_AdbOutputParser::classifyError()
{
    QFETCH(QString, text);
    QFETCH(AdbClient::Error, expected);
    QCOMPARE(AdbClient::classifyError(text), expected);
}

QTEST_GUILESS_MAIN(tst_AdbOutputParser)
#include "tst_adboutputparser.moc"
