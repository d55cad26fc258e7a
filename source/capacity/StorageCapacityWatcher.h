#pragma once

#include <functional>
#include <optional>

#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QThread>
#include <QTimer>
#include <QVector>

#include <sys/stat.h>

#include <tavoutil/TrackObject.h>

#include "CancellationToken.h"
#include "MountedFileSystem.h"

class CardLayout;

/// Keeps the watched directories of the card within their shares by deleting their oldest files:
/// once when the card has become ready, then at an interval after each run, and on demand.
///
/// startEnsureDirSizeAllAsThread(), which the timer calls too, starts a WorkerThread; that goes
/// through ensureDirSizeAll() to ensureDirSizeSingle(), once for each limit. ensureDirSize() is the
/// same for those who ask, on their own thread. What is deleted, and how, stands in
/// StorageCapacityWatcher_removal.cpp.
class StorageCapacityWatcher : public QObject, public TrackObject
{
    Q_OBJECT

public:
    /// A directory with a limit.
    struct WatchDir
    {
        QByteArray path;    ///< absolute and cleaned, on the mounted card
        qint64 maxSize = 0; ///< bytes
    };

    /// @param config must outlive the watcher
    explicit StorageCapacityWatcher(const CardLayout& config);
    StorageCapacityWatcher(const StorageCapacityWatcher&) = delete;
    StorageCapacityWatcher& operator=(const StorageCapacityWatcher&) = delete;
    /// Waits for background runs, which end early.
    ~StorageCapacityWatcher() override;

    /// Takes the watched directories anew from the configuration; leaves them as they are while the
    /// card is not mounted.
    void updateWatchDirs();
    /// Whether @p path is a directory that its owner may read and write; logs what is wrong with
    /// it.
    bool isWatchDirUsable(const QByteArray& path) const;

    /// Bytes (apparent size) of the directory itself and of the files directly in it. Part of the
    /// published interface; the service itself measures whole trees.
    qint64 dirSizeFlat(const QByteArray& dir) const;
    /// Bytes (apparent size) of the directory and of everything below it.
    qint64 dirSize(const QByteArray& dir) const;

    /// Deletes the oldest files of one directory until it is below its limit, and the directories
    /// that have become empty by it.
    void ensureDirSizeSingle(const WatchDir& watchDir) const;
    /// Removes @p dir and its parents up to, not including, @p watchPath as far as they are empty.
    /// @param used bytes in use; lowered by what each removed directory counts for
    void removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir, qint64& used) const;

    /// Makes the background runs that are under way end early, and waits for that, at most 3 s.
    /// They hold directories of the card open, and it could not be unmounted as long as they do.
    void abandonRuns();
    /// Enforces every limit while the card is mounted, until @p token is cancelled.
    void ensureDirSizeAll(CancellationToken token) const;

public Q_SLOTS:
    void storageIsReady();
    void storageIsUnmounted();
    /// Enforces every limit while the card is mounted. Safe on any thread.
    void ensureDirSizeAll() const;
    /// Enforces the limit of the directory whose base name is @p identifier; all limits for an
    /// empty one.
    /// @return false when no watched directory has that identifier
    bool ensureDirSize(const QString& identifier) const;
    void startEnsureDirSizeAllAsThread();
    void ensureDirSizeAllDone();

private:
    QVector<WatchDir> watchDirs() const;
    /// Whether a directory is the one out of which an emptied one may be removed.
    using ParentCheck = std::function<bool(const struct stat&)>;

    /// @param device the file system on which the directory must lie, as configured directories
    /// must lie on the card: it may have gone since the list was made, and links may lead away
    void ensureDirSizeSingle(const WatchDir& watchDir, CancellationToken token,
                             std::optional<dev_t> device) const;
    /// @param hasFailed set where a directory that was empty is still there
    void removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir, qint64& used,
                         const ParentCheck& isExpectedParent, bool& hasFailed) const;

    const CardLayout& mConfig;
    MountedFileSystem mCard;
    QTimer mTimer;
    /// Background runs read the list while the main thread may rebuild or clear it.
    mutable QMutex mWatchDirsMutex;
    QVector<WatchDir> mWatchDirs;
    CancellationSource mRuns;
};

/// One background run of a StorageCapacityWatcher, cancelled by it from its construction on.
class WorkerThread : public QThread, public TrackObject
{
    Q_OBJECT

public:
    /// @param watcher also the thread's parent; must outlive the run
    explicit WorkerThread(StorageCapacityWatcher* watcher, CancellationToken token);

Q_SIGNALS:
    void done();

protected:
    void run() override;

private:
    StorageCapacityWatcher* mWatcher;
    CancellationToken mToken;
};
