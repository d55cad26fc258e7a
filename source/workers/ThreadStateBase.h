#pragma once

#include <atomic>
#include <optional>

#include <QMutex>
#include <QSignalTransition>
#include <QThread>

#include <tavoutil/TrackObject.h>

/// Base of the workers that run while a state of the card's machine is active. Workers are named
/// "Thread…"; they look at isStopRequested() between their steps.
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

    /// Starts a run with a cleared stop request; a run that still goes on is terminated first. One
    /// that cannot be, because the kernel holds it, is waited for without blocking.
    void start(QThread::Priority priority);
    /// Whether a run goes on, or will as soon as an earlier one has gone.
    bool isUnderWay() const { return isRunning() || mPriorityOfNextRun; }

    /// Asks the run to end at its next check; one that has not begun yet does not begin.
    void requestStop();
    bool isStopRequested() const;

    /// Ends a run wherever it is, and waits up to 3000 ms for it to be gone.
    void terminateIfRunning();

    /// Whether the latest run has finished and the object's thread has been told so: what is told
    /// before that is the end of an earlier run.
    bool isEndTold() const { return isFinished() && mEndsTold == mEnds; }

private:
    void noticeEnd();

    mutable QMutex mStopMutex;
    bool mStopRequested = false;
    std::atomic<quint32> mEnds{0};
    quint32 mEndsTold = 0;
    std::optional<QThread::Priority> mPriorityOfNextRun;
};

/// Leads out of a state's running child when its worker has finished.
class WorkerFinishedTransition : public QSignalTransition
{
public:
    WorkerFinishedTransition(const ThreadStateBase* worker, QAbstractState* target);

protected:
    /// The notice of a run that was terminated on re-entry arrives when the next one is under way
    /// or has ended already; it must not pass for the end of that, whose result may not have come
    /// yet.
    bool eventTest(QEvent* event) override;

private:
    const ThreadStateBase* mWorker;
};
