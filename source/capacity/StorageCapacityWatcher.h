#pragma once

#include <optional>

#include <QByteArray>
#include <QDeadlineTimer>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

#include <tavoutil/TrackObject.h>

#include "CancellationToken.h"
#include "MountedFileSystem.h"

class CardLayout;

/// Keeps the watched directories of the card within their shares by deleting their oldest files:
/// once when the card has become ready, then at an interval after each run, and on demand.
///
/// startEnsureDirSizeAllAsThread(), which the timer calls too, starts a WorkerThread; that calls
/// ensureDirSizeAll(), which runs a LimitEnforcement for each directory. ensureDirSize() does the
/// same on the caller's thread.
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

    /// Bytes (apparent size) of the directory itself and of the files directly in it; published,
    /// the service itself measures whole trees.
    qint64 dirSizeFlat(const QByteArray& dir) const;
    /// Bytes (apparent size) of the directory and of everything below it.
    qint64 dirSize(const QByteArray& dir) const;

    /// Deletes the oldest files of one directory until it is below its limit, and the directories
    /// that have become empty by it.
    void ensureDirSizeSingle(const WatchDir& watchDir) const;
    /// Removes @p dir and its parents up to, not including, @p watchPath as far as they are empty;
    /// published, an enforcement removes them by itself.
    /// @param used bytes in use; lowered by 2 for each removed directory
    void removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir, qint64& used) const;

    /// Ends the background runs early and waits for them: they hold directories of the card open,
    /// which could not be unmounted as long as they do. No other run starts before the next
    /// storageIsReady(). All calls until then wait at most 3 s together.
    void abandonRuns();
    /// Takes the cycle of runs up again for a card that stays mounted after abandonRuns().
    void resumeRuns();
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
    /// The same as the published one for directories that must lie on the card: it may have gone
    /// since the list was made, and links may lead away.
    void ensureOnCard(const WatchDir& watchDir, CancellationToken token) const;

    const CardLayout& mConfig;
    MountedFileSystem mCard;
    QTimer mTimer{this};
    /// Background runs read the list while the main thread may rebuild or clear it.
    mutable QMutex mWatchDirsMutex;
    QVector<WatchDir> mWatchDirs;
    CancellationSource mRuns;
    /// How long abandoned runs are waited for; nothing while runs may start.
    std::optional<QDeadlineTimer> mAbandonedUntil;
};
