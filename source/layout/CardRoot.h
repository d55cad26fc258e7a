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
    /// A place that is not open because of @p error.
    explicit OpenedPlace(int error) : mError(error) {}
    OpenedPlace(const OpenedPlace&) = delete;
    OpenedPlace& operator=(const OpenedPlace&) = delete;
    ~OpenedPlace();

    bool isOpen() const { return mError == 0; }
    /// Why it is not open, as errno; 0 when it is.
    int error() const { return mError; }
    int fd() const { return mFd; }
    const struct stat& status() const { return mStatus; }

private:
    int mFd = -1;
    int mError = 0;
    struct stat mStatus = {};
};

/// The directory of the mount point, kept open. What is opened from here stays in the file system
/// that was mounted at first, whatever is unmounted or mounted later.
class CardRoot
{
public:
    /// @param mountPoint the card is the file system that this directory is on, also where it is
    /// no mount point
    explicit CardRoot(const QString& mountPoint);

    /// Opens a path that begins with "/", relative to the mount point. When the mount point could
    /// not be opened, the result has the error of that.
    OpenedPlace open(const QByteArray& path) const;

    /// Whether the place is open and on another file system than the card's.
    bool isElsewhere(const OpenedPlace& place) const;
    /// The same for a path as of open().
    bool isElsewhere(const QByteArray& path) const { return isElsewhere(open(path)); }

    /// What a record says of a path that is not touched because it is elsewhere.
    static QByteArray elsewhereText(const QByteArray& fullPath);

private:
    OpenedPlace mRoot;
};
