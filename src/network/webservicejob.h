#pragma once

#include "webserviceresult.h"

#include <QEventLoop>
#include <QObject>

// The handle of one REST request. Nobody owns a job: it deletes itself after delivering its
// result, or, when someone waits in waitForFinished(), after that wait ends.
class WebServiceJob : public QObject
{
    Q_OBJECT
public:
    WebServiceJob();
    ~WebServiceJob() override;

    WebServiceResult getResult() const;
    bool isRunning() const;
    bool isFinished() const;

    // Must be called before control returns to the event loop after the request was issued.
    // With timeoutMs > 0, cancels the job when it expires and returns false. Schedules the
    // job's deletion: copy the result before returning to the event loop.
    bool waitForFinished(int timeoutMs);

    // Sets the result at most once; later calls are ignored.
    void setResult(const WebServiceResult& result);
    void cancel();
    void cancelWithReason(const QString& reason);

Q_SIGNALS:
    void uploadProgress(qint64 sentBytes, qint64 totalBytes); // Forwarded from the current reply
    void downloadProgress(qint64 receivedBytes, qint64 totalBytes); // Forwarded from the current reply
    void finished(const WebServiceResult& result); // Emitted exactly once, whatever ended the job
    void cancelRequested(); // Emitted by a cancel of a running job, before its result is set

private:
    WebServiceResult m_result;
    bool m_running = true;
    QEventLoop m_eventLoop;
};
