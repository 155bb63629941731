#include "deviceconnection.h"

DeviceConnection::DeviceConnection(QObject* parent)
    : QObject(parent)
{ }

DeviceConnection::~DeviceConnection() = default;
