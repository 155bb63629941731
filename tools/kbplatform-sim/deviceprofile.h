#pragma once

#include <QByteArray>
#include <QString>

// What makes one emulated device: its files, its shell environment and its CNXN banner.
struct DeviceProfile
{
    QString sandboxDir; // the device's "/"
    QString binDir; // prepended to PATH in shells (holds getprop)
    QByteArray banner;
};
