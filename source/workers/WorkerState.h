#pragma once

#include <QFinalState>
#include <QState>

class ThreadStateBase;

/// A state whose work is done by a thread of its own. Its entry starts the worker, the end of the
/// worker finishes it, and its exit asks the worker to stop.
class WorkerState : public QState
{
public:
    WorkerState(const WorkerState&) = delete;
    WorkerState& operator=(const WorkerState&) = delete;
    /// Ends the worker and asks those of the machine's other states to end as well, so that the
    /// total wait is at most 3000 ms. If the kernel blocks a worker longer, it is left with its
    /// object until the process ends, because neither can be removed safely before.
    ~WorkerState() override;

protected:
    WorkerState();

    /// Call it once, in the constructor of the state.
    /// @param worker a child object of this state
    void setWorker(ThreadStateBase* worker);

    void onExit(QEvent* event) override;

private:
    QState* mRunning;
    QFinalState* mFinished;
    ThreadStateBase* mWorker = nullptr;
};
