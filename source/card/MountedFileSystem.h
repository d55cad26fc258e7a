#pragma once

#include <optional>

#include <QByteArray>
#include <QString>

#include <sys/types.h>

/// Bytes of a file system. Free bytes include those reserved for the superuser.
struct FileSystemSize
{
    quint64 total;
    quint64 free;
};

/// A mount point, and the file system that is mounted on it at the time of each call.
class MountedFileSystem
{
public:
    /// @param mountPoint absolute path as the mount table names it
    explicit MountedFileSystem(const QString& mountPoint);

    /// Whether the mount table lists exactly this mount point.
    bool isMounted() const;
    /// The size of the file system; nothing when none is mounted or it cannot be asked.
    std::optional<FileSystemSize> size() const;
    /// The device number of what is mounted; 0, which no file bears, when nothing is.
    dev_t device() const;
    /// Whether the block device below the mount point no longer exists: the card was pulled, and a
    /// program still uses the mount. Never for file systems that are on no block device.
    bool isDeviceGone() const;

private:
    QByteArray mMountPoint;
};

/// Unmounts what is mounted on @p path, without force, and clears the card's UnpreparedMark. Tries
/// again as long as a signal interrupts.
/// @return 0 or the error number
int unmount(const QString& path);

/// Removes the directory of a mount point with all that it contains, but nothing while a file
/// system is mounted there or below, however @p path is spelled, or where the mount table, which
/// would tell, cannot be read.
/// @return whether the directory is gone
bool removeMountPoint(const QString& path);
