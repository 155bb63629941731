#pragma once

#include "network/abstractcredentialsprovider.h"

#include <atomic>

class JsonReader;

// Credentials from "auth.json". The password is stored in clear: no tool we must stay
// compatible with scrambles it. A file that others may read is still used, with one warning.
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
    QString read(const QString& key) const;

    JsonReader* m_reader;
    // Read from every tunnel's thread; the warning is given once per process, not per read.
    mutable std::atomic_bool m_warnedAboutMode { false };
};
