// The controller's restart policy, with attempts that fail on demand in the real worker thread.
#include "fakeadbtunnel.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace std::chrono_literals;

namespace {
constexpr auto SHORT_DELAY = 5ms;

// Long enough for a few restarts at SHORT_DELAY to have happened if one were (wrongly) pending.
void settle()
{
    QTest::qWait(int(SHORT_DELAY.count()) * 20);
}
} // namespace

class TestAdbTunnelController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void restartPolicy_data()
    {
        QTest::addColumn<QString>("scripts");
        QTest::addColumn<int>("attempts");
        QTest::addColumn<int>("successes");
        QTest::addColumn<int>("gaveUpWith"); // -1: still trying

        QTest::newRow("disconnections: ten attempts, then give up") << "D*10" << 10 << 0 << 1;
        QTest::newRow("adb errors: ten attempts, then give up") << "B*10" << 10 << 0 << 3;
        QTest::newRow("authentication error: no restart") << "A" << 1 << 0 << 0;
        QTest::newRow("busy port: no restart") << "P" << 1 << 0 << 2;
        QTest::newRow("unknown error: no restart") << "?" << 1 << 0 << 7;
        QTest::newRow("restartable, then authentication error") << "D A" << 2 << 0 << 0;
        QTest::newRow("success restores the budget") << "D*9 SD D*10" << 20 << 1 << 1;
        QTest::newRow("success between failures: never gives up") << "SD*25" << 26 << 25 << -1;
        QTest::newRow("two restartable errors from one tunnel: two restarts") << "DD" << 3 << 0 << -1;
        // The first error's restart is pending when the second ends the tunnel; the daemon's
        // deletion of the controller must take that restart with it.
        QTest::newRow("restartable then fatal from one tunnel: no restart") << "DA" << 1 << 0 << 0;
    }
    void restartPolicy()
    {
        QFETCH(QString, scripts);
        QFETCH(int, attempts);
        QFETCH(int, successes);
        QFETCH(int, gaveUpWith);

        FakeTunnelFactory tunnels(scripts);
        std::unique_ptr<AdbTunnelController> controller(tunnels.controller(QStringLiteral("uuid-1"), 0));
        QSignalSpy success(controller.get(), &AdbTunnelController::tunnelSuccess);
        QSignalSpy error(controller.get(), &AdbTunnelController::tunnelError);
        QList<QString> stopped;
        // As the daemon does: the controller is deleted from inside its own `stopped`.
        connect(controller.get(), &AdbTunnelController::stopped, this, [&](const QString& id) {
            stopped.append(id);
            controller.reset();
        });

        if (gaveUpWith >= 0)
            QTRY_COMPARE(stopped.size(), 1);
        else
            QTRY_COMPARE(tunnels.started(), attempts);
        settle();

        QCOMPARE(tunnels.attempts(), attempts);
        QCOMPARE(success.size(), successes);
        if (gaveUpWith >= 0) {
            QCOMPARE(error.size(), 1);
            QCOMPARE(int(error.first().first().value<AdbTunnel::Error>()), gaveUpWith);
            QCOMPARE(stopped, QList<QString> { QStringLiteral("uuid-1") });
            QCOMPARE(tunnels.destroyed(), attempts);
        } else {
            QVERIFY(error.isEmpty());
            QVERIFY(stopped.isEmpty());
        }
    }

    void restartWaitsOneSecondAndReplacesTheTunnel()
    {
        FakeTunnelFactory tunnels(QStringLiteral("D"));
        QElapsedTimer clock;
        clock.start();
        AdbTunnelController controller(tunnels.factory(), QStringLiteral("uuid-1"), 0);
        QPointer<FakeAdbTunnel> first = tunnels.last();
        QThread* firstThread = first->thread();
        QVERIFY(firstThread != QThread::currentThread());

        QTRY_COMPARE_WITH_TIMEOUT(tunnels.attempts(), 2, 5000);
        // Coarse timers may fire up to 5 % early.
        QVERIFY2(clock.elapsed() >= 950, qPrintable(QString::number(clock.elapsed())));
        QTRY_VERIFY(first.isNull());
        QCOMPARE(tunnels.last()->thread(), firstThread);
    }

    void deletingTheController_data()
    {
        QTest::addColumn<QString>("scripts");
        QTest::addColumn<int>("attemptsBeforeDeletion");
        QTest::newRow("while an attempt runs") << "-" << 1;
        QTest::newRow("while connected") << "S" << 1;
        QTest::newRow("while waiting to restart") << "D" << 1;
    }
    void deletingTheController()
    {
        QFETCH(QString, scripts);
        QFETCH(int, attemptsBeforeDeletion);

        FakeTunnelFactory tunnels(scripts);
        // A restart delay the test outlives, so a restart that survived the deletion would show.
        auto* controller = tunnels.controller(QStringLiteral("uuid-1"), 0, 500ms);
        QSignalSpy stopped(controller, &AdbTunnelController::stopped);
        QTRY_COMPARE(tunnels.started(), attemptsBeforeDeletion);
        QTest::qWait(20); // lets the controller take in what the attempt reported
        // QThread::finished is emitted in the worker itself: a spy on it would race the check.
        QPointer<QThread> worker = tunnels.last()->thread();

        delete controller;
        QVERIFY(!worker || worker->isFinished());
        QCOMPARE(tunnels.destroyed(), tunnels.attempts());
        QTest::qWait(600);
        QCOMPARE(tunnels.attempts(), attemptsBeforeDeletion);
        QVERIFY(stopped.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestAdbTunnelController)
#include "tst_adbtunnelcontroller.moc"
