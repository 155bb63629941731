#include "abstractadbtunnel.h"

AbstractAdbTunnel::AbstractAdbTunnel(QObject* parent)
    : QObject(parent)
{
    // The error crosses from the worker thread to the controller in a queued signal.
    qRegisterMetaType<AbstractAdbTunnel::Error>("Error");
    qRegisterMetaType<AbstractAdbTunnel::Error>("AdbTunnel::Error");
}

AbstractAdbTunnel::~AbstractAdbTunnel() = default;
