#pragma once

#include <QString>

#include <optional>

class DeviceConnection;
class QObject;

// What a WebSocket session needs of its instance, and nothing more: the instance owns the
// sessions, a session knows its instance only through this.
class SessionHost
{
public:
    struct CloseRequest
    {
        qint64 afterBytes = 0;
        int code = 1001;
        QString reason;
        bool abort = false;
    };
    // How the cloud half misbehaves towards the daemon, until told otherwise.
    struct CloudFault
    {
        enum class Mode { None, ReadThrottle, Stall, OversizedFrame, EndlessFragments, Garbage };
        static constexpr qint64 DEFAULT_RATE = 1000000;

        Mode mode = Mode::None;
        qint64 bytesPerSecond = DEFAULT_RATE; // ReadThrottle only

        QString modeName() const;
        static std::optional<Mode> modeFromName(const QString& name);
    };

    virtual ~SessionHost();

    virtual QString uuid() const = 0;
    virtual bool isAccessTokenValid(const QString& token) = 0;
    virtual DeviceConnection* createDevice(QObject* parent) const = 0;
    virtual int rttMs() const = 0;
    virtual qint64 bandwidthKbps() const = 0;
    virtual CloudFault cloudFault() const = 0;
    // A close armed while no session was relaying, for the next one to authenticate.
    virtual std::optional<CloseRequest> takePendingClose() = 0;
};
