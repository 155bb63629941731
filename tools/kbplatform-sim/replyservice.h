#pragma once

#include "deviceservice.h"

// A stream that carries one fixed answer, then closes: "reverse:" requests.
class ReplyService : public DeviceService
{
    Q_OBJECT

public:
    ReplyService(DeviceStreams* streams, quint32 localId, const QByteArray& reply, QObject* parent);

    void start() override;
    void receive(const QByteArray& data) override;
    void stop() override;

private:
    QByteArray m_reply;
};
