#include "webserviceresult.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonParseError>

QString WebServiceResult::getErrorString() const
{
    return m_error != NoError ? m_errorString : QString();
}

QJsonDocument WebServiceResult::getContentAsJson() const
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(m_content, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        qWarning() << "Failed to parse JSON content" << parseError.errorString();
        logResponseDetails();
    }
    return document;
}

void WebServiceResult::logResponseDetails() const
{
    qDebug().noquote() << QStringLiteral("HTTP status code: %1, from cache: %2")
                              .arg(m_httpStatusCode)
                              .arg(m_fromCache ? 1 : 0);
    qDebug().noquote() << "HTTP headers:";
    for (const QNetworkReply::RawHeaderPair& header : m_httpHeaders) {
        qDebug().noquote() << QStringLiteral("- %1: %2")
                                  .arg(QString::fromLatin1(header.first), QString::fromLatin1(header.second));
    }
    qDebug().noquote() << QStringLiteral("HTTP content (first %1 bytes): %2")
                              .arg(LOGGED_CONTENT_MAX_BYTES)
                              .arg(QString::fromUtf8(m_content.left(LOGGED_CONTENT_MAX_BYTES)));
}

bool WebServiceResult::operator==(const WebServiceResult& other) const
{
    return m_error == other.m_error && m_networkError == other.m_networkError
        && m_errorString == other.m_errorString && m_httpStatusCode == other.m_httpStatusCode
        && m_fromCache == other.m_fromCache && m_content == other.m_content;
}

void WebServiceResult::registerMetaType()
{
    qRegisterMetaType<WebServiceResult>("WebServiceResult");
}
