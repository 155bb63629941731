#pragma once

#include <QString>

// What a controller shares with its tunnel. The tunnel fills in the serial and the actual port.
struct AdbTunnelInfo
{
    QString serial; // "localhost:<port>" once the bridge listens; empty before
    QString id; // instance UUID
    quint16 port = 0; // requested port, 0 = any; then the port actually listened on
};
