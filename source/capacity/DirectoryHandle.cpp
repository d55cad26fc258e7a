#include "DirectoryHandle.h"

#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kNotOpen = -1;

void closeDirectory(int fd)
{
    if (fd >= 0) {
        const int savedErrno = errno;
        ::close(fd);
        errno = savedErrno;
    }
}

int openDirectory(const QByteArray& path)
{
    // A system call takes at most PATH_MAX bytes, so a longer path is opened in parts.
    int base = AT_FDCWD;
    int start = 0;
    while (path.size() - start >= PATH_MAX) {
        const int end = path.lastIndexOf('/', start + PATH_MAX - 2);
        if (end <= start) {
            closeDirectory(base);
            errno = ENAMETOOLONG;
            return kNotOpen;
        }
        const int next = ::openat(base, path.mid(start, end - start).constData(),
                                  O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        closeDirectory(base);
        if (next < 0) {
            return kNotOpen;
        }
        base = next;
        start = end + 1;
    }
    const int fd =
        ::openat(base, path.constData() + start, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    closeDirectory(base);
    return fd;
}

} // namespace

DirectoryHandle::DirectoryHandle(const QByteArray& path) : mFd(openDirectory(path)) {}

DirectoryHandle::~DirectoryHandle()
{
    closeDirectory(mFd);
}

int DirectoryHandle::release()
{
    const int fd = mFd;
    mFd = kNotOpen;
    return fd;
}
