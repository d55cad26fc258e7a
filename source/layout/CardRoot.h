#pragma once

#include <QByteArray>
#include <QString>

#include <sys/stat.h>

/// A file or directory, opened without access to its content (O_PATH). Closed with the object.
class OpenedPlace
{
public:
    /// Opens @p path below the directory @p base, or anywhere when it is absolute. Follows links.
    OpenedPlace(int base, const QByteArray& path);
    /// A place that could not be opened because of @p error.
    explicit OpenedPlace(int error) : mError(error) {}
    OpenedPlace(const OpenedPlace&) = delete;
    OpenedPlace& operator=(const OpenedPlace&) = delete;
    ~OpenedPlace();

    bool isOpen() const { return mError == 0; }
    /// The errno of a failed open; 0 if it is open.
    int error() const { return mError; }
    int fd() const { return mFd; }
    const struct stat& status() const { return mStatus; }

private:
    int mFd = -1;
    int mError = 0;
    struct stat mStatus = {};
};

/// The directory of the mount point, kept open. Places opened from here stay in the file system
/// that was mounted at first, even if another one is mounted later.
class CardRoot
{
public:
    /// @param mountPoint the file system of this directory is the card, even if it is not a mount
    /// point
    explicit CardRoot(const QString& mountPoint);

    /// Opens a path that begins with "/", relative to the mount point. If the mount point could not
    /// be opened, the result has that error.
    OpenedPlace open(const QByteArray& path) const;

    /// Whether the place is open and not on the card's file system.
    bool isElsewhere(const OpenedPlace& place) const;
    /// The same for a path as in open().
    bool isElsewhere(const QByteArray& path) const { return isElsewhere(open(path)); }

    /// The record for a path that is left alone because it is not on the card.
    static QByteArray elsewhereText(const QByteArray& fullPath);

private:
    OpenedPlace mRoot;
};
