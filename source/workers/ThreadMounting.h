#pragma once

#include <functional>

#include <QString>

#include <tavoutil/TrackObject.h>

#include "StateMounting.h"
#include "ThreadStateBase.h"
#include "config.h"

/// The worker of StateMounting.
class ThreadMounting : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    /// Exit codes of e2fsck, which may be combined, and one for a failure to run it.
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

    /// Checks the file system on @p device. If the quick repair leaves errors, repairs it
    /// thoroughly.
    /// @return the exit code of the last e2fsck, or CheckNotRun
    SDcardState checkAndRepairFS(const QString& device) const;

    /// Mounts @p device read-write at @p mountPoint after a check of its file system.
    /// @param corrupt set to true if the checked file system still cannot be mounted
    /// @return false on failure and after a stop request; then nothing stays mounted. The mount
    /// point directory is then removed, unless the card is still mounted (read-only, or unclear in
    /// the mount table), the table cannot be read, or the path is not a directory
    bool mountDevice(const QString& device, const QString& mountPoint, const QString& fsType,
                     bool& corrupt) const;

Q_SIGNALS:
    void setTransitionChangeSignal(StateMounting::eTransitionChangeSignalType signalType);

protected:
    void run() override;

private:
    /// For a card that was mounted while the state was being left. If the unmount fails, the mark
    /// makes the next run prepare the card.
    void unmountAgain(const QString& mountPoint) const;
    /// Makes the owning state emit, unless the state has been left in the meantime.
    void emitOnState(const std::function<void(StateMounting&)>& emission);

    const ConfigHandler& mConfig;
};
