#pragma once

#include <QByteArray>

#include <sys/stat.h>

#include <tavoutil/TrackObject.h>

/// Path and status of one directory entry, read once. A final symbolic link is not followed.
class SDCardFileInfo : public TrackObject
{
public:
    /// @param path any bytes; a relative one starts in the working directory
    explicit SDCardFileInfo(const QByteArray& path);

    /// The absolute path, as of absolutePath(); links in it are not resolved.
    const QByteArray& path() const { return mPath; }
    /// The path's last component; empty for the root. Valid for as long as this object.
    const char* baseName() const;

    /// @p path made absolute with the working directory, without empty, "." and ".." components. If
    /// the working directory cannot be read, empty, with the reason in errno.
    static QByteArray absolutePath(const QByteArray& path);

    /// Whether the status could be read; the accessors below are valid only then.
    bool isValid() const { return mValid; }
    bool isDirectory() const { return S_ISDIR(mStatus.st_mode); }
    /// The owner's permission bits, for every caller.
    bool isOwnerReadable() const { return (mStatus.st_mode & S_IRUSR) != 0; }
    bool isOwnerWritable() const { return (mStatus.st_mode & S_IWUSR) != 0; }
    /// Apparent size in bytes.
    qint64 size() const { return mStatus.st_size; }
    /// Time of the last status change in nanoseconds since the epoch.
    qint64 changeTime() const;

private:
    QByteArray mPath;
    mutable QByteArray mBaseName;
    bool mValid = false;
    struct stat mStatus = {};
};

/// The status-change time of @p status in nanoseconds since the epoch.
qint64 changeTimeOf(const struct stat& status);
