#pragma once

#include <QByteArray>

/// An open directory, closed with the object.
class DirectoryHandle
{
public:
    /// Opens the directory @p path, which may be longer than PATH_MAX. A final link is not
    /// followed.
    explicit DirectoryHandle(const QByteArray& path);
    DirectoryHandle(const DirectoryHandle&) = delete;
    DirectoryHandle& operator=(const DirectoryHandle&) = delete;
    ~DirectoryHandle();

    /// Whether the directory is open. If not, errno says why right after the construction.
    bool isOpen() const { return mFd >= 0; }
    int fd() const { return mFd; }
    /// Passes the descriptor to the caller, who closes it.
    int release();

private:
    int mFd;
};
