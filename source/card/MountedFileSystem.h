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

/// A mount point, and the file system that is mounted on it at the time of the call.
class MountedFileSystem
{
public:
    /// @param mountPoint absolute path as the mount table names it
    explicit MountedFileSystem(const QString& mountPoint);

    /// Whether the mount table lists exactly this mount point.
    bool isMounted() const;
    /// The size of the file system; empty if none is mounted or statvfs() fails.
    std::optional<FileSystemSize> size() const;
    /// The device number of the mounted file system; 0, which no file has, if none is mounted.
    dev_t device() const;
    /// Whether the block device below the mount point no longer exists: the card was pulled while a
    /// program used the mount. Never true for file systems without a block device.
    bool isDeviceGone() const;

private:
    QByteArray mMountPoint;
};

/// Unmounts the file system on @p path, without force, and clears the card's UnpreparedMark.
/// Retries when a signal interrupts the call.
/// @return 0 or the error number
int unmount(const QString& path);

/// Removes the directory of a mount point with its content. Removes nothing while a file system is
/// mounted there or below, in any spelling of @p path, or if the mount table cannot be read.
/// @return whether the directory no longer exists
bool removeMountPoint(const QString& path);
