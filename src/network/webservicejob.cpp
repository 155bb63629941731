#include "webservicejob.h"

#include <QDebug>
#include <QTimer>

WebServiceJob::WebServiceJob()
{
    WebServiceResult::registerMetaType();
}

WebServiceJob::~WebServiceJob() = default;

WebServiceResult WebServiceJob::getResult() const
{
    return m_result;
}

bool WebServiceJob::isRunning() const
{
    return m_running;
}

bool WebServiceJob::isFinished() const
{
    return !m_running;
}

bool WebServiceJob::waitForFinished(int timeoutMs)
{
    // The result may already be there (a cancel); its deletion is then already scheduled.
    if (!m_running)
        return true;

    QTimer timer;
    if (timeoutMs > 0) {
        timer.setSingleShot(true);
        connect(&timer, &QTimer::timeout, this, [this]() {
            cancelWithReason(QStringLiteral("Request has been canceled by timeout"));
            m_eventLoop.exit(-1);
        });
        timer.start(timeoutMs);
    }
    const int exitCode = m_eventLoop.exec();
    timer.stop();
    deleteLater();
    return exitCode == 0;
}

void WebServiceJob::setResult(const WebServiceResult& result)
{
    if (!m_running)
        return;
    m_result = result;
    m_running = false;

    if (result.getHttpStatusCode() >= 400) {
        qWarning() << "HTTP response is an error";
        result.logResponseDetails();
    }

    Q_EMIT finished(result);

    if (m_eventLoop.isRunning())
        m_eventLoop.quit();
    else
        deleteLater();
}

void WebServiceJob::cancel()
{
    cancelWithReason(QStringLiteral("Request has been canceled by the user"));
}

void WebServiceJob::cancelWithReason(const QString& reason)
{
    if (!m_running)
        return;
    Q_EMIT cancelRequested();
    WebServiceResult result;
    result.setError(WebServiceResult::Canceled);
    result.setErrorString(reason);
    setResult(result);
}
