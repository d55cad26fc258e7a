#pragma once

#include <QThread>

#include <tavoutil/TrackObject.h>

#include "CancellationToken.h"

class StorageCapacityWatcher;

/// One background run of a StorageCapacityWatcher.
class WorkerThread : public QThread, public TrackObject
{
    Q_OBJECT

public:
    /// @param watcher also the thread's parent; must outlive the run
    /// @param token ends the run early when it is cancelled
    WorkerThread(StorageCapacityWatcher* watcher, CancellationToken token);

Q_SIGNALS:
    /// The run has ended; emitted in the thread.
    void done();

protected:
    void run() override;

private:
    StorageCapacityWatcher* mWatcher;
    CancellationToken mToken;
};
