#pragma once

// Turns the freshly launched daemon process into a background process: new session, "/" as
// working directory, no standard streams, and SIGQUIT/SIGINT/SIGTERM/SIGHUP ending the event loop.
class DaemonUtils
{
public:
    static void setup();
};

void signalHandler(int signal);
