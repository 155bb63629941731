#pragma once

#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QNetworkReply>
#include <QObject>
#include <QPair>
#include <QString>

class QJsonDocument;

// The outcome of one REST request. A copyable value that travels through queued signals.
class WebServiceResult
{
    Q_GADGET
public:
    enum Error {
        NoError = 0,
        NetworkError = 1,
        SessionNotRefreshable = 2,
        Canceled = 3,
        Timeout = 4,
    };
    Q_ENUM(Error)

    static const int LOGGED_CONTENT_MAX_BYTES = 127;

    int getHttpStatusCode() const { return m_httpStatusCode; }
    bool isFromCache() const { return m_fromCache; }
    QList<QNetworkReply::RawHeaderPair> getHttpHeaders() const { return m_httpHeaders; }
    Error getError() const { return m_error; }
    QNetworkReply::NetworkError getNetworkError() const { return m_networkError; }
    // Empty unless the result carries an error.
    QString getErrorString() const;
    QByteArray getContent() const { return m_content; }
    // A null document (and a warning with the response details) when the content is not JSON.
    QJsonDocument getContentAsJson() const;
    void logResponseDetails() const;

    void setHttpStatusCode(int httpStatusCode) { m_httpStatusCode = httpStatusCode; }
    void setFromCache(bool fromCache) { m_fromCache = fromCache; }
    void setHttpHeaders(const QList<QNetworkReply::RawHeaderPair>& headers) { m_httpHeaders = headers; }
    void setError(Error error) { m_error = error; }
    void setNetworkError(QNetworkReply::NetworkError networkError) { m_networkError = networkError; }
    void setErrorString(const QString& errorString) { m_errorString = errorString; }
    void setContent(const QByteArray& content) { m_content = content; }

    // Headers are left out on purpose: the same answer may come with other dates or ids.
    bool operator==(const WebServiceResult& other) const;
    bool operator!=(const WebServiceResult& other) const { return !(*this == other); }

    static void registerMetaType();

private:
    int m_httpStatusCode = 0;
    bool m_fromCache = false;
    Error m_error = NoError;
    QNetworkReply::NetworkError m_networkError = QNetworkReply::NoError;
    QString m_errorString;
    QByteArray m_content;
    QList<QNetworkReply::RawHeaderPair> m_httpHeaders;
};

Q_DECLARE_METATYPE(WebServiceResult)
