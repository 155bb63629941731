#pragma once

#include "daemon/abstractadbtunnel.h"
#include "daemon/adbtunnelcontroller.h"
#include "daemon/adbtunnelinfo.h"

#include <QAtomicInt>
#include <QMutexLocker>
#include <QPointer>
#include <QStringList>

#include <chrono>
#include <utility>

// A tunnel attempt that plays a script in its worker thread, as the real one reports from there:
// 'S' success, 'A' authentication error, 'D' disconnection, 'P' busy port, 'B' adb error,
// '?' an error value the controller does not know. Anything else, or nothing, waits.
class FakeAdbTunnel : public AbstractAdbTunnel
{
    Q_OBJECT
public:
    FakeAdbTunnel(AdbTunnelInfo* info, const QString& script, QAtomicInt* started, QAtomicInt* destroyed)
        : m_info(info)
        , m_script(script)
        , m_started(started)
        , m_destroyed(destroyed)
    { }
    ~FakeAdbTunnel() override { m_destroyed->ref(); }

    void doWork() override
    {
        m_started->ref();
        for (const QChar event : std::as_const(m_script))
            play(event);
    }

private:
    void play(QChar event)
    {
        switch (event.toLatin1()) {
        case 'S': {
            QMutexLocker locker(&AdbTunnelInfo::mutex());
            m_info->port = m_info->port ? m_info->port : 40000;
            m_info->serial = QStringLiteral("localhost:%1").arg(m_info->port);
        }
            Q_EMIT success();
            break;
        case 'A':
            Q_EMIT error(AuthenticationError);
            break;
        case 'D':
            Q_EMIT error(DisconnectionError);
            break;
        case 'P':
            Q_EMIT error(BridgeBusyPortError);
            break;
        case 'B':
            Q_EMIT error(AdbError);
            break;
        case '?':
            Q_EMIT error(Error(7));
            break;
        default:
            break;
        }
    }

    AdbTunnelInfo* m_info;
    const QString m_script;
    QAtomicInt* m_started;
    QAtomicInt* m_destroyed;
};

// Hands out one FakeAdbTunnel per attempt, the n-th playing the n-th script; attempts past the
// end of the list wait. Lives in the test's (the controller's) thread.
class FakeTunnelFactory
{
public:
    // "D*3 SD" is "D D D SD": one script per attempt, a count repeats it.
    explicit FakeTunnelFactory(const QString& scripts = QString())
    {
        const QStringList words = scripts.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (const QString& word : words) {
            const int star = word.indexOf(QLatin1Char('*'));
            const int count = star < 0 ? 1 : word.mid(star + 1).toInt();
            for (int i = 0; i < count; ++i)
                m_scripts.append(star < 0 ? word : word.left(star));
        }
    }

    AdbTunnelFactory factory()
    {
        return [this](AdbTunnelInfo* info) {
            const QString script = m_scripts.value(m_tunnels.size());
            auto* tunnel = new FakeAdbTunnel(info, script, &m_started, &m_destroyed);
            m_tunnels.append(tunnel);
            return tunnel;
        };
    }
    AdbTunnelController* controller(const QString& id, quint16 port,
                                    std::chrono::milliseconds restartDelay = std::chrono::milliseconds(5))
    {
        m_ports.append(port);
        return new AdbTunnelController(factory(), id, port, restartDelay);
    }

    int attempts() const { return m_tunnels.size(); }
    int started() const { return m_started.loadAcquire(); }
    int destroyed() const { return m_destroyed.loadAcquire(); }
    FakeAdbTunnel* last() const { return m_tunnels.isEmpty() ? nullptr : m_tunnels.last().data(); }
    QList<quint16> ports() const { return m_ports; }

private:
    QStringList m_scripts;
    QList<QPointer<FakeAdbTunnel>> m_tunnels;
    QList<quint16> m_ports;
    QAtomicInt m_started;
    QAtomicInt m_destroyed;
};
