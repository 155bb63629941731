#pragma once

#include <QAbstractNetworkCache>
#include <QNetworkDiskCache>

#include <memory>

class QLockFile;

// A network disk cache that several processes may share: writes to the cache directory are
// serialised by a lock file inside it.
class SafeNetworkDiskCache : public QAbstractNetworkCache
{
    Q_OBJECT
public:
    static const char* const LOCK_FILENAME;

    explicit SafeNetworkDiskCache(QObject* parent = nullptr);
    ~SafeNetworkDiskCache() override;

    QString cacheDirectory() const;
    void setCacheDirectory(const QString& cacheDir);
    qint64 maximumCacheSize() const;
    void setMaximumCacheSize(qint64 size);
    QNetworkCacheMetaData fileMetaData(const QString& fileName) const;

    QNetworkCacheMetaData metaData(const QUrl& url) override;
    void updateMetaData(const QNetworkCacheMetaData& metaData) override;
    QIODevice* data(const QUrl& url) override;
    bool remove(const QUrl& url) override;
    qint64 cacheSize() const override;
    QIODevice* prepare(const QNetworkCacheMetaData& metaData) override;
    void insert(QIODevice* device) override;

public Q_SLOTS:
    void clear() override;

private:
    bool lock();
    void unlock();

    QNetworkDiskCache m_diskCache;
    std::unique_ptr<QLockFile> m_lockFile;
};
