#include "adbtunnelstate.h"

QString adbTunnelStateName(AdbTunnelState state)
{
    switch (state) {
    case DISCONNECTED:
        return QStringLiteral("DISCONNECTED");
    case CONNECTED:
        return QStringLiteral("CONNECTED");
    case PENDING:
        return QStringLiteral("PENDING");
    case FAILED:
        return QStringLiteral("FAILED");
    case PORT_BUSY:
        return QStringLiteral("PORT_BUSY");
    }
    return QStringLiteral("UNKNOWN");
}
