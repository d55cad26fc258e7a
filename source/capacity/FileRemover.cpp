#include "FileRemover.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int FileRemover::remove(const DirectoryScan::File& file)
{
    if (mOpened != file.directory) {
        open(file.directory);
    }
    if (mError != 0) {
        return mError;
    }
    struct stat status = {};
    if (::fstatat(mHandle->fd(), file.name, &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
        return errno;
    }
    if (static_cast<quint32>(status.st_ino) != file.inode) {
        return ESTALE;
    }
    return ::unlinkat(mHandle->fd(), file.name, 0) == 0 ? 0 : errno;
}

void FileRemover::open(quint32 directory)
{
    mOpened = directory;
    mHandle.emplace(mScan.path(directory));
    struct stat status = {};
    if (!mHandle->isOpen() || ::fstat(mHandle->fd(), &status) != 0) {
        mError = errno;
    } else if (!mScan.isDirectory(directory, status)) {
        mError = ESTALE;
    } else {
        mError = 0;
    }
}
