#include "InstanceLock.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr auto kLockFile = "/run/sdcardd.lock";

} // namespace

InstanceLock::InstanceLock()
    : mFd(::open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR))
{
    mIsTaken = mFd >= 0 && ::flock(mFd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

InstanceLock::~InstanceLock()
{
    if (mFd >= 0) {
        ::close(mFd);
    }
}
