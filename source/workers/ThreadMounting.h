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
    /// @return false on failure, and where a stop was requested: then nothing stays mounted. The
    /// mount point directory is removed in both cases, but not where it is still mounted
    /// (read-only, or with an entry of the mount table that is unclear) or the table cannot be
    /// read; what stands in its place and is no directory stays as well
    bool mountDevice(const QString& device, const QString& mountPoint, const QString& fsType,
                     bool& corrupt) const;

Q_SIGNALS:
    void setTransitionChangeSignal(StateMounting::eTransitionChangeSignalType signalType);

protected:
    void run() override;

private:
    /// For a card that has been mounted while the state was left. Where that fails, its mark makes
    /// the next run prepare it.
    void unmountAgain(const QString& mountPoint) const;
    /// Lets the owning state emit, unless it has been left until then.
    void emitOnState(const std::function<void(StateMounting&)>& emission);

    const ConfigHandler& mConfig;
};
