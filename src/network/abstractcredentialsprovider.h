#pragma once

#include <QString>

// What the platform clients need to know about the user's credentials. The files behind it
// are read afresh on every call, so implementations must be safe to call from any thread.
class AbstractCredentialsProvider
{
public:
    virtual ~AbstractCredentialsProvider() = default;
    virtual QString getEmail() const = 0;
    virtual QString getPassword() const = 0;
    virtual QString getApiToken() const = 0;
    virtual QString getAccessToken() const = 0;
    virtual QString getRefreshToken() const = 0;

    bool hasCredentials() const { return !getEmail().isEmpty() && !getPassword().isEmpty(); }
    bool hasApiToken() const { return !getApiToken().isEmpty(); }
    bool hasAccessToken() const { return !getAccessToken().isEmpty(); }
    bool hasRefreshToken() const { return !getRefreshToken().isEmpty(); }
};
