#pragma once

#include <functional>

#include <QSemaphore>

#include "ThreadStateBase.h"

inline constexpr int kPatienceMs = 30000;

/// A worker that runs a function of the test.
class ThreadOfThreads : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    explicit ThreadOfThreads(std::function<void()> work, QObject* parent = nullptr)
        : ThreadStateBase(parent), mWork(std::move(work))
    {
        setupTrackAndThreadName(*this);
    }
    ~ThreadOfThreads() override { terminateIfRunning(); }

    using ThreadStateBase::postFromRun;

protected:
    void run() override { mWork(); }

private:
    std::function<void()> mWork;
};

/// Work without checks, like a call that blocks in the kernel, until it may end.
struct HeldWork
{
    void operator()()
    {
        hasBegun.release();
        mayEnd.acquire();
    }
    std::function<void()> function()
    {
        return [this] {
            (*this)();
        };
    }

    QSemaphore hasBegun;
    QSemaphore mayEnd;
};

/// A worker with such work.
struct HeldWorker : HeldWork
{
    HeldWorker() : worker(function()) {}
    HeldWorker(const HeldWorker&) = delete;
    HeldWorker& operator=(const HeldWorker&) = delete;
    ~HeldWorker()
    {
        worker.requestStop();
        mayEnd.release(2);
        worker.wait();
    }

    ThreadOfThreads worker;
};
