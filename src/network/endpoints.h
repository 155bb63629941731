#pragma once

#include <QLatin1String>
#include <QString>

// REST paths of the platform, relative to its base URL.
class Endpoints
{
public:
    static constexpr QLatin1String PLATFORM_LOGIN { "/v1/users/login" };
    static constexpr QLatin1String CLOUD_DEVICE_GET { "/v1/instances/%1" };
    static constexpr QLatin1String PLATFORM_INSTANCE_ACCESS_TOKEN { "/v1/instances/access-token" };

    // May a request to path be sent again after it got no HTTP answer?
    static bool isRepeatable(const QString& path);
};
