#pragma once

#include <QtGlobal>

// The tunnel protocol version this program speaks: announced to the platform when the WebSocket
// authenticates, and deciding whether the bridge acknowledges writes locally (version 2).
class AdbTunnelVersion
{
public:
    static const char* const ENV_KB_ADBTUNNEL_VERSION;
    static constexpr int DEFAULT_VERSION = 2;

    struct Settings
    {
        int version = DEFAULT_VERSION;
        bool megaFast = true;
    };

    // Computed once per process, on first use, from KB_ADBTUNNEL_VERSION.
    static int getVersion();
    static bool isMegaFastEnabled();

    // Reads the environment now, logging as the first use does; exposed for tests.
    static Settings readSettings();
};
