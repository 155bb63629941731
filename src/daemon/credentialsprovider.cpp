#include "credentialsprovider.h"

#include "jsonreader.h"
#include "utils/envvars.h"
#include "utils/filepermissions.h"

#include <QDebug>

CredentialsProvider::CredentialsProvider(JsonReader* reader)
    : m_reader(reader)
{ }

QString CredentialsProvider::read(const QString& key) const
{
    const QString path = m_reader->path();
    if (FilePermissions::isGroupOrWorldReadable(path) && !m_warnedAboutMode.exchange(true)) {
        qWarning().noquote() << QStringLiteral("%1 holds your credentials and other users of this machine "
                                               "can read it; run: chmod 600 %1")
                                    .arg(path);
    }
    return m_reader->getValue(key).toString();
}

QString CredentialsProvider::getEmail() const
{
    return read(QStringLiteral("email"));
}

QString CredentialsProvider::getPassword() const
{
    return read(QStringLiteral("password"));
}

QString CredentialsProvider::getApiToken() const
{
    const QString token = read(QStringLiteral("api_token"));
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
