#include "StorageCapacityWatcher.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QMutexLocker>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "DirectoryHandle.h"
#include "DirectoryScan.h"
#include "FileRemover.h"
#include "SDCardFileInfo.h"
#include "config.h"

namespace {

const QString kIntervalFile = QStringLiteral("/etc/scw_interval");
constexpr int kDefaultIntervalMs = 10800000;

// What a removed directory counts for, whatever its size was.
constexpr qint64 kRemovedDirectorySize = 2;

constexpr qint64 kAbandonedRunsMs = 3000;

// Entries of an empty directory: "." and "..".
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

/// Removes the empty directory @p name of @p parent, which must lie on the file system @p device.
/// @return 0 or the error number
int removeDirectory(const QByteArray& parent, const char* name, dev_t device)
{
    const DirectoryHandle handle(parent.isEmpty() ? QByteArrayLiteral("/") : parent);
    struct stat status = {};
    if (!handle.isOpen() || ::fstat(handle.fd(), &status) != 0) {
        return errno;
    }
    if (status.st_dev != device) {
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

StorageCapacityWatcher::StorageCapacityWatcher(const ConfigHandler& config)
    : mConfig(config), mCard(config.mountPoint())
{
    initTrack("StorageCapacityWatcher");
    connect(&mTimer, &QTimer::timeout, this,
            &StorageCapacityWatcher::startEnsureDirSizeAllAsThread);
    mTimer.setSingleShot(true);
    mTimer.setTimerType(Qt::PreciseTimer);
    mTimer.setInterval(kDefaultIntervalMs);

    QFile intervalFile(kIntervalFile);
    if (intervalFile.open(QIODevice::ReadOnly | QIODevice::Text)) {
        bool isNumber = false;
        const int interval = intervalFile.readAll().trimmed().toInt(&isNumber);
        if (isNumber && interval > 0) {
            TRACK_INFO(logger(), "Use special Storage Capacity Watcher interval of " +
                                     QByteArray::number(interval) + " ms");
            mTimer.setInterval(interval);
        }
    }
}

StorageCapacityWatcher::~StorageCapacityWatcher()
{
    mRuns.cancelAll();
    for (WorkerThread* const thread : findChildren<WorkerThread*>()) {
        thread->wait();
    }
}

void StorageCapacityWatcher::updateWatchDirs()
{
    if (!mCard.isMounted()) {
        return;
    }
    const auto size = mCard.size();
    const quint64 capacity = size ? size->total : 0;
    QVector<WatchDir> watchDirs;
    for (const DirInfo& dir : mConfig.dirs()) {
        if (!dir.capacitywatch) {
            continue;
        }
        const QString path = QDir::cleanPath(mConfig.mountPoint() + QDir::separator() + dir.path);
        const WatchDir watchDir{path.toUtf8(), dir.allottedBytes(capacity)};
        if (isWatchDirUsable(watchDir.path)) {
            watchDirs.append(watchDir);
        }
    }
    const QMutexLocker locker(&mWatchDirsMutex);
    mWatchDirs = watchDirs;
}

bool StorageCapacityWatcher::isWatchDirUsable(const QByteArray& path) const
{
    const SDCardFileInfo info(path);
    if (!info.isValid()) {
        TRACK_ERROR(logger(), path + " does not exist");
    } else if (!info.isDirectory()) {
        TRACK_ERROR(logger(), path + " is not a directory");
    } else if (!info.isOwnerReadable()) {
        TRACK_ERROR(logger(), path + " is not readable");
    } else if (!info.isOwnerWritable()) {
        TRACK_ERROR(logger(), path + " is not writable");
    } else {
        return true;
    }
    return false;
}

qint64 StorageCapacityWatcher::dirSizeFlat(const QByteArray& dir) const
{
    DirectoryScan scan(logger(), mRuns.token());
    scan.run(dir, DirectoryScan::Extent::OneLevel, DirectoryScan::Keep::SizesOnly);
    return scan.totalSize();
}

qint64 StorageCapacityWatcher::dirSize(const QByteArray& dir) const
{
    DirectoryScan scan(logger(), mRuns.token());
    scan.run(dir, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::SizesOnly);
    return scan.totalSize();
}

void StorageCapacityWatcher::ensureDirSizeSingle(
    const StorageCapacityWatcher::WatchDir& watchDir) const
{
    ensureDirSizeSingle(watchDir, mRuns.token());
}

void StorageCapacityWatcher::ensureDirSizeSingle(const WatchDir& watchDir,
                                                 CancellationToken token) const
{
    DirectoryScan scan(logger(), token);
    scan.run(watchDir.path, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
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
    while (selected != files.begin() && used >= watchDir.maxSize) {
        std::pop_heap(files.begin(), selected, isNewer);
        --selected;
        used -= selected->size;
    }

    // What was selected stands at the end, the oldest last.
    std::vector<bool> isTouched(scan.directoryCount(), false);
    std::vector<quint32> touched;
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
    // Also after a cancelled removal: no later run comes back to them.
    for (const quint32 directory : touched) {
        removeEmptyDirs(watchDir.path, scan.path(directory), used);
    }
}

void StorageCapacityWatcher::removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir,
                                             qint64& used) const
{
    const dev_t device = deviceOf(watchPath);
    QByteArray path = SDCardFileInfo::absolutePath(dir);
    while (path != watchPath && !holdsEntries(path)) {
        const int slash = path.lastIndexOf('/');
        const QByteArray parent = path.left(slash);
        const int error = removeDirectory(parent, path.constData() + slash + 1, device);
        if (error != 0) {
            TRACK_ERROR(logger(), "Cannot remove empty directory " + path + ": " +
                                      tavoutil::systemErrorText(error));
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

QVector<StorageCapacityWatcher::WatchDir> StorageCapacityWatcher::watchDirs() const
{
    const QMutexLocker locker(&mWatchDirsMutex);
    return mWatchDirs;
}

void StorageCapacityWatcher::enforceOnCard(const WatchDir& watchDir, CancellationToken token) const
{
    // The card may have gone since the list was made, and links on it may lead away from it. What
    // does not exist is left to the scan to report.
    struct stat status = {};
    if (::lstat(watchDir.path.constData(), &status) != 0 || mCard.holds(watchDir.path)) {
        ensureDirSizeSingle(watchDir, token);
    } else {
        TRACK_ERROR(logger(), watchDir.path + " is not on the card");
    }
}

void StorageCapacityWatcher::abandonRuns()
{
    mRuns.cancelAll();
    const QDeadlineTimer deadline(kAbandonedRunsMs);
    for (WorkerThread* const thread : findChildren<WorkerThread*>()) {
        thread->wait(deadline);
    }
}

void StorageCapacityWatcher::storageIsReady()
{
    updateWatchDirs();
    startEnsureDirSizeAllAsThread();
}

void StorageCapacityWatcher::storageIsUnmounted()
{
    mTimer.stop();
    const QMutexLocker locker(&mWatchDirsMutex);
    mWatchDirs.clear();
}

void StorageCapacityWatcher::ensureDirSizeAll() const
{
    ensureDirSizeAll(mRuns.token());
}

void StorageCapacityWatcher::ensureDirSizeAll(CancellationToken token) const
{
    if (!mCard.isMounted()) {
        return;
    }
    for (const WatchDir& watchDir : watchDirs()) {
        if (token.isCancelled()) {
            return;
        }
        enforceOnCard(watchDir, token);
    }
}

bool StorageCapacityWatcher::ensureDirSize(const QString& identifier) const
{
    if (identifier.isEmpty()) {
        ensureDirSizeAll();
        return true;
    }
    if (!mCard.isMounted()) {
        return true;
    }
    for (const WatchDir& watchDir : watchDirs()) {
        if (identifier.toUtf8() == SDCardFileInfo(watchDir.path).baseName()) {
            enforceOnCard(watchDir, mRuns.token());
            return true;
        }
    }
    TRACK_WARN(logger(), "There is no watched directory for identifier '" + identifier + "'");
    return false;
}

void StorageCapacityWatcher::startEnsureDirSizeAllAsThread()
{
    auto* const thread = new WorkerThread(this, mRuns.token());
    connect(thread, &WorkerThread::done, this, &StorageCapacityWatcher::ensureDirSizeAllDone);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::InheritPriority);
}

void StorageCapacityWatcher::ensureDirSizeAllDone()
{
    if (mCard.isMounted() && !mTimer.isActive()) {
        mTimer.start();
    }
}

WorkerThread::WorkerThread(StorageCapacityWatcher* watcher, CancellationToken token)
    : QThread(watcher), mWatcher(watcher), mToken(token)
{
    initTrack("WorkerThread");
}

void WorkerThread::run()
{
    mWatcher->ensureDirSizeAll(mToken);
    Q_EMIT done();
}
