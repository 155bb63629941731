#include "syncservice.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QtEndian>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

QByteArray statReply(quint32 id, const struct stat* st)
{
    QByteArray bytes(16, '\0');
    qToLittleEndian(id, bytes.data());
    if (st) {
        qToLittleEndian(quint32(st->st_mode), bytes.data() + 4);
        qToLittleEndian(quint32(st->st_size), bytes.data() + 8);
        qToLittleEndian(quint32(st->st_mtime), bytes.data() + 12);
    }
    return bytes;
}

// file_sync_protocol.h's sync_stat_v2 (and the head of sync_dent_v2): id, error, dev, ino,
// mode, nlink, uid, gid, size, atime, mtime, ctime, all little-endian.
QByteArray stat2Reply(quint32 id, const struct stat* st, int error)
{
    QByteArray bytes(72, '\0');
    char* p = bytes.data();
    qToLittleEndian(id, p);
    qToLittleEndian(quint32(error), p + 4);
    if (st) {
        qToLittleEndian(quint64(st->st_dev), p + 8);
        qToLittleEndian(quint64(st->st_ino), p + 16);
        qToLittleEndian(quint32(st->st_mode), p + 24);
        qToLittleEndian(quint32(st->st_nlink), p + 28);
        qToLittleEndian(quint32(st->st_uid), p + 32);
        qToLittleEndian(quint32(st->st_gid), p + 36);
        qToLittleEndian(quint64(st->st_size), p + 40);
        qToLittleEndian(qint64(st->st_atime), p + 48);
        qToLittleEndian(qint64(st->st_mtime), p + 56);
        qToLittleEndian(qint64(st->st_ctime), p + 64);
    }
    return bytes;
}

QByteArray dent2(quint32 id, const struct stat* st, const QByteArray& name)
{
    QByteArray bytes = stat2Reply(id, st, 0) + QByteArray(4, '\0');
    qToLittleEndian(quint32(name.size()), bytes.data() + 72);
    return bytes + name;
}

} // namespace

SyncService::SyncService(DeviceStreams* streams, quint32 localId, const QString& sandboxDir, bool version2,
                         QObject* parent)
    : DeviceService(streams, localId, parent)
    , m_sandbox(sandboxDir)
    , m_version2(version2)
{ }

SyncService::~SyncService() = default;

void SyncService::receive(const QByteArray& data)
{
    m_parser.feed(data);
    ++m_unacknowledged;
    process();
}

void SyncService::process()
{
    while (!m_finished && !m_recvFile) {
        const auto request = m_parser.next();
        if (!request)
            break;
        handle(*request);
    }
    if (m_finished)
        return;
    if (m_parser.hasFailed()) {
        protocolError(m_parser.errorString());
        return;
    }
    // While a RECV streams, the host's next requests wait unacknowledged, which bounds what
    // the parser holds to one write.
    if (!m_recvFile) {
        for (; m_unacknowledged > 0; --m_unacknowledged)
            acknowledge();
    }
}

void SyncService::handle(const SyncParser::Request& request)
{
    if (m_sending && request.id != SyncParser::DATA && request.id != SyncParser::DONE) {
        protocolError(QStringLiteral("unexpected request during SEND"));
        return;
    }
    switch (request.id) {
    case SyncParser::STAT:
        handleStat(request.data);
        break;
    case SyncParser::LIST:
        handleList(request.data);
        break;
    case SyncParser::SEND:
        handleSend(request.data);
        break;
    case SyncParser::DATA:
        handleData(request.data);
        break;
    case SyncParser::DONE:
        handleDone(request.length);
        break;
    case SyncParser::RECV:
        handleRecv(request.data);
        break;
    case SyncParser::QUIT:
        finish();
        break;
    case SyncParser::STA2:
    case SyncParser::LST2:
        if (!m_version2) {
            protocolError(QStringLiteral("unknown sync request"));
            break;
        }
        handleStat2(request.id, request.data);
        break;
    case SyncParser::LIS2:
        if (!m_version2) {
            protocolError(QStringLiteral("unknown sync request"));
            break;
        }
        handleList2(request.data);
        break;
    default:
        protocolError(QStringLiteral("unexpected sync request"));
        break;
    }
}

void SyncService::handleStat(const QByteArray& path)
{
    QString error;
    const QString hostPath = m_sandbox.resolve(path, &error);
    struct stat st;
    // An answer of zeros is how the protocol says "no such file".
    const bool found = !hostPath.isEmpty() && ::lstat(QFile::encodeName(hostPath).constData(), &st) == 0;
    send(statReply(SyncParser::STAT, found ? &st : nullptr));
}

void SyncService::forEachEntry(
    const QByteArray& path, const std::function<void(const QByteArray& name, const struct stat& st)>& visit)
{
    QString error;
    const QString hostPath = m_sandbox.resolve(path, &error);
    if (hostPath.isEmpty())
        return;
    const QDir dir(hostPath);
    const QStringList names = dir.entryList(QDir::AllEntries | QDir::Hidden | QDir::System, QDir::Name);
    for (const QString& name : names) {
        struct stat st;
        if (::lstat(QFile::encodeName(dir.filePath(name)).constData(), &st) == 0)
            visit(QFile::encodeName(name), st);
    }
}

void SyncService::handleList(const QByteArray& path)
{
    forEachEntry(path, [this](const QByteArray& name, const struct stat& st) {
        QByteArray dent = statReply(SyncParser::DENT, &st) + QByteArray(4, '\0') + name;
        qToLittleEndian(quint32(name.size()), dent.data() + 16);
        send(dent);
    });
    send(statReply(SyncParser::DONE, nullptr) + QByteArray(4, '\0'));
}

