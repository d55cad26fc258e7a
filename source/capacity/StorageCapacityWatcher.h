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
/// when the card becomes ready, then at an interval after each run, and on demand.
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

    /// Rebuilds the list of watched directories from the configuration, unless the card is not
    /// mounted.
    void updateWatchDirs();
    /// Whether @p path is a directory that its owner may read and write; logs the problem
    /// otherwise.
    bool isWatchDirUsable(const QByteArray& path) const;

    /// Bytes (apparent size) of the directory itself and of the files directly in it. Published;
    /// the service itself measures whole trees.
    qint64 dirSizeFlat(const QByteArray& dir) const;
    /// Bytes (apparent size) of the directory and of everything below it.
    qint64 dirSize(const QByteArray& dir) const;

    /// Deletes the oldest files of one directory until it is below its limit, and the directories
    /// that become empty.
    void ensureDirSizeSingle(const WatchDir& watchDir) const;
    /// Removes @p dir and its parents below @p watchPath while they are empty. Published;
    /// enforcements remove directories themselves.
    /// @param used bytes in use; lowered by 2 for each removed directory
    void removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir, qint64& used) const;

    /// Ends the background runs early and waits for them, because their open directories would
    /// prevent the unmount. No run starts before the next storageIsReady(). All calls until then
    /// wait at most 3 s together.
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
    /// Enforces the limit of the directory with the base name @p identifier, or all limits if it is
    /// empty.
    /// @return false when no watched directory has that identifier
    bool ensureDirSize(const QString& identifier) const;
    void startEnsureDirSizeAllAsThread();
    void ensureDirSizeAllDone();

private:
    QVector<WatchDir> watchDirs() const;
    /// Like the published one, for directories that must be on the card: the card may have been
    /// removed since the list was built, and links may lead elsewhere.
    void ensureOnCard(const WatchDir& watchDir, CancellationToken token) const;

    const CardLayout& mConfig;
    MountedFileSystem mCard;
    QTimer mTimer{this};
    /// Background runs read the list while the main thread may change it.
    mutable QMutex mWatchDirsMutex;
    QVector<WatchDir> mWatchDirs;
    CancellationSource mRuns;
    /// The remaining wait for abandoned runs; empty while runs may start.
    std::optional<QDeadlineTimer> mAbandonedUntil;
};
