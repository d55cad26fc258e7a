#pragma once

#include <optional>

#include <QDateTime>
#include <QFinalState>
#include <QState>
#include <QString>

#include <tavoutil/TrackObject.h>

#include "ThreadStateBase.h"
#include "config.h"

class ThreadMounting;

/// The state in which the card is inspected, formatted, checked and mounted. A worker does it; when
/// it has ended, the state emits the worker's result.
class StateMounting : public QState
{
    Q_OBJECT

public:
    /// What a worker reports, each the signal that the state then emits.
    enum eTransitionChangeSignalType
    {
        IgnoreEmit = 0,   ///< none
        StartPrepare = 1, ///< START_PREPARE: mounted just now
        MountSuccess = 2, ///< MOUNT_SUCCESS: was mounted already
        MountFailed = 3,  ///< MOUNT_FAILED
        MountCorupt = 4   ///< MOUNT_CORRUPT: the file system is damaged beyond repair
    };
    Q_ENUM(eTransitionChangeSignalType)

    explicit StateMounting(const ConfigHandler& config);
    StateMounting(const StateMounting&) = delete;
    StateMounting& operator=(const StateMounting&) = delete;
    ~StateMounting() override;

Q_SIGNALS:
    void START_PREPARE();
    void MOUNT_SUCCESS();
    void MOUNT_FAILED();
    void MOUNT_CORRUPT();
    /// A new file system was created on the card at @p birth.
    void newFsBirthDate(const QDateTime& birth);
    /// The worker has begun to work on the card.
    void mountingStateActive();

public Q_SLOTS:
    /// Keeps the worker's result until the state ends.
    void setTransitionChangeSignal(eTransitionChangeSignalType signalType);
    /// Emits the signal of the result that was last reported.
    void emitTransitionChangeSignal();

protected:
    void onExit(QEvent* event) override;

private:
    QState* mRunning;
    QFinalState* mFinished;
    ThreadMounting* mWorker;
    eTransitionChangeSignalType mPendingSignal = IgnoreEmit;
};

/// The worker of StateMounting.
class ThreadMounting : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    /// Exit codes of e2fsck, any sum of which may be returned, and of a failure to run it.
    enum SDcardState : int
    {
        CheckNotRun = -1,
        Clean = 0,
        ErrorsCorrected = 1,
        RebootAdvised = 2,
        ErrorsLeft = 4,
        OperationalError = 8
    };

    /// @param config read-only while the worker runs
    /// @param parent the owning StateMounting
    ThreadMounting(const ConfigHandler& config, QObject* parent);
    ThreadMounting(const ThreadMounting&) = delete;
    ThreadMounting& operator=(const ThreadMounting&) = delete;
    ~ThreadMounting() override;

    /// Checks the file system on @p device, and repairs it thoroughly where the quick repair leaves
    /// errors.
    /// @return the exit code of the last e2fsck, or CheckNotRun
    SDcardState checkAndRepairFS(const QString& device) const;

    /// Brings @p device to be mounted read-write at @p mountPoint, checking its file system before.
    /// @param corrupt set to true where the file system was checked and still cannot be mounted
    /// @return false on failure. The mount point directory is then removed, but not where it is
    /// still mounted (read-only, or with an entry of the mount table that is unclear) or the table
    /// cannot be read; what stands in its place and is no directory stays as well
    bool mountDevice(const QString& device, const QString& mountPoint, const QString& fsType,
                     bool& corrupt) const;

Q_SIGNALS:
    void setTransitionChangeSignal(StateMounting::eTransitionChangeSignalType signalType);

protected:
    void run() override;

private:
    /// Sees to it that the card carries one Linux partition.
    /// @return 0 where it does, 99 where it has been formatted now, otherwise the code of the
    /// failure; nothing after a stop request
    std::optional<int> ensureLinuxPartition();
    StateMounting* owningState() const;

    const ConfigHandler& mConfig;
};
