#include "StorageCapacityWatcher.h"

#include <utility>

#include <QDir>
#include <QFile>
#include <QMutexLocker>

#include <tavoutil/TrackLog.h>

#include "CardLayout.h"
#include "DirectoryScan.h"
#include "EmptyDirectoryRemover.h"
#include "LimitEnforcement.h"
#include "SDCardFileInfo.h"
#include "WorkerThread.h"

namespace {

constexpr auto kTrackSource = "StorageCapacityWatcher";

const QString kIntervalFile = QStringLiteral("/etc/scw_interval");
constexpr int kDefaultIntervalMs = 10800000;

constexpr qint64 kAbandonedRunsMs = 3000;

// The bytes that each removed directory counts for, whatever its size.
constexpr qint64 kRemovedDirectorySize = 2;

} // namespace

StorageCapacityWatcher::StorageCapacityWatcher(const CardLayout& config)
    : mConfig(config), mCard(config.mountPoint())
{
    initTrack("StorageCapacityWatcher");
    mTimer.setObjectName(QStringLiteral("interval timer"));
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

QVector<StorageCapacityWatcher::WatchDir> StorageCapacityWatcher::watchDirs() const
{
    const QMutexLocker locker(&mWatchDirsMutex);
    return mWatchDirs;
}

void StorageCapacityWatcher::ensureDirSizeSingle(const WatchDir& watchDir) const
{
    LimitEnforcement(logger(), mRuns.token()).run(watchDir.path, watchDir.maxSize);
}

void StorageCapacityWatcher::ensureOnCard(const WatchDir& watchDir, CancellationToken token) const
{
    LimitEnforcement(logger(), token).run(watchDir.path, watchDir.maxSize, mCard.device());
}

void StorageCapacityWatcher::removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir,
                                             qint64& used) const
{
    used -= kRemovedDirectorySize * EmptyDirectoryRemover(logger()).removeUpwards(watchPath, dir);
}

void StorageCapacityWatcher::abandonRuns()
{
    if (!mAbandonedUntil) {
        mAbandonedUntil.emplace(kAbandonedRunsMs);
    }
    mTimer.stop();
    mRuns.cancelAll();
    for (WorkerThread* const thread : findChildren<WorkerThread*>()) {
        thread->wait(*mAbandonedUntil);
    }
}

void StorageCapacityWatcher::resumeRuns()
{
    if (std::exchange(mAbandonedUntil, std::nullopt)) {
        ensureDirSizeAllDone();
    }
}

void StorageCapacityWatcher::storageIsReady()
{
    mAbandonedUntil.reset();
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
        ensureOnCard(watchDir, token);
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
            ensureOnCard(watchDir, mRuns.token());
            return true;
        }
    }
    TRACK_WARN(logger(), "There is no watched directory for identifier '" + identifier + "'");
    return false;
}

void StorageCapacityWatcher::startEnsureDirSizeAllAsThread()
{
    if (mAbandonedUntil) {
        return;
    }
    auto* const thread = new WorkerThread(this, mRuns.token());
    connect(thread, &WorkerThread::done, this, &StorageCapacityWatcher::ensureDirSizeAllDone);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start(QThread::InheritPriority);
}

void StorageCapacityWatcher::ensureDirSizeAllDone()
{
    if (!mAbandonedUntil && mCard.isMounted() && !mTimer.isActive()) {
        mTimer.start();
    }
}
