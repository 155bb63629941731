#pragma once

#include <QString>

enum AdbTunnelState {
    DISCONNECTED = 0,
    CONNECTED = 1,
    PENDING = 2,
    FAILED = 3,
    PORT_BUSY = 4,
};

QString adbTunnelStateName(AdbTunnelState state);
