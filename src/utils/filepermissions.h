#pragma once

#include <QString>

// The files of the configuration home hold credentials, the session's log and the daemon's
// control socket: nobody but their owner should read them, and nobody else may write where
// they live. These helpers create such paths privately and tell when an existing one is not.
class FilePermissions
{
public:
    // Whether users other than the owner may read (write) path through its group or other
    // permission bits. Symbolic links are followed; a missing path is neither.
    static bool isGroupOrWorldReadable(const QString& path);
    static bool isGroupOrWorldWritable(const QString& path);

    // Creates path and its missing parents, each directory this call creates with mode 0700
    // whatever the umask. Directories that exist already are left as they are. False when path
    // is not a directory afterwards.
    static bool makePrivatePath(const QString& path);

    // Creates path as an empty file of mode 0600 when it does not exist, so that a following
    // open by name never creates it with the umask's mode; an existing file is left as it is.
    // False when the file neither existed nor could be created.
    static bool createPrivateFile(const QString& path);
};
