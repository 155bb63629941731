#include "safenetworkdiskcache.h"

#include <QDebug>
#include <QLockFile>

const char* const SafeNetworkDiskCache::LOCK_FILENAME = "cache.lock";

// Bounded so that a process that hangs while holding the lock cannot block us for ever; a
// dead holder is detected by QLockFile's stale-lock check.
static const int LOCK_WAIT_MS = 10000;

SafeNetworkDiskCache::SafeNetworkDiskCache(QObject* parent)
    : QAbstractNetworkCache(parent)
{ }

SafeNetworkDiskCache::~SafeNetworkDiskCache() = default;

QString SafeNetworkDiskCache::cacheDirectory() const
{
    return m_diskCache.cacheDirectory();
}

void SafeNetworkDiskCache::setCacheDirectory(const QString& cacheDir)
{
    m_lockFile = std::make_unique<QLockFile>(cacheDir + QLatin1Char('/') + QLatin1String(LOCK_FILENAME));
    m_diskCache.setCacheDirectory(cacheDir);
}

qint64 SafeNetworkDiskCache::maximumCacheSize() const
{
    return m_diskCache.maximumCacheSize();
}

void SafeNetworkDiskCache::setMaximumCacheSize(qint64 size)
{
    m_diskCache.setMaximumCacheSize(size);
}

QNetworkCacheMetaData SafeNetworkDiskCache::fileMetaData(const QString& fileName) const
{
    return m_diskCache.fileMetaData(fileName);
}

QNetworkCacheMetaData SafeNetworkDiskCache::metaData(const QUrl& url)
{
    return m_diskCache.metaData(url);
}

void SafeNetworkDiskCache::updateMetaData(const QNetworkCacheMetaData& metaData)
{
    const bool locked = lock();
    m_diskCache.updateMetaData(metaData);
    if (locked)
        unlock();
}

QIODevice* SafeNetworkDiskCache::data(const QUrl& url)
{
    return m_diskCache.data(url);
}

bool SafeNetworkDiskCache::remove(const QUrl& url)
{
    return m_diskCache.remove(url);
}

qint64 SafeNetworkDiskCache::cacheSize() const
{
    return m_diskCache.cacheSize();
}

QIODevice* SafeNetworkDiskCache::prepare(const QNetworkCacheMetaData& metaData)
{
    return m_diskCache.prepare(metaData);
}

void SafeNetworkDiskCache::insert(QIODevice* device)
{
    const bool alreadyLocked = m_lockFile && m_lockFile->isLocked();
    const bool locked = !alreadyLocked && lock();
    m_diskCache.insert(device);
    if (locked)
        unlock();
}

void SafeNetworkDiskCache::clear()
{
    m_diskCache.clear();
}

bool SafeNetworkDiskCache::lock()
{
    if (!m_lockFile)
        return false;
    if (m_lockFile->tryLock(LOCK_WAIT_MS))
        return true;
    // Losing a cache entry's consistency is better than losing the reply: write anyway.
    qWarning() << "Network cache lock failed to acquire" << m_lockFile->error();
    return false;
}

void SafeNetworkDiskCache::unlock()
{
    m_lockFile->unlock();
}
