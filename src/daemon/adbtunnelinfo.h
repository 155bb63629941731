#pragma once

#include <QMutex>
#include <QString>

// What a controller shares with its tunnel. The tunnel fills in the serial and the actual port.
struct AdbTunnelInfo
{
    QString serial; // "localhost:<port>" once the bridge listens; empty before
    QString id; // instance UUID
    quint16 port = 0; // requested port, 0 = any; then the port actually listened on
    QString lastError; // text of the tunnel's last failure; empty when there is none

    // The tunnel writes serial, port and lastError in its thread while the daemon copies the record in the
    // main thread ("getinstances"); both hold this lock. Written once per bridge start, so one
    // lock for all tunnels costs nothing.
    static QMutex& mutex()
    {
        static QMutex lock;
        return lock;
    }
};
