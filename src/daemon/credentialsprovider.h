#pragma once

#include "network/abstractcredentialsprovider.h"

class JsonReader;

// Credentials from "auth.json". The password is stored in clear: no tool we must stay
// compatible with scrambles it.
class CredentialsProvider : public AbstractCredentialsProvider
{
public:
    explicit CredentialsProvider(JsonReader* reader);

    QString getEmail() const override;
    QString getPassword() const override;
    // The file's "api_token" wins; KESTRELBOX_API_TOKEN is the fallback.
    QString getApiToken() const override;
    // Session tokens live in the platform client, never in this file-backed provider.
    QString getAccessToken() const override;
    QString getRefreshToken() const override;

private:
    JsonReader* m_reader;
};
