#include "ThreadStateBase.h"

#include <cstring>
#include <utility>

#include <QMutexLocker>

namespace {

constexpr unsigned long kTerminationWaitMs = 3000;

} // namespace

ThreadStateBase::ThreadStateBase(QObject* parent) : QThread(parent)
{
    connect(
        this, &QThread::finished, this, [this] { ++mEnds; }, Qt::DirectConnection);
    connect(this, &QThread::finished, this, &ThreadStateBase::noticeEnd, Qt::QueuedConnection);
}

ThreadStateBase::~ThreadStateBase()
{
    terminateIfRunning();
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
    {
        const QMutexLocker locker(&mStopMutex);
        mStopRequested = false;
    }
    if (isRunning()) {
        mPriorityOfNextRun = priority;
    } else {
        QThread::start(priority);
    }
}

void ThreadStateBase::noticeEnd()
{
    ++mEndsTold;
    if (mPriorityOfNextRun && !isRunning()) {
        QThread::start(*std::exchange(mPriorityOfNextRun, std::nullopt));
    }
}

void ThreadStateBase::requestStop()
{
    mPriorityOfNextRun.reset();
    const QMutexLocker locker(&mStopMutex);
    mStopRequested = true;
}

bool ThreadStateBase::isStopRequested() const
{
    const QMutexLocker locker(&mStopMutex);
    return mStopRequested;
}

void ThreadStateBase::terminateIfRunning()
{
    if (isRunning()) {
        terminate();
        wait(kTerminationWaitMs);
    }
}

WorkerFinishedTransition::WorkerFinishedTransition(const ThreadStateBase* worker,
                                                   QAbstractState* target)
    : QSignalTransition(worker, &QThread::finished), mWorker(worker)
{
    setTargetState(target);
}

bool WorkerFinishedTransition::eventTest(QEvent* event)
{
    return QSignalTransition::eventTest(event) && mWorker->isEndTold();
}
