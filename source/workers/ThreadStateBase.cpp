#include "ThreadStateBase.h"

#include <cstring>
#include <utility>

#include <QMutexLocker>

namespace {

constexpr qint64 kTerminationWaitMs = 3000;

} // namespace

ThreadStateBase::ThreadStateBase(QObject* parent) : QThread(parent)
{
    // In the worker's thread, around run().
    connect(
        this, &QThread::started, this, [this] { mSignalStack.emplace(); }, Qt::DirectConnection);
    connect(
        this, &QThread::finished, this, [this] { mSignalStack.reset(); }, Qt::DirectConnection);
    connect(
        this, &QThread::finished, this,
        [this] {
            ++mEndsDelivered;
            if (mPriorityOfNextRun && !isRunning()) {
                begin(*std::exchange(mPriorityOfNextRun, std::nullopt));
            }
        },
        Qt::QueuedConnection);
}

ThreadStateBase::~ThreadStateBase()
{
    terminateIfRunning();
    if (!isRunning()) {
        // The thread may still be emitting finished(), which uses this object.
        wait();
    }
}

void ThreadStateBase::setupTrackAndThreadName(TrackObject& track)
{
    // Not Q_ASSERT, which a release build leaves out.
    if (std::strncmp(metaObject()->className(), "Thread", 6) != 0) {
        qt_assert(R"(strncmp(metaObject()->className(), "Thread", 6) == 0)", "ThreadStateBase",
                  __LINE__);
    }
    QString name = QString::fromLatin1(metaObject()->className());
    name.replace(QLatin1String("Thread"), QLatin1String("St:"));
    setObjectName(name);
    track.initTrack(name.toLocal8Bit().constData());
}

void ThreadStateBase::start(QThread::Priority priority)
{
    terminateIfRunning();
    if (isRunning()) {
        mPriorityOfNextRun = priority;
    } else {
        begin(priority);
    }
}

void ThreadStateBase::begin(QThread::Priority priority)
{
    // Not earlier: until its end, the previous run must see the request to stop.
    setStopRequested(false);
    mEndDeadline.reset();
    ++mRunsBegun;
    QThread::start(priority);
    if (!isRunning() && !isFinished()) {
        // No thread could be created: the end of this run will never be delivered.
        --mRunsBegun;
    }
}

void ThreadStateBase::requestStop()
{
    mPriorityOfNextRun.reset();
    setStopRequested(true);
}

bool ThreadStateBase::isStopRequested() const
{
    const QMutexLocker locker(&mStopMutex);
    return mStopRequested;
}

void ThreadStateBase::setStopRequested(bool isRequested)
{
    const QMutexLocker locker(&mStopMutex);
    mStopRequested = isRequested;
}

void ThreadStateBase::requestEnd()
{
    if (!isRunning()) {
        return;
    }
    setStopRequested(true);
    // ChildProcess checks this while it waits for programs.
    requestInterruption();
    if (!mEndDeadline) {
        mEndDeadline.emplace(kTerminationWaitMs);
    }
}

void ThreadStateBase::terminateIfRunning()
{
    if (isRunning()) {
        requestEnd();
        wait(*mEndDeadline);
    }
}

void ThreadStateBase::postFromRun(const std::function<void()>& action)
{
    QMetaObject::invokeMethod(
        this,
        [this, action, run = mRunsBegun] {
            if (run == mRunsBegun && !isStopRequested()) {
                action();
            }
        },
        Qt::QueuedConnection);
}
