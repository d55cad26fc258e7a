#pragma once

#include <QSignalTransition>

class ThreadStateBase;

/// Leads out of a state's running child when its worker has finished.
class WorkerFinishedTransition : public QSignalTransition
{
public:
    WorkerFinishedTransition(const ThreadStateBase* worker, QAbstractState* target);

protected:
    /// An earlier run's end may be delivered when the next run goes on or has ended already. It
    /// must not count as the end of that run, whose result may not have come yet.
    bool eventTest(QEvent* event) override;

private:
    const ThreadStateBase* mWorker;
};
