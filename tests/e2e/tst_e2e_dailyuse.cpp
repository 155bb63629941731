// Daily use as a CI script meets it: "connect --wait" tells a good tunnel from a broken set-up and
// says why, "doctor" points at the broken part, and a killed daemon leaves no stale device.
#include "e2efixture.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QtTest>

#include <csignal>

namespace {

constexpr int WAIT_TIMEOUT_S = 40;

QJsonObject doctorCheck(const QJsonObject& doctor, const QString& namePrefix)
{
    const QJsonArray checks = doctor.value(QStringLiteral("checks")).toArray();
    for (const QJsonValue& check : checks) {
        if (check.toObject().value(QStringLiteral("name")).toString().startsWith(namePrefix))
            return check.toObject();
    }
    return {};
}

} // namespace

class TestE2eDailyUse : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void connectWaitAndDoctor_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("reason"); // in the error message and in "last_error"; empty: success
        QTest::addColumn<QString>("failingCheck"); // the doctor check that must fail
        QTest::newRow("good") << "good" << QString() << QString();
        QTest::newRow("no credentials") << "nocredentials"
                                        << "No credentials"
                                        << "credentials";
        QTest::newRow("rejected token") << "badtoken"
                                        << "Platform request failed"
                                        << "platform";
        QTest::newRow("platform refuses connections") << "refused"
                                                      << "Connection refused"
                                                      << "platform";
        QTest::newRow("busy port") << "busyport"
                                   << "is busy"
                                   << "tunnel ";
        QTest::newRow("adb missing") << "noadb"
                                     << "adb not found in"
                                     << "adb";
    }

    void connectWaitAndDoctor()
    {
        QFETCH(QString, setup);
        QFETCH(QString, reason);
        QFETCH(QString, failingCheck);
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        const QString uuid = fixture.instanceUuid();
        QStringList connect { QStringLiteral("connect"), uuid, QStringLiteral("--wait"),
                              QStringLiteral("--timeout"), QString::number(WAIT_TIMEOUT_S) };
        QTcpServer squatter;

        if (setup == QLatin1String("nocredentials")) {
            fixture.setEnv(QStringLiteral("KESTRELBOX_API_TOKEN"), QString());
        } else if (setup == QLatin1String("badtoken")) {
            fixture.writeAuth({ { QStringLiteral("api_token"), QStringLiteral("wrong") } });
        } else {
            fixture.useApiToken();
        }
        if (setup == QLatin1String("refused")) {
            fixture.setEnv(QStringLiteral("KB_PLATFORM_BASE_URL"),
                           QStringLiteral("http://127.0.0.1:%1").arg(TestKit::freeLoopbackPort()));
        } else if (setup == QLatin1String("busyport")) {
            QVERIFY(squatter.listen(QHostAddress::Any, 0));
            connect << QStringLiteral("--adb-serial-port") << QString::number(squatter.serverPort());
        } else if (setup == QLatin1String("noadb")) {
            QVERIFY(QDir().mkpath(fixture.path(QStringLiteral("sdk-without-adb/platform-tools"))));
            fixture.writeConfig(
                { { QStringLiteral("android-sdk-path"), fixture.path(QStringLiteral("sdk-without-adb")) } });
        }

        QElapsedTimer timer;
        timer.start();
        const E2eFixture::Result result = fixture.kbadbtunneld(connect, (WAIT_TIMEOUT_S + 30) * 1000);
        QVERIFY(result.finished);
        QVERIFY2(timer.elapsed() < (WAIT_TIMEOUT_S + 5) * 1000, "connect --wait overran its timeout");
        const QJsonObject entry = fixture.instance(uuid);
        if (reason.isEmpty()) {
            QCOMPARE(result.exitCode, 0);
            QCOMPARE(result.json().value(QStringLiteral("state")).toString(), QStringLiteral("CONNECTED"));
            QCOMPARE(result.json().value(QStringLiteral("uuid")).toString(), uuid);
            const QString serial = result.json().value(QStringLiteral("adb_serial")).toString();
            QVERIFY(serial.startsWith(QLatin1String("localhost:")));
            QVERIFY(fixture.deviceIsBack(serial));
            QCOMPARE(entry.value(QStringLiteral("last_error")).toString(QStringLiteral("absent")), QString());
        } else {
            QCOMPARE(result.exitCode, 2);
            QCOMPARE(result.out, QByteArray());
            const QString message = result.errorJson()
                                        .value(QStringLiteral("error"))
                                        .toObject()
                                        .value(QStringLiteral("message"))
                                        .toString();
            QVERIFY2(message.contains(reason), qPrintable(message));
            const QString lastError = entry.value(QStringLiteral("last_error")).toString();
            QVERIFY2(lastError.contains(reason), qPrintable(lastError));
            QVERIFY2(message.endsWith(lastError), qPrintable(message));
        }

        const E2eFixture::Result doctor = fixture.kbadbtunneld({ QStringLiteral("doctor") });
        const QJsonObject report = doctor.json();
        QVERIFY2(report.value(QStringLiteral("checks")).toArray().size() >= 6, doctor.out.constData());
        if (failingCheck.isEmpty()) {
            QCOMPARE(doctor.exitCode, 0);
            QCOMPARE(report.value(QStringLiteral("exit_code")).toInt(-1), 0);
            for (const QJsonValue& check : report.value(QStringLiteral("checks")).toArray())
                QVERIFY2(check.toObject().value(QStringLiteral("ok")).toBool(), doctor.out.constData());
        } else {
            QCOMPARE(doctor.exitCode, 2);
            QCOMPARE(report.value(QStringLiteral("exit_code")).toInt(), 2);
            const QJsonObject check = doctorCheck(report, failingCheck);
            QVERIFY2(!check.isEmpty(), doctor.out.constData());
            QVERIFY2(!check.value(QStringLiteral("ok")).toBool(true), doctor.out.constData());
            QVERIFY(check.value(QStringLiteral("detail")).toString().contains(QLatin1String("Fix: ")));
            QVERIFY2(doctorCheck(report, QStringLiteral("config_home")).value(QStringLiteral("ok")).toBool(),
                     doctor.out.constData());
        }
    }

    void killedDaemonLeavesNoStaleSerial()
    {
        E2eFixture fixture;
        QVERIFY(fixture.startSimulator());
        fixture.useApiToken();
        const QByteArray ours = fixture.connectInstance(fixture.instanceUuid()).toUtf8();
        QVERIFY(!ours.isEmpty());
        // A device this daemon did not attach: the simulated device's own port, straight from adb.
        const QByteArray theirs = "localhost:" + QByteArray::number(fixture.devicePort());
        QCOMPARE(fixture.adb({ QStringLiteral("connect"), QString::fromUtf8(theirs) }).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(fixture.devices().contains(theirs + "\tdevice"), 30000);

        const qint64 pid = fixture.daemonPid();
        QVERIFY(pid > 0);
        ::kill(pid_t(pid), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(fixture.devices().contains(ours + "\toffline"), 30000);

        QCOMPARE(fixture.kbadbtunneld({ QStringLiteral("start") }).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(!fixture.devices().contains(ours), 30000);
        QVERIFY(fixture.devices().contains(theirs + "\tdevice"));
    }
};

QTEST_GUILESS_MAIN(TestE2eDailyUse)
#include "tst_e2e_dailyuse.moc"
