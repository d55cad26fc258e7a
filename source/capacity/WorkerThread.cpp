#include "WorkerThread.h"

#include <tavoutil/AlternateSignalStack.h>

#include "StorageCapacityWatcher.h"

WorkerThread::WorkerThread(StorageCapacityWatcher* watcher, CancellationToken token)
    : QThread(watcher), mWatcher(watcher), mToken(token)
{
    initTrack("WorkerThread");
}

void WorkerThread::run()
{
    const tavoutil::AlternateSignalStack signalStack;
    mWatcher->ensureDirSizeAll(mToken);
    Q_EMIT done();
}
