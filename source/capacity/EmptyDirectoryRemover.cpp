#include "EmptyDirectoryRemover.h"

#include <cerrno>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "DirectoryHandle.h"
#include "SDCardFileInfo.h"

namespace {

constexpr tavoutil::RecordOrigin kOrigin{
    "StorageCapacityWatcher",
    "void StorageCapacityWatcher::removeEmptyDirs(const QByteArray&, const QByteArray&, qint64&) "
    "const"};

// "." and "..".
constexpr int kEmptyDirectoryEntries = 2;

bool holdsEntries(const QByteArray& path)
{
    DirectoryHandle handle(path);
    if (!handle.isOpen()) {
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(handle.fd()), ::closedir);
    if (!stream) {
        return false;
    }
    handle.release();
    int count = 0;
    while (count <= kEmptyDirectoryEntries && ::readdir(stream.get()) != nullptr) {
        ++count;
    }
    return count > kEmptyDirectoryEntries;
}

QByteArray parentOf(const QByteArray& path)
{
    const int slash = path.lastIndexOf('/');
    return slash > 0 ? path.left(slash) : QByteArray("/");
}

/// The file system of the directory @p path; 0 if it cannot be read.
dev_t deviceOf(const QByteArray& path)
{
    const DirectoryHandle handle(path);
    struct stat status = {};
    return handle.isOpen() && ::fstat(handle.fd(), &status) == 0 ? status.st_dev : 0;
}

} // namespace

EmptyDirectoryRemover::EmptyDirectoryRemover(log4cxx::LoggerPtr logger) : mLogger(std::move(logger))
{}

int EmptyDirectoryRemover::removeUpwards(const QByteArray& watchPath, const QByteArray& dir) const
{
    const auto isOnDevice = [device = deviceOf(watchPath)](const struct stat& parent) {
        return parent.st_dev == device;
    };
    const QByteArray top = SDCardFileInfo::absolutePath(watchPath);
    QByteArray path = SDCardFileInfo::absolutePath(dir);
    int removed = 0;
    while (!path.isEmpty() && path != top && removeIfEmpty(path, isOnDevice)) {
        ++removed;
        const QByteArray parent = parentOf(path);
        if (!hasParent(path, parent)) {
            break;
        }
        path = parent;
    }
    return removed;
}

bool EmptyDirectoryRemover::removeIfEmpty(const QByteArray& path,
                                          const ParentCheck& isExpectedParent) const
{
    if (holdsEntries(path)) {
        return false;
    }
    const int error = remove(path, isExpectedParent);
    if (error != 0) {
        logNotRemoved(path, error);
    }
    return error == 0;
}

int EmptyDirectoryRemover::remove(const QByteArray& path, const ParentCheck& isExpectedParent)
{
    const DirectoryHandle parent(parentOf(path));
    struct stat status = {};
    if (!parent.isOpen() || ::fstat(parent.fd(), &status) != 0) {
        return errno;
    }
    if (!isExpectedParent(status)) {
        return ESTALE;
    }
    const char* const name = path.constData() + path.lastIndexOf('/') + 1;
    return ::unlinkat(parent.fd(), name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

void EmptyDirectoryRemover::logNotRemoved(const QByteArray& path, int error) const
{
    TRACK_ERROR_FROM(kOrigin, mLogger,
                     "Cannot remove empty directory " + SDCardFileInfo::absolutePath(path) + ": " +
                         tavoutil::systemErrorText(error));
}

bool EmptyDirectoryRemover::hasParent(const QByteArray& path, const QByteArray& parent) const
{
    if (DirectoryHandle(parent).isOpen()) {
        return true;
    }
    TRACK_ERROR_FROM(kOrigin, mLogger,
                     "Cannot get parent directory of " + SDCardFileInfo::absolutePath(path));
    return false;
}
