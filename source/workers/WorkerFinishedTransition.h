#pragma once

#include <QSignalTransition>

class ThreadStateBase;

/// Leaves a state's running child when its worker has finished.
class WorkerFinishedTransition : public QSignalTransition
{
public:
    WorkerFinishedTransition(const ThreadStateBase* worker, QAbstractState* target);

protected:
    /// The end of an earlier run may be delivered during the next run or after it. It must not
    /// count as the end of the next run, whose result may not have arrived yet.
    bool eventTest(QEvent* event) override;

private:
    const ThreadStateBase* mWorker;
};