void SyncService::handleStat2(quint32 id, const QByteArray& path)
{
    QString error;
    const QString hostPath = m_sandbox.resolve(path, &error);
    struct stat st;
    const QByteArray name = QFile::encodeName(hostPath);
    const int result = hostPath.isEmpty()
        ? (errno = ENOENT, -1)
        : (id == SyncParser::LST2 ? ::lstat(name.constData(), &st) : ::stat(name.constData(), &st));
    // SYNC.TXT: a failed stat_v2 carries the errno, Linux's numbering being the wire's.
    send(result == 0 ? stat2Reply(id, &st, 0) : stat2Reply(id, nullptr, errno));
}

void SyncService::handleList2(const QByteArray& path)
{
    forEachEntry(path, [this](const QByteArray& name, const struct stat& st) {
        send(dent2(SyncParser::DNT2, &st, name));
    });
    send(dent2(SyncParser::DONE, nullptr, QByteArray()));
}

void SyncService::handleSend(const QByteArray& pathAndMode)
{
    m_sending = true;
    m_sendError.clear();
    m_sendMode = 0644;
    QByteArray path = pathAndMode;
    const qsizetype comma = pathAndMode.lastIndexOf(',');
    if (comma >= 0) {
        bool ok = false;
        m_sendMode = pathAndMode.mid(comma + 1).toUInt(&ok, 10);
        path = pathAndMode.left(comma);
        if (!ok) {
            m_sendError = QStringLiteral("invalid file mode");
            return;
        }
    }
    if (S_ISLNK(m_sendMode)) {
        m_sendError = QStringLiteral("%1: symbolic links are not supported").arg(QString::fromUtf8(path));
        return;
    }
    m_sendPath = m_sandbox.resolve(path, &m_sendError);
    if (m_sendPath.isEmpty())
        return;
    if (!QDir().mkpath(QFileInfo(m_sendPath).absolutePath())) {
        m_sendError = QStringLiteral("%1: cannot create the parent directory").arg(QString::fromUtf8(path));
        return;
    }
    m_sendFile = std::make_unique<QSaveFile>(m_sendPath);
    if (!m_sendFile->open(QIODevice::WriteOnly)) {
        m_sendError = QStringLiteral("%1: %2").arg(QString::fromUtf8(path), m_sendFile->errorString());
        m_sendFile.reset();
    }
}

void SyncService::handleData(const QByteArray& data)
{
    if (!m_sending) {
        protocolError(QStringLiteral("DATA outside SEND"));
        return;
    }
    if (!m_sendFile)
        return; // the error is reported at DONE, after the host has sent everything
    if (m_sendFile->write(data) != data.size()) {
        m_sendError = m_sendFile->errorString();
        m_sendFile->cancelWriting();
        m_sendFile.reset();
    }
}

void SyncService::handleDone(quint32 mtime)
{
    if (!m_sending) {
        protocolError(QStringLiteral("DONE outside SEND"));
        return;
    }
    m_sending = false;
    if (m_sendFile && !m_sendFile->commit())
        m_sendError = m_sendFile->errorString();
    m_sendFile.reset();
    if (!m_sendError.isEmpty()) {
        send(SyncParser::fail(m_sendError));
        return;
    }
    const QByteArray name = QFile::encodeName(m_sendPath);
    ::chmod(name.constData(), (m_sendMode & 07777) | 0600);
    const struct timespec times[2] = { { time_t(mtime), 0 }, { time_t(mtime), 0 } };
    ::utimensat(AT_FDCWD, name.constData(), times, 0);
    send(SyncParser::header(SyncParser::OKAY, 0));
}

void SyncService::handleRecv(const QByteArray& path)
{
    QString error;
    const QString hostPath = m_sandbox.resolve(path, &error);
    if (hostPath.isEmpty()) {
        send(SyncParser::fail(error));
        return;
    }
    auto file = std::make_unique<QFile>(hostPath);
    if (QFileInfo(hostPath).isDir() || !file->open(QIODevice::ReadOnly)) {
        send(SyncParser::fail(QStringLiteral("%1: %2").arg(
            QString::fromUtf8(path),
            QFileInfo(hostPath).isDir() ? QStringLiteral("Is a directory") : file->errorString())));
        return;
    }
    m_recvFile = std::move(file);
    pumpRecv();
}

void SyncService::resume()
{
    pumpRecv();
}

void SyncService::pumpRecv()
{
    while (m_recvFile && !m_finished && !congested()) {
        const QByteArray chunk = m_recvFile->read(SyncParser::MAX_DATA);
        if (chunk.isEmpty()) {
            if (m_recvFile->error() != QFileDevice::NoError)
                send(SyncParser::fail(m_recvFile->errorString()));
            else
                send(SyncParser::header(SyncParser::DONE, 0));
            m_recvFile.reset();
            process();
            return;
        }
        send(SyncParser::header(SyncParser::DATA, quint32(chunk.size())) + chunk);
    }
}

void SyncService::protocolError(const QString& message)
{
    qWarning() << "device: sync:" << message;
    send(SyncParser::fail(message));
    if (m_sendFile)
        m_sendFile->cancelWriting();
    m_sendFile.reset();
    m_recvFile.reset();
    finish();
}

void SyncService::stop()
{
    m_finished = true;
    if (m_sendFile)
        m_sendFile->cancelWriting();
    m_sendFile.reset();
    m_recvFile.reset();
}
