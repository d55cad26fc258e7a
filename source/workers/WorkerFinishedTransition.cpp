#include "WorkerFinishedTransition.h"

#include "ThreadStateBase.h"

WorkerFinishedTransition::WorkerFinishedTransition(const ThreadStateBase* worker,
                                                   QAbstractState* target)
    : QSignalTransition(worker, &QThread::finished), mWorker(worker)
{
    setTargetState(target);
}

bool WorkerFinishedTransition::eventTest(QEvent* event)
{
    return QSignalTransition::eventTest(event) && mWorker->isEndDelivered();
}
