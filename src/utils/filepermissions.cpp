#include "filepermissions.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool hasAnyPermission(const QString& path, QFileDevice::Permissions permissions)
{
    return (QFile::permissions(path) & permissions) != 0;
}

} // namespace

bool FilePermissions::isGroupOrWorldReadable(const QString& path)
{
    return hasAnyPermission(path, QFileDevice::ReadGroup | QFileDevice::ReadOther);
}

bool FilePermissions::isGroupOrWorldWritable(const QString& path)
{
    return hasAnyPermission(path, QFileDevice::WriteGroup | QFileDevice::WriteOther);
}

bool FilePermissions::makePrivatePath(const QString& path)
{
    const QString cleanPath = QDir::cleanPath(QDir(path).absolutePath());
    if (QFileInfo(cleanPath).isDir())
        return true;
    const QString parent = QFileInfo(cleanPath).path();
    if (parent != cleanPath && !makePrivatePath(parent))
        return false;
    const QByteArray encoded = QFile::encodeName(cleanPath);
    if (::mkdir(encoded.constData(), S_IRWXU) != 0)
        return errno == EEXIST && QFileInfo(cleanPath).isDir(); // another process was quicker
    // mkdir's mode passes through the umask, which could leave us without write access.
    ::chmod(encoded.constData(), S_IRWXU);
    return true;
}

bool FilePermissions::createPrivateFile(const QString& path)
{
    const QByteArray encoded = QFile::encodeName(path);
    const int fd = ::open(encoded.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0)
        return errno == EEXIST;
    ::fchmod(fd, S_IRUSR | S_IWUSR);
    ::close(fd);
    return true;
}
