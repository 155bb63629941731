// The scripted ADB host (tools/adbhost/adbhost.py) through a tunnel of either version to the emulated
// device (tst_simdevice checks the device on its own), with and without delayed_ack: files arrive
// byte for byte and the shell's output and exit status come back. Where the device offers delayed_ack too,
// the host must have used the windows it negotiated; a version 2 tunnel acknowledges writes itself, so it
// must not let the device offer it.
#include "e2efixture.h"

#include <QtTest>

class TestE2eAdbHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void scriptedHost_data()
    {
        QTest::addColumn<int>("tunnelVersion");
        QTest::addColumn<bool>("delayedAck");
        QTest::newRow("v1 tunnel, classic") << 1 << false;
        QTest::newRow("v1 tunnel, delayed_ack") << 1 << true;
        QTest::newRow("v2 tunnel, delayed_ack") << 2 << true;
    }

    void scriptedHost()
    {
        QFETCH(int, tunnelVersion);
        QFETCH(bool, delayedAck);

        E2eFixture fixture;
        fixture.setEnv(QStringLiteral("KB_ADBTUNNEL_VERSION"), QString::number(tunnelVersion));
        QVERIFY(fixture.startSimulator());
        // The daemon's adb only pretends: no ADB server takes the tunnel's one client place, the
        // scripted host does.
        const QString tools = fixture.path(QStringLiteral("sdk/platform-tools"));
        QVERIFY(QDir().mkpath(tools));
        const QString adb = tools + QStringLiteral("/adb");
        QVERIFY(TestKit::writeFile(adb,
                                   "#!/bin/sh\ncase \"$*\" in\nconnect*) echo \"connected to $2\" ;;\n"
                                   "*get-state) echo device ;;\nesac\nexit 0\n"));
        QFile::setPermissions(adb, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        fixture.writeConfig({ { QStringLiteral("android-sdk-path"), fixture.path(QStringLiteral("sdk")) } });
        fixture.useApiToken();
        const QString serial = fixture.connectInstance(fixture.instanceUuid());
        QVERIFY2(!serial.isEmpty(), fixture.log().right(3000).constData());
        const QString target = QStringLiteral("127.0.0.1:") + serial.section(QLatin1Char(':'), -1);

        const auto host = [&](const QStringList& command) {
            QStringList arguments { QStringLiteral(KB_ADBHOST_PATH), QStringLiteral("--connect"), target,
                                    QStringLiteral("--timeout"), QStringLiteral("60") };
            if (delayedAck)
                arguments << QStringLiteral("--delayed-ack");
            return fixture.run(QStringLiteral("python3"), arguments + command, 120000);
        };
        const QString local = fixture.makeFile(QStringLiteral("up.bin"), 6 * 1024 * 1024 + 17);
        const QByteArray sha = TestKit::sha256(local);
        const QString remote = QStringLiteral("/data/local/tmp/up.bin");

        const E2eFixture::Result push = host({ QStringLiteral("push"), local, remote });
        QVERIFY2(push.exitCode == 0, (push.out + push.err + fixture.log().right(3000)).constData());
        const QJsonObject pushed = push.json();
        QCOMPARE(pushed.value(QStringLiteral("sha256")).toString().toLatin1(), sha);
        const bool offered = pushed.value(QStringLiteral("device_features"))
                                 .toArray()
                                 .contains(QStringLiteral("delayed_ack"));
        QCOMPARE(offered, tunnelVersion != 2); // the emulated device offers it
        const bool negotiated = delayedAck && offered;
        QCOMPARE(pushed.value(QStringLiteral("delayed_ack")).toBool(), negotiated);
        if (negotiated) // several writes in flight: the window was used, not one OKAY per WRTE
            QVERIFY(pushed.value(QStringLiteral("max_in_flight_writes")).toInt() > 1);

        const E2eFixture::Result pull
            = host({ QStringLiteral("pull"), remote, fixture.path(QStringLiteral("down.bin")) });
        QVERIFY2(pull.exitCode == 0, (pull.out + pull.err).constData());
        QCOMPARE(pull.json().value(QStringLiteral("sha256")).toString().toLatin1(), sha);
        QCOMPARE(TestKit::sha256(fixture.path(QStringLiteral("down.bin"))), sha);

        const E2eFixture::Result shell
            = host({ QStringLiteral("shell"), QStringLiteral("echo out; echo err >&2; exit 3") });
        QVERIFY2(shell.exitCode == 0, (shell.out + shell.err).constData());
        const QJsonObject ran = shell.json();
        if (ran.value(QStringLiteral("shell_protocol")).toInt() == 2) {
            QCOMPARE(ran.value(QStringLiteral("stdout")).toString(), QStringLiteral("out\n"));
            QCOMPARE(ran.value(QStringLiteral("stderr")).toString(), QStringLiteral("err\n"));
            QCOMPARE(ran.value(QStringLiteral("exit_code")).toInt(), 3);
        } else {
            QCOMPARE(ran.value(QStringLiteral("stdout")).toString(), QStringLiteral("out\nerr\n"));
        }
    }
};

QTEST_GUILESS_MAIN(TestE2eAdbHost)
#include "tst_e2e_adbhost.moc"
