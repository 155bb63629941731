#pragma once

#include "deviceservice.h"
#include "sandbox.h"
#include "syncparser.h"

#include <functional>
#include <memory>

struct stat;

class QFile;
class QSaveFile;

// "sync:" (SYNC.TXT): STAT, LIST, SEND, RECV and QUIT, confined to the device's sandbox.
class SyncService : public DeviceService
{
    Q_OBJECT

public:
    // With version2, also STA2, LST2 and LIS2 (stat_v2, ls_v2).
    SyncService(DeviceStreams* streams, quint32 localId, const QString& sandboxDir, bool version2,
                QObject* parent);
    ~SyncService() override;

    void start() override { }
    void receive(const QByteArray& data) override;
    void resume() override;
    void stop() override;

private:
    void process();
    void handle(const SyncParser::Request& request);
    void handleStat(const QByteArray& path);
    // Calls visit for each entry of the directory at path (nothing when it is not one).
    void forEachEntry(const QByteArray& path,
                      const std::function<void(const QByteArray& name, const struct stat& st)>& visit);
    void handleList(const QByteArray& path);
    void handleStat2(quint32 id, const QByteArray& path);
    void handleList2(const QByteArray& path);
    void handleSend(const QByteArray& pathAndMode);
    void handleData(const QByteArray& data);
    void handleDone(quint32 mtime);
    void handleRecv(const QByteArray& path);
    void pumpRecv();
    void protocolError(const QString& message);

    Sandbox m_sandbox;
    SyncParser m_parser;
    bool m_version2;
    int m_unacknowledged = 0;

    // SEND in progress: the file being written, or the error to report at DONE.
    bool m_sending = false;
    std::unique_ptr<QSaveFile> m_sendFile;
    QString m_sendPath;
    QString m_sendError;
    uint m_sendMode = 0;

    std::unique_ptr<QFile> m_recvFile;
};
