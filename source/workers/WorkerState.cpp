#include "WorkerState.h"

#include "ThreadStateBase.h"
#include "WorkerFinishedTransition.h"

WorkerState::WorkerState() : mRunning(new QState(this)), mFinished(new QFinalState(this))
{
    setInitialState(mRunning);
}

WorkerState::~WorkerState()
{
    if (parent() != nullptr) {
        for (QObject* const sibling : parent()->children()) {
            if (const auto* const state = dynamic_cast<WorkerState*>(sibling)) {
                state->mWorker->requestEnd();
            }
        }
    }
    mWorker->terminateIfRunning();
    if (mWorker->isRunning()) {
        // Do not start another run.
        mWorker->requestStop();
        mWorker->setParent(nullptr);
    }
}

void WorkerState::setWorker(ThreadStateBase* worker)
{
    mWorker = worker;
    mRunning->addTransition(new WorkerFinishedTransition(worker, mFinished));
    // Not on the entry of this state itself, where nothing is connected yet: a worker may end at
    // once.
    connect(mRunning, &QState::entered, worker,
            [worker] { worker->start(QThread::InheritPriority); });
}

void WorkerState::onExit(QEvent* /*event*/)
{
    if (mWorker->isUnderWay()) {
        mWorker->requestStop();
    }
}
