#include "CardRoot.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

OpenedPlace::OpenedPlace(int base, const QByteArray& path)
    : mFd(::openat(base, path.constData(), O_PATH | O_CLOEXEC))
{
    if (mFd < 0 || ::fstat(mFd, &mStatus) != 0) {
        mError = errno;
    }
}

OpenedPlace::~OpenedPlace()
{
    if (mFd >= 0) {
        ::close(mFd);
    }
}

CardRoot::CardRoot(const QString& mountPoint) : mRoot(AT_FDCWD, mountPoint.toUtf8()) {}

OpenedPlace CardRoot::open(const QByteArray& path) const
{
    return mRoot.isOpen() ? OpenedPlace(mRoot.fd(), "." + path) : OpenedPlace(mRoot.error());
}

bool CardRoot::isElsewhere(const OpenedPlace& place) const
{
    return place.isOpen() && place.status().st_dev != mRoot.status().st_dev;
}

QByteArray CardRoot::elsewhereText(const QByteArray& fullPath)
{
    return "Leaving '" + fullPath + "' alone: it is not on the card";
}
