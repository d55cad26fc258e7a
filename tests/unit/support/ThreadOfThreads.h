#pragma once

#include <functional>

#include <QSemaphore>

#include <unistd.h>

#include "ThreadStateBase.h"

inline constexpr int kPatienceMs = 30000;

/// A worker that does what it is told.
class ThreadOfThreads : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    explicit ThreadOfThreads(std::function<void()> work)
        : ThreadStateBase(nullptr), mWork(std::move(work))
    {
        setupTrackAndThreadName(*this);
    }
    ~ThreadOfThreads() override { terminateIfRunning(); }

    /// Keeps the thread that calls it from being terminated.
    static void hold() { setTerminationEnabled(false); }

protected:
    void run() override { mWork(); }

private:
    std::function<void()> mWork;
};

// Goes on until it is terminated.
inline void goOn()
{
    for (;;) {
        ::pause();
    }
}

/// A worker that cannot be terminated, as one that the kernel holds, until it may end.
struct HeldWorker
{
    HeldWorker()
        : worker([this] {
              ThreadOfThreads::hold();
              hasBegun.release();
              mayEnd.acquire();
          })
    {}
    HeldWorker(const HeldWorker&) = delete;
    HeldWorker& operator=(const HeldWorker&) = delete;
    ~HeldWorker()
    {
        mayEnd.release(2);
        worker.requestStop();
        worker.wait();
    }

    QSemaphore hasBegun;
    QSemaphore mayEnd;
    ThreadOfThreads worker;
};
