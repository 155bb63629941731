#pragma once

#include <QString>

class Platform
{
public:
    static const char* const LINUX_UNKNOWN_DISTRIBUTION;

    // "Linux <distribution> <version>", computed once per process.
    static QString getPlatform();
};
