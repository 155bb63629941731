#pragma once

#include "AdbPacket.h"

#include <QByteArray>
#include <QByteArrayView>

// The banner a CNXN carries: "<system type>:<serial>:<key>=<value>;<key>=<value>;..." where the
// "features" property holds a comma-separated list (ADB protocol.txt, adb transport.cpp).
class ConnectBanner
{
public:
    // First protocol version whose peers neither fill nor check data_check.
    static constexpr quint32 VERSION_SKIP_CHECKSUM = 0x01000001;

    // Removes every occurrence of `feature` from the features list of a CNXN message, fixing
    // data_length and, for protocol versions that still check it, data_check. Returns false and
    // leaves the packet alone when it is not a CNXN or does not list the feature.
    static bool removeFeature(AdbPacket* packet, QByteArrayView feature);

    // The payload with `feature` taken out of its features list; empty when there is nothing to take.
    static QByteArray withoutFeature(QByteArrayView banner, QByteArrayView feature);
};
