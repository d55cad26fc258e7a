#include "StorageCapacityWatcher.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "DirectoryHandle.h"
#include "DirectoryScan.h"
#include "FileRemover.h"
#include "SDCardFileInfo.h"

namespace {

constexpr auto kTrackSource = "StorageCapacityWatcher";

// What a removed directory counts for, whatever its size was.
constexpr qint64 kRemovedDirectorySize = 2;

// Entries of an empty directory: "." and "..".
constexpr int kEmptyDirectoryEntries = 2;

// How many emptied directories a cancelled run may still tidy up: whoever cancelled it waits.
constexpr int kTidiedWhenCancelled = 100;

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

/// Removes the empty directory @p name of @p parent.
/// @return 0 or the error number; ESTALE for another parent than the expected one
template <typename ParentCheck>
int removeDirectory(const QByteArray& parent, const char* name, const ParentCheck& isExpectedParent)
{
    const DirectoryHandle handle(parent.isEmpty() ? QByteArrayLiteral("/") : parent);
    struct stat status = {};
    if (!handle.isOpen() || ::fstat(handle.fd(), &status) != 0) {
        return errno;
    }
    if (!isExpectedParent(status)) {
        return ESTALE;
    }
    return ::unlinkat(handle.fd(), name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

/// The file system that holds the directory @p path; 0 where it cannot be read.
dev_t deviceOf(const QByteArray& path)
{
    const DirectoryHandle handle(path);
    struct stat status = {};
    return handle.isOpen() && ::fstat(handle.fd(), &status) == 0 ? status.st_dev : 0;
}

} // namespace

void StorageCapacityWatcher::ensureDirSizeSingle(const WatchDir& watchDir) const
{
    ensureDirSizeSingle(watchDir, mRuns.token(), std::nullopt);
}

void StorageCapacityWatcher::ensureDirSizeSingle(const WatchDir& watchDir, CancellationToken token,
                                                 std::optional<dev_t> device) const
{
    DirectoryScan scan(logger(), token);
    scan.run(watchDir.path, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files, device);
    if (scan.isElsewhere()) {
        TRACK_ERROR(logger(), watchDir.path + " is not on the card");
        return;
    }
    qint64 used = scan.totalSize();
    if (watchDir.maxSize >= used || token.isCancelled()) {
        return;
    }
    std::vector<DirectoryScan::File>& files = scan.files();
    if (files.empty()) {
        TRACK_WARN(logger(), watchDir.path + " exceed limit but there are no files to remove");
        return;
    }

    // A heap with the oldest on top: often a few of very many files have to go, and a full sort
    // would order them all.
    const auto isNewer = [](const DirectoryScan::File& a, const DirectoryScan::File& b) {
        return a.changeTime > b.changeTime;
    };
    std::make_heap(files.begin(), files.end(), isNewer);
    auto selected = files.end();
    while (selected != files.begin() && used >= watchDir.maxSize && !token.isCancelled()) {
        std::pop_heap(files.begin(), selected, isNewer);
        --selected;
        used -= selected->size;
    }

    // What was selected stands at the end, the oldest last.
    std::vector<bool> isTouched(scan.directoryCount(), false);
    std::vector<quint32> touched;
    {
        // It keeps a directory open.
        FileRemover remover(scan);
        for (auto file = files.end(); file != selected && !token.isCancelled();) {
            --file;
            const int error = remover.remove(*file);
            if (error != 0) {
                TRACK_WARN(logger(), "Cannot remove file " + scan.path(file->directory) + "/" +
                                         file->name + ": " + tavoutil::systemErrorText(error));
            } else if (!isTouched[file->directory]) {
                isTouched[file->directory] = true;
                touched.push_back(file->directory);
            }
        }
    }

    // A cancelled run tidies up a little, too, as long as nothing fails: no later run comes back to
    // the directories that it has emptied.
    int tidied = 0;
    for (const quint32 directory : touched) {
        if (token.isCancelled() && ++tidied > kTidiedWhenCancelled) {
            return;
        }
        quint32 level = directory;
        bool hasFailed = false;
        const auto isParent = [&scan, &level](const struct stat& status) {
            level = scan.parent(level);
            return scan.isDirectory(level, status);
        };
        removeEmptyDirs(watchDir.path, scan.path(directory), used, isParent, hasFailed);
        if (hasFailed && token.isCancelled()) {
            return;
        }
    }
}

void StorageCapacityWatcher::removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir,
                                             qint64& used) const
{
    const auto isOnDevice = [device = deviceOf(watchPath)](const struct stat& parent) {
        return parent.st_dev == device;
    };
    bool hasFailed = false;
    removeEmptyDirs(watchPath, dir, used, isOnDevice, hasFailed);
}

void StorageCapacityWatcher::removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir,
                                             qint64& used, const ParentCheck& isExpectedParent,
                                             bool& hasFailed) const
{
    const QByteArray top = SDCardFileInfo::absolutePath(watchPath);
    QByteArray path = SDCardFileInfo::absolutePath(dir);
    while (path != top && !holdsEntries(path)) {
        const int slash = path.lastIndexOf('/');
        const QByteArray parent = path.left(slash);
        const int error = removeDirectory(parent, path.constData() + slash + 1, isExpectedParent);
        if (error != 0) {
            TRACK_ERROR(logger(), "Cannot remove empty directory " + path + ": " +
                                      tavoutil::systemErrorText(error));
            hasFailed = true;
            return;
        }
        used -= kRemovedDirectorySize;
        if (parent.isEmpty()) {
            TRACK_ERROR(logger(), "Cannot get parent directory of " + path);
            return;
        }
        path = parent;
    }
}
