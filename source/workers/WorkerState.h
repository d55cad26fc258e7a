#pragma once

#include <QFinalState>
#include <QState>

class ThreadStateBase;

/// A state whose work a thread of its own does. Entering it starts the worker, the worker's end
/// finishes it, and leaving it asks the worker to stop.
class WorkerState : public QState
{
public:
    WorkerState(const WorkerState&) = delete;
    WorkerState& operator=(const WorkerState&) = delete;
    /// Ends the worker, and asks those of the machine's other states to end as well: so all of them
    /// together are waited for 3000 ms at most. A worker that the kernel holds longer is left to
    /// the end of the process, together with its object: neither can be removed safely before.
    ~WorkerState() override;

protected:
    WorkerState();

    /// To be called once, in the constructor of the state.
    /// @param worker a child object of this state
    void setWorker(ThreadStateBase* worker);

    void onExit(QEvent* event) override;

private:
    QState* mRunning;
    QFinalState* mFinished;
    ThreadStateBase* mWorker = nullptr;
};
