#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

// One ADB transport connection to a device, seen from the host side: bytes written are the
// host's, bytes received are the device's.
class DeviceConnection : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 HIGH_WATER = 4 * 1024 * 1024;

    explicit DeviceConnection(QObject* parent);
    ~DeviceConnection() override;

    virtual void write(const QByteArray& bytes) = 0;
    virtual void close() = 0;
    // Host bytes accepted but not yet taken by the device; callers stop feeding above HIGH_WATER.
    virtual qint64 backlog() const { return 0; }

Q_SIGNALS:
    void received(const QByteArray& bytes); // device bytes for the host, in order
    void backlogDrained(); // backlog() fell well below HIGH_WATER after having reached it
    void closed(const QString& reason); // emitted once; nothing is received afterwards
};
