#pragma once

#include "adbprotocol/PacketReader.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

#include <deque>
#include <map>
#include <utility>

// The cloud half of tunnel protocol version 2. The daemon acknowledges the ADB server's writes
// itself and holds back the device's writes until the server acknowledges them; this does the
// same the other way round:
// - a device WRTE is acknowledged here at once and passed on to the daemon;
// - the daemon's WRTEs (and a CLSE behind them) go to the device one at a time, each released
//   by the device's OKAY for the previous one, and those OKAYs are consumed here, since the
//   daemon already gave the server its own;
// - everything else passes unchanged.
// A value fed bytes from each side; whole ADB messages come out, one per list entry.
class CloudMirror
{
public:
    void feedFromDaemon(const QByteArray& bytes);
    void feedFromDevice(const QByteArray& bytes);
    QByteArrayList takeToDevice();
    QByteArrayList takeToDaemon();

    // While congested, the acknowledgements of device writes are held back, which stops the
    // device from sending more than the daemon's side of the link can take.
    void setCongested(bool congested);
    bool isCongested() const { return m_congested; }

    bool hasFailed() const { return !m_error.isEmpty(); }
    QString errorString() const { return m_error; }
    // Daemon messages held for the device.
    qint64 queuedBytes() const { return m_queuedBytes; }
    int streamCount() const { return int(m_streams.size()); }

private:
    using Key = std::pair<quint32, quint32>; // (daemon-side id, device-side id)
    struct Stream
    {
        std::deque<QByteArray> held;
        bool writeOutstanding = false;
    };

    void fromDaemon(const QByteArray& message);
    void fromDevice(const QByteArray& message);
    void release(const Key& key);
    void drain(PacketReader& reader, const char* side, bool fromDaemonSide);

    PacketReader m_daemonReader;
    PacketReader m_deviceReader;
    QByteArrayList m_toDevice;
    QByteArrayList m_toDaemon;
    QByteArrayList m_heldAcks;
    std::map<Key, Stream> m_streams;
    qint64 m_queuedBytes = 0;
    bool m_congested = false;
    QString m_error;
};
