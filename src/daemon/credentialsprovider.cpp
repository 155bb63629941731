#include "credentialsprovider.h"

#include "jsonreader.h"
#include "utils/envvars.h"

#include <QDebug>

CredentialsProvider::CredentialsProvider(JsonReader* reader)
    : m_reader(reader)
{ }

QString CredentialsProvider::getEmail() const
{
    return m_reader->getValue(QStringLiteral("email")).toString();
}

QString CredentialsProvider::getPassword() const
{
    return m_reader->getValue(QStringLiteral("password")).toString();
}

QString CredentialsProvider::getApiToken() const
{
    const QString token = m_reader->getValue(QStringLiteral("api_token")).toString();
    if (!token.isEmpty())
        return token;
    return EnvVars::getString("KESTRELBOX_API_TOKEN", QString());
}

QString CredentialsProvider::getAccessToken() const
{
    qWarning() << "CredentialsProvider holds no access token";
    return {};
}

QString CredentialsProvider::getRefreshToken() const
{
    qWarning() << "CredentialsProvider holds no refresh token";
    return {};
}
