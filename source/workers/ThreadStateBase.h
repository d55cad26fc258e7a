#pragma once

#include <functional>
#include <optional>

#include <QDeadlineTimer>
#include <QMutex>
#include <QThread>

#include <tavoutil/AlternateSignalStack.h>
#include <tavoutil/TrackObject.h>

/// Base of the workers that run while a state of the card's machine is active. Workers are named
/// "Thread…" and check isStopRequested() between their steps. Except for isStopRequested(), call
/// all public functions on the thread that owns the object.
///
/// No run is ended from outside (QThread::terminate): logging and libfdisk need libraries without
/// unwind tables, which cannot be cancelled safely, and a lock would stay taken. A terminated run
/// kills the program that it waits for and ends at its next check.
class ThreadStateBase : public QThread
{
public:
    explicit ThreadStateBase(QObject* parent);
    ThreadStateBase(const ThreadStateBase&) = delete;
    ThreadStateBase& operator=(const ThreadStateBase&) = delete;
    /// Terminates the worker if it still runs.
    ~ThreadStateBase() override;

    /// Names the thread and the log channel of @p track "St:…" after the worker's class. Call it at
    /// the end of the worker's constructor. Aborts if the class name does not begin with "Thread".
    void setupTrackAndThreadName(TrackObject& track);

    /// Starts a run without a stop request. Terminates an earlier run first; if that does not end
    /// in time, the new run begins when it has ended.
    void start(QThread::Priority priority);
    /// Whether a run is active or will start after an earlier one.
    bool isUnderWay() const { return isRunning() || mPriorityOfNextRun; }

    /// Asks the run to end at its next check. A run that has not begun does not begin.
    void requestStop();
    bool isStopRequested() const;

    /// Asks the run to end at its next check, and kills the program that it waits for.
    void requestEnd();
    /// Like requestEnd(), and waits for the end: up to 3000 ms from the first request for this run.
    void terminateIfRunning();

    /// Whether all runs have ended and the last finished() has been delivered. An earlier
    /// finished() belongs to an earlier run.
    bool isEndDelivered() const { return mRunsBegun == mEndsDelivered; }

protected:
    /// Called by the run: the owning thread executes @p action, unless the run has been left in the
    /// meantime.
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
