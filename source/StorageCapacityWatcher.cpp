#include "StorageCapacityWatcher.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include <QDir>
#include <QFile>
#include <QMutexLocker>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "DirectoryHandle.h"
#include "DirectoryScan.h"
#include "SDCardFileInfo.h"
#include "config.h"

namespace {

const QString kIntervalFile = QStringLiteral("/etc/scw_interval");
constexpr int kDefaultIntervalMs = 10800000;

// What a removed directory counts for, whatever its size was.
constexpr qint64 kRemovedDirectorySize = 2;

constexpr unsigned long kAbandonedRunMs = 3000;

// Entries of an empty directory: "." and "..".
constexpr int kEmptyDirectoryEntries = 2;

/// Removes files of a scan. Each directory is opened once for a run of its files, and only where it
/// still is the one that was scanned: a link that has taken its place leads nowhere.
class FileRemover
{
public:
    explicit FileRemover(const std::vector<DirectoryScan::Directory>& directories)
        : mDirectories(directories)
    {}

    /// @return 0 or the error number
    int remove(const DirectoryScan::File& file)
    {
        if (mOpened != file.directory) {
            open(file.directory);
        }
        if (mError != 0) {
            return mError;
        }
        return ::unlinkat(mHandle->fd(), file.name, 0) == 0 ? 0 : errno;
    }

private:
    void open(quint32 index)
    {
        const DirectoryScan::Directory& directory = mDirectories[index];
        mOpened = index;
        mHandle.emplace(directory.path);
        struct stat status = {};
        if (!mHandle->isOpen() || ::fstat(mHandle->fd(), &status) != 0) {
            mError = errno;
        } else if (status.st_dev != directory.device || status.st_ino != directory.inode) {
            mError = ESTALE;
        } else {
            mError = 0;
        }
    }

    const std::vector<DirectoryScan::Directory>& mDirectories;
    std::optional<quint32> mOpened;
    std::optional<DirectoryHandle> mHandle;
    int mError = 0;
};

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

} // namespace

StorageCapacityWatcher::StorageCapacityWatcher(const ConfigHandler& config)
    : mConfig(config), mCard(config.mountPoint())
{
    initTrack("StorageCapacityWatcher");
    connect(&mTimer, &QTimer::timeout, this,
            &StorageCapacityWatcher::startEnsureDirSizeAllAsThread);
    mTimer.setSingleShot(true);
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
    mIsAbandoned = true;
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
    DirectoryScan scan(logger(), mIsAbandoned);
    scan.run(dir, DirectoryScan::Extent::OneLevel, DirectoryScan::Keep::SizesOnly);
    return scan.totalSize();
}

qint64 StorageCapacityWatcher::dirSize(const QByteArray& dir) const
{
    DirectoryScan scan(logger(), mIsAbandoned);
    scan.run(dir, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::SizesOnly);
    return scan.totalSize();
}

void StorageCapacityWatcher::ensureDirSizeSingle(
    const StorageCapacityWatcher::WatchDir& watchDir) const
{
    DirectoryScan scan(logger(), mIsAbandoned);
    scan.run(watchDir.path, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    qint64 used = scan.totalSize();
    if (watchDir.maxSize >= used || mIsAbandoned) {
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
    const std::vector<DirectoryScan::Directory>& directories = scan.directories();
    std::vector<bool> isTouched(directories.size(), false);
    std::vector<quint32> touched;
    FileRemover remover(directories);
    for (auto file = files.end(); file != selected && !mIsAbandoned;) {
        --file;
        const int error = remover.remove(*file);
        if (error != 0) {
            TRACK_WARN(logger(), "Cannot remove file " + directories[file->directory].path + "/" +
                                     file->name + ": " + tavoutil::systemErrorText(error));
        } else if (!isTouched[file->directory]) {
            isTouched[file->directory] = true;
            touched.push_back(file->directory);
        }
    }
    if (mIsAbandoned) {
        return;
    }
    for (const quint32 directory : touched) {
        removeEmptyDirs(watchDir.path, directories[directory].path, used);
    }
}

void StorageCapacityWatcher::removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir,
                                             qint64& used) const
{
    QByteArray path = SDCardFileInfo::absolutePath(dir);
    while (path != watchPath && !holdsEntries(path)) {
        if (::rmdir(path.constData()) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR(logger(), "Cannot remove empty directory " + path + ": " + why);
            return;
        }
        used -= kRemovedDirectorySize;
        const int slash = path.lastIndexOf('/');
        if (slash <= 0) {
            TRACK_ERROR(logger(), "Cannot get parent directory of " + path);
            return;
        }
        path.truncate(slash);
    }
}

QVector<StorageCapacityWatcher::WatchDir> StorageCapacityWatcher::watchDirs() const
{
    const QMutexLocker locker(&mWatchDirsMutex);
    return mWatchDirs;
}

void StorageCapacityWatcher::enforceOnCard(const WatchDir& watchDir) const
{
    // The card may have gone since the list was made, and links on it may lead away from it.
    if (mCard.holds(watchDir.path)) {
        ensureDirSizeSingle(watchDir);
    } else {
        TRACK_ERROR(logger(), watchDir.path + " is not on the card");
    }
}

void StorageCapacityWatcher::abandonRuns()
{
    mIsAbandoned = true;
    for (WorkerThread* const thread : findChildren<WorkerThread*>()) {
        thread->wait(kAbandonedRunMs);
    }
}

void StorageCapacityWatcher::storageIsReady()
{
    mIsAbandoned = false;
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
    if (!mCard.isMounted()) {
        return;
    }
    for (const WatchDir& watchDir : watchDirs()) {
        if (mIsAbandoned) {
            return;
        }
        enforceOnCard(watchDir);
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
            enforceOnCard(watchDir);
            return true;
        }
    }
    TRACK_WARN(logger(), "There is no watched directory for identifier '" + identifier + "'");
    return false;
}

void StorageCapacityWatcher::startEnsureDirSizeAllAsThread()
{
    auto* const thread = new WorkerThread(this);
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

WorkerThread::WorkerThread(StorageCapacityWatcher* watcher) : QThread(watcher), mWatcher(watcher)
{
    initTrack("WorkerThread");
}

void WorkerThread::run()
{
    mWatcher->ensureDirSizeAll();
    Q_EMIT done();
}
