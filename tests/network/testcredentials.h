#pragma once

#include "network/abstractcredentialsprovider.h"

// Fixed credentials, as "auth.json" would give them.
class TestCredentials : public AbstractCredentialsProvider
{
public:
    QString email;
    QString password;
    QString apiToken;

    QString getEmail() const override { return email; }
    QString getPassword() const override { return password; }
    QString getApiToken() const override { return apiToken; }
    QString getAccessToken() const override { return QString(); }
    QString getRefreshToken() const override { return QString(); }
};
