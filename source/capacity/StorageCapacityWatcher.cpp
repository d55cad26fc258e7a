#include "StorageCapacityWatcher.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QMutexLocker>

#include <tavoutil/TrackLog.h>

#include "CardLayout.h"
#include "DirectoryScan.h"
#include "SDCardFileInfo.h"

namespace {

constexpr auto kTrackSource = "StorageCapacityWatcher";

const QString kIntervalFile = QStringLiteral("/etc/scw_interval");
constexpr int kDefaultIntervalMs = 10800000;

constexpr qint64 kAbandonedRunsMs = 3000;

} // namespace

StorageCapacityWatcher::StorageCapacityWatcher(const CardLayout& config)
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

QVector<StorageCapacityWatcher::WatchDir> StorageCapacityWatcher::watchDirs() const
{
    const QMutexLocker locker(&mWatchDirsMutex);
    return mWatchDirs;
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
        ensureDirSizeSingle(watchDir, token, mCard.device());
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
            ensureDirSizeSingle(watchDir, mRuns.token(), mCard.device());
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
