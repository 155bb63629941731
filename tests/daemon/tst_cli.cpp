// Runs the built kbadbtunneld as a user would, each case with its own configuration home.
#include "testkit.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/stat.h>

using TestKit::localFrame;
using TestKit::processAlive;

class TestCli : public QObject
{
    Q_OBJECT

private:
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("KB_LOG_TO_STDERR")); // stderr must carry only the error documents
        env.insert(QStringLiteral("KBSAAS_CONFIG_HOME"), m_home->path());
        return env;
    }

    RunResult run(const QStringList& arguments, const QProcessEnvironment* env = nullptr)
    {
        return TestKit::run(QStringLiteral(KBADBTUNNELD_PATH), arguments, env ? *env : environment());
    }

    QString log() const
    {
        return QString::fromUtf8(TestKit::readFile(m_home->path() + QStringLiteral("/kbadbtunneld.log")));
    }

    QList<qint64> daemonPids() const { return TestKit::daemonPids(log().toUtf8()); }

    QString socketPath() const
    {
        return m_home->path() + QStringLiteral("/tmp/")
            + QString::fromLatin1(QCryptographicHash::hash("kbadbtunneld", QCryptographicHash::Md5).toHex());
    }

    std::unique_ptr<QTemporaryDir> m_home;

private Q_SLOTS:
    void init() { m_home = std::make_unique<QTemporaryDir>(); }

    void cleanup()
    {
        run({ QStringLiteral("stop") });
        TestKit::killDaemons(log().toUtf8());
        m_home.reset();
    }

    void badArgumentsPrintHelp_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<bool>("helpOnStdout");
        QTest::newRow("no arguments") << QStringList {} << 1 << true;
        QTest::newRow("unknown command") << QStringList { QStringLiteral("foo") } << 1 << true;
        QTest::newRow("connect without id") << QStringList { QStringLiteral("connect") } << 1 << true;
        QTest::newRow("option of another command")
            << QStringList { QStringLiteral("getinstances"), QStringLiteral("--adb-serial-port"),
                             QStringLiteral("5555") }
            << 1 << false;
        QTest::newRow("missing option value")
            << QStringList { QStringLiteral("connect"), QStringLiteral("abc"),
                             QStringLiteral("--adb-serial-port") }
            << 1 << false;
        QTest::newRow("timeout without wait")
            << QStringList { QStringLiteral("connect"), QStringLiteral("abc"), QStringLiteral("--timeout"),
                             QStringLiteral("5") }
            << 1 << false;
        QTest::newRow("timeout not a number")
            << QStringList { QStringLiteral("connect"), QStringLiteral("abc"), QStringLiteral("--wait"),
                             QStringLiteral("--timeout"), QStringLiteral("5s") }
            << 1 << false;
        QTest::newRow("timeout zero")
            << QStringList { QStringLiteral("connect"), QStringLiteral("abc"), QStringLiteral("--wait"),
                             QStringLiteral("--timeout"), QStringLiteral("0") }
            << 1 << false;
        QTest::newRow("wait with another command")
            << QStringList { QStringLiteral("getinstances"), QStringLiteral("--wait") } << 1 << false;
        QTest::newRow("help") << QStringList { QStringLiteral("--help") } << 0 << true;
    }

    void badArgumentsPrintHelp()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(bool, helpOnStdout);
        const RunResult result = run(arguments);
        QCOMPARE(result.exitCode, exitCode);
        if (helpOnStdout) {
            QVERIFY(result.out.contains("A way to connect ADB to Kestrelbox Cloud SaaS instances"));
            QCOMPARE(result.err, QByteArray());
        } else {
            QCOMPARE(result.out, QByteArray());
            QVERIFY(!result.err.isEmpty());
        }
        QVERIFY(daemonPids().isEmpty());
    }

    void version()
    {
        QCOMPARE(run({ QStringLiteral("--version") }).out, QByteArray("kbadbtunneld 1.16.0\n"));
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("KBADBTUNNELD_VERSION"), QStringLiteral("2.0.0-rc1"));
        QCOMPARE(run({ QStringLiteral("-v") }, &env).out, QByteArray("kbadbtunneld 2.0.0-rc1\n"));
    }

    void commandsWithoutDaemonStartNothing()
    {
        for (const QStringList& arguments :
             { QStringList { QStringLiteral("stop") }, QStringList { QStringLiteral("getdaemoninfo") },
               QStringList { QStringLiteral("getinstances") },
               QStringList { QStringLiteral("disconnect"), QStringLiteral("abc") } }) {
            const RunResult result = run(arguments);
            QCOMPARE(result.exitCode, 0);
            QCOMPARE(result.out, QByteArray("{\n    \"exit_code\": 0,\n    \"running\": false\n}\n"));
            QCOMPARE(result.err, QByteArray());
        }
        QVERIFY(daemonPids().isEmpty());
    }

    void daemonLifecycle()
    {
        RunResult result = run({ QStringLiteral("start") });
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(result.json().value(QStringLiteral("running")).toBool(), true);
        QCOMPARE(daemonPids().size(), 1);
        const qint64 pid = daemonPids().first();
        QVERIFY(processAlive(pid));
        QVERIFY(QFileInfo::exists(socketPath()));

        result = run({ QStringLiteral("start") });
        QCOMPARE(result.out, QByteArray("{\n    \"exit_code\": 0,\n    \"running\": true\n}\n"));
        QCOMPARE(daemonPids().size(), 1);

        result = run({ QStringLiteral("getdaemoninfo") });
        QCOMPARE(result.json().value(QStringLiteral("version")).toString(), QStringLiteral("1.16.0"));
        QVERIFY(result.json()
                    .value(QStringLiteral("platform_url"))
                    .toString()
                    .startsWith(QLatin1String("https://")));
        QCOMPARE(result.json().value(QStringLiteral("proxy")).toString(), QString());
        QCOMPARE(result.json().value(QStringLiteral("exit_code")).toInt(-1), 0);

        result = run({ QStringLiteral("getinstances") });
        QCOMPARE(result.json().value(QStringLiteral("instances")).toArray().size(), 0);

        // Garbage on the local socket is logged and the daemon keeps serving.
        QLocalSocket garbage;
        garbage.connectToServer(socketPath());
        QVERIFY(garbage.waitForConnected(2000));
        garbage.write(localFrame("this is not json"));
        garbage.waitForBytesWritten(1000);
        QTRY_VERIFY(log().contains(QLatin1String("Invalid json received:")));
        QCOMPARE(run({ QStringLiteral("getinstances") }).exitCode, 0);

        result = run({ QStringLiteral("stop") });
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(result.json().value(QStringLiteral("running")).toBool(true), false);
        QTRY_VERIFY(!processAlive(pid));
        QVERIFY(log().contains(QLatin1String("==== SERVER exit code: 0 ====")));
    }

    void privateFilesUnderPermissiveUmask_data()
    {
        QTest::addColumn<bool>("homeExists");
        QTest::newRow("home created by the program") << false;
        QTest::newRow("existing world-writable home") << true;
    }

    void privateFilesUnderPermissiveUmask()
    {
        QFETCH(bool, homeExists);
        const QString home = m_home->path();
        if (homeExists)
            QCOMPARE(::chmod(QFile::encodeName(home).constData(), 0777), 0);
        else
            QVERIFY(QDir(home).removeRecursively());
        // Client and daemon inherit the umask: with 000, anything left to it is open to all.
        const mode_t savedUmask = ::umask(0);
        const RunResult result = run({ QStringLiteral("start") });
        ::umask(savedUmask);
        QCOMPARE(result.exitCode, 0);

        QCOMPARE(TestKit::fileMode(home), homeExists ? 0777 : 0700);
        QCOMPARE(TestKit::fileMode(home + QStringLiteral("/tmp")), 0700);
        QCOMPARE(TestKit::fileMode(home + QStringLiteral("/kbadbtunneld.log")), 0600);
        QCOMPARE(TestKit::fileMode(socketPath()) & 0777, 0700);
        QCOMPARE(log().contains(QStringLiteral("%1 is writable by other users of this machine").arg(home)),
                 homeExists);
        // The socket's mode is what keeps others out; its owner still gets in.
        QCOMPARE(run({ QStringLiteral("getinstances") }).json().value(QStringLiteral("running")).toBool(),
                 true);
    }

    void signalsEndTheDaemonCleanly_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("SIGTERM") << int(SIGTERM);
        QTest::newRow("SIGINT") << int(SIGINT);
        QTest::newRow("SIGHUP") << int(SIGHUP);
    }

    void signalsEndTheDaemonCleanly()
    {
        QFETCH(int, signal);
        QCOMPARE(run({ QStringLiteral("start") }).exitCode, 0);
        const qint64 pid = daemonPids().value(0);
        QVERIFY(processAlive(pid));
        ::kill(pid_t(pid), signal);
        QTRY_VERIFY(!processAlive(pid));
        const QString text = log();
        QVERIFY(text.contains(QStringLiteral("Signal %1 caught. Quit daemon.").arg(signal)));
        QVERIFY(text.contains(QLatin1String("==== SERVER exit code: 0 ====")));

        // Every line follows the documented pattern, the daemon's thread id included.
        static const QRegularExpression line(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "
                           "\\[kbadbtunneld:\\d+:0x[0-9a-f]+\\] \\[(debug|warning|critical|info)\\] "));
        const QStringList lines = text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QVERIFY(lines.size() > 5);
        for (const QString& l : lines)
            QVERIFY2(line.match(l).hasMatch(), qPrintable(l));
    }

    void unusableSocketDirectoryFailsToStart()
    {
        // "tmp" is a file, so the daemon cannot create its socket there.
        QFile blocker(m_home->path() + QStringLiteral("/tmp"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const RunResult result = run({ QStringLiteral("connect"), QStringLiteral("abc") });
        QCOMPARE(result.exitCode, 2);
        QCOMPARE(result.out, QByteArray());
        const QJsonObject error = result.errorJson().value(QStringLiteral("error")).toObject();
        QCOMPARE(error.value(QStringLiteral("message")).toString(),
                 QStringLiteral("Failed to start 'kbadbtunneld'."));
        QCOMPARE(error.value(QStringLiteral("details")).toString(QStringLiteral("x")), QString());
        QCOMPARE(result.errorJson().value(QStringLiteral("exit_code")).toInt(), 2);
    }

    void replyProblems_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QString>("message");
        QTest::newRow("reply not json") << "getinstances" << localFrame("{broken") << "Invalid response";
        QTest::newRow("connection closed") << "getdaemoninfo" << QByteArray() << "Invalid response";
        QTest::newRow("daemon will not stop")
            << "stop" << localFrame("{\"reply\":true}") << "Failed to stop 'kbadbtunneld'.";
    }

    // A stand-in daemon on the socket gives the answers a real one never would.
    void replyProblems()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, reply);
        QFETCH(QString, message);
        QDir().mkpath(m_home->path() + QStringLiteral("/tmp"));
        QLocalServer server;
        QVERIFY(server.listen(socketPath()));
        connect(&server, &QLocalServer::newConnection, this, [&server, reply] {
            QLocalSocket* socket = server.nextPendingConnection();
            connect(socket, &QLocalSocket::readyRead, socket, [socket, reply] {
                socket->readAll();
                if (reply.isEmpty())
                    socket->abort();
                else
                    socket->write(reply);
            });
        });

        QProcess process;
        process.setProcessEnvironment(environment());
        process.start(QStringLiteral(KBADBTUNNELD_PATH), { command });
        QTRY_COMPARE_WITH_TIMEOUT(process.state(), QProcess::NotRunning, 20000);
        QCOMPARE(process.exitCode(), 2);
        const QJsonObject error = QJsonDocument::fromJson(process.readAllStandardError()).object();
        QCOMPARE(error.value(QStringLiteral("error")).toObject().value(QStringLiteral("message")).toString(),
                 message);
    }

    // Client and daemon append to one file; whichever rotates it, the other follows.
    void logRotationKeepsTheSetNumberOfFiles()
    {
        constexpr int maxBytes = 2000;
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("KB_LOG_MAX_BYTES"), QString::number(maxBytes));
        QCOMPARE(run({ QStringLiteral("start") }, &env).exitCode, 0);
        const QString logPath = m_home->path() + QStringLiteral("/kbadbtunneld.log");
        for (int i = 0; i < 60 && !QFileInfo::exists(logPath + QStringLiteral(".3")); ++i)
            QCOMPARE(run({ QStringLiteral("getinstances") }, &env).exitCode, 0);
        for (int i = 0; i < 10; ++i) // and past the third rotation, so that the oldest is dropped
            QCOMPARE(run({ QStringLiteral("getinstances") }, &env).exitCode, 0);

        QVERIFY(!QFileInfo::exists(logPath + QStringLiteral(".4")));
        qint64 longestLine = 0;
        for (const QString& name : { logPath, logPath + QStringLiteral(".1"), logPath + QStringLiteral(".2"),
                                     logPath + QStringLiteral(".3") }) {
            QFile file(name);
            QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(name));
            const QList<QByteArray> lines = file.readAll().split('\n');
            for (const QByteArray& line : lines)
                longestLine = qMax(longestLine, qint64(line.size() + 1));
            QVERIFY2(file.size() <= maxBytes + longestLine, qPrintable(name));
            QVERIFY(lines.first().startsWith("20")); // whole lines only: no line cut at a rotation
        }
        QVERIFY(QFileInfo(logPath + QStringLiteral(".3")).size() > maxBytes / 2);
        // The daemon kept logging through all those rotations, to its very last line (into the
        // current file, or the one just rotated when its line still fitted there).
        QCOMPARE(run({ QStringLiteral("stop") }, &env).json().value(QStringLiteral("running")).toBool(true),
                 false);
        // "stop" is answered before the daemon quits: its last line comes a moment later.
        const auto lastLineWritten = [&] {
            QByteArray all;
            for (const QString& name :
                 { logPath + QStringLiteral(".2"), logPath + QStringLiteral(".1"), logPath }) {
                QFile file(name);
                if (file.open(QIODevice::ReadOnly))
                    all += file.readAll();
            }
            return all.contains("==== SERVER exit code: 0 ====");
        };
        QTRY_VERIFY_WITH_TIMEOUT(lastLineWritten(), 15000);
    }

    void relativeConfigHomeIsFatal()
    {
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("KBSAAS_CONFIG_HOME"), QStringLiteral("cfg"));
        const RunResult result = run({ QStringLiteral("getinstances") }, &env);
        QCOMPARE(result.exitStatus, QProcess::CrashExit);
        QVERIFY(result.err.contains("KBSAAS_CONFIG_HOME is set to 'cfg' but must be an absolute path."));
        QCOMPARE(result.out, QByteArray());
    }
};

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
