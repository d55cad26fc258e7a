#pragma once

#include <functional>
#include <optional>

#include <QDeadlineTimer>
#include <QMutex>
#include <QThread>

#include <tavoutil/AlternateSignalStack.h>
#include <tavoutil/TrackObject.h>

/// Base of the workers that run while a state of the card's machine is active. Workers are named
/// "Thread…"; they look at isStopRequested() between their steps. All public functions but
/// isStopRequested() are for the thread that owns the object.
///
/// No run is ended from outside (QThread::terminate): libraries without unwind tables, which the
/// logging and libfdisk need, cannot be left that way, and a lock would stay taken. A run that is
/// terminated gives up the program that it waits for, and ends at its next check everywhere else.
class ThreadStateBase : public QThread
{
public:
    explicit ThreadStateBase(QObject* parent);
    ThreadStateBase(const ThreadStateBase&) = delete;
    ThreadStateBase& operator=(const ThreadStateBase&) = delete;
    /// Terminates the worker where it still runs.
    ~ThreadStateBase() override;

    /// Names the thread and the log channel of @p track "St:…" after the worker's class. To be
    /// called at the end of the worker's constructor. Aborts where the class name does not begin
    /// with "Thread".
    void setupTrackAndThreadName(TrackObject& track);

    /// Starts a run with a cleared stop request. A run that still goes on is terminated first; if
    /// it has not ended then, the next run begins as soon as it has.
    void start(QThread::Priority priority);
    /// Whether a run goes on, or will as soon as an earlier one has ended.
    bool isUnderWay() const { return isRunning() || mPriorityOfNextRun; }

    /// Asks the run to end at its next check; one that has not begun yet does not begin.
    void requestStop();
    bool isStopRequested() const;

    /// Asks the run to end at its next check, and kills the program that it waits for.
    void requestEnd();
    /// The same, and waits for the end: up to 3000 ms from the first time that this run was asked.
    void terminateIfRunning();

    /// Whether all runs have ended and the last finished() has been delivered: one that comes
    /// before belongs to an earlier run.
    bool isEndDelivered() const { return mRunsBegun == mEndsDelivered; }

protected:
    /// Called by the run: the owning thread will do @p action, unless the run has been left until
    /// then.
    void postFromRun(const std::function<void()>& action);

private:
    void begin(QThread::Priority priority);
    void setStopRequested(bool isRequested);

    mutable QMutex mStopMutex;
    bool mStopRequested = false;
    quint32 mRunsBegun = 0;
    quint32 mEndsDelivered = 0;
    std::optional<QThread::Priority> mPriorityOfNextRun;
    std::optional<QDeadlineTimer> mEndDeadline;
    std::optional<tavoutil::AlternateSignalStack> mSignalStack;
};
