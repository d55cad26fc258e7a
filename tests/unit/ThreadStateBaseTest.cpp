#include <array>
#include <atomic>
#include <csignal>
#include <functional>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFinalState>
#include <QSemaphore>
#include <QStateMachine>
#include <QTest>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ThreadStateBase.h"

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

/// A worker that leaves its end to the base: once started, its run uses nothing of it.
class ThreadWithoutEnd : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    explicit ThreadWithoutEnd(QSemaphore& started) : ThreadStateBase(nullptr), mStarted(started)
    {
        setupTrackAndThreadName(*this);
    }

protected:
    void run() override
    {
        mStarted.release();
        for (;;) {
            ::pause();
        }
    }

private:
    QSemaphore& mStarted;
};

/// Its name does not say what it is.
class WorkerOfThreads : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    WorkerOfThreads() : ThreadStateBase(nullptr) { setupTrackAndThreadName(*this); }
};

class threadInLowerCase : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    threadInLowerCase() : ThreadStateBase(nullptr) { setupTrackAndThreadName(*this); }
};

using Construction = std::function<void()>;
Q_DECLARE_METATYPE(Construction)

namespace {

constexpr int kPatienceMs = 30000;

// Goes on until it is terminated.
void goOn()
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

struct Death
{
    int signal;
    QByteArray lastWords;
};

// What becomes of a process that does this.
Death deathOf(const Construction& construction)
{
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        return {};
    }
    const pid_t child = ::fork();
    if (child == 0) {
        static_cast<void>(std::signal(SIGABRT, SIG_DFL));
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        ::dup2(ends[1], STDERR_FILENO);
        qInstallMessageHandler(nullptr);
        construction();
        ::_exit(EXIT_SUCCESS);
    }
    ::close(ends[1]);
    QByteArray words;
    std::array<char, 1024> buffer{};
    for (ssize_t size = 0; (size = ::read(ends[0], buffer.data(), buffer.size())) > 0;) {
        words.append(buffer.data(), static_cast<int>(size));
    }
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFSIGNALED(status) ? WTERMSIG(status) : 0, words};
}

} // namespace

class ThreadStateBaseTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_worker_and_its_channel_are_named_after_its_class();
    void a_worker_without_the_prefix_is_a_programming_error_data();
    void a_worker_without_the_prefix_is_a_programming_error();
    void a_worker_with_the_prefix_is_none();
    void a_stop_request_is_seen_by_the_run();
    void a_start_clears_the_stop_request();
    void a_start_ends_a_run_that_still_goes_on();
    void a_run_that_cannot_be_ended_is_waited_for_3_seconds();
    void the_next_run_begins_when_one_that_could_not_be_ended_has_gone();
    void a_run_that_is_no_longer_wanted_does_not_begin();
    void destruction_ends_a_run();
    void termination_without_a_run_does_nothing();
    void a_finished_run_leads_out_of_its_state();
    void the_notice_of_a_run_before_does_not_lead_out_of_the_state();
    void a_state_is_left_only_when_the_latest_run_has_been_told_to_be_over();

Q_SIGNALS:
    void again();
};

void ThreadStateBaseTest::a_worker_and_its_channel_are_named_after_its_class()
{
    const ThreadOfThreads worker([] {});
    QCOMPARE(worker.objectName(), QString("St:OfSt:s"));
    QCOMPARE(QString::fromStdString(worker.logger()->getName()), QString("St:OfSt:s"));
}

void ThreadStateBaseTest::a_worker_without_the_prefix_is_a_programming_error_data()
{
    QTest::addColumn<Construction>("construction");
    QTest::newRow("at the end") << Construction([] { const WorkerOfThreads worker; });
    QTest::newRow("lower case") << Construction([] { const threadInLowerCase worker; });
}

void ThreadStateBaseTest::a_worker_without_the_prefix_is_a_programming_error()
{
    QFETCH(const Construction, construction);
    const Death death = deathOf(construction);
    QCOMPARE(death.signal, SIGABRT);
    QVERIFY2(death.lastWords.contains(
                 "ASSERT: \"strncmp(metaObject()->className(), \"Thread\", 6) == 0\" in file "
                 "ThreadStateBase,"),
             death.lastWords);
}

void ThreadStateBaseTest::a_worker_with_the_prefix_is_none()
{
    const Death death = deathOf([] { const ThreadOfThreads worker([] {}); });
    QCOMPARE(death.signal, 0);
}

void ThreadStateBaseTest::a_stop_request_is_seen_by_the_run()
{
    QSemaphore started;
    ThreadOfThreads* self = nullptr;
    ThreadOfThreads worker([&] {
        started.release();
        while (!self->isStopRequested()) {
            QThread::yieldCurrentThread();
        }
    });
    self = &worker;
    QVERIFY(!worker.isStopRequested());
    worker.start(QThread::InheritPriority);
    QVERIFY(started.tryAcquire(1, kPatienceMs));
    QVERIFY(worker.isRunning());
    worker.requestStop();
    QVERIFY(worker.wait(kPatienceMs));
    QVERIFY(worker.isStopRequested());
}

void ThreadStateBaseTest::a_start_clears_the_stop_request()
{
    std::atomic<bool> wasRequested{true};
    ThreadOfThreads* self = nullptr;
    ThreadOfThreads worker([&] { wasRequested = self->isStopRequested(); });
    self = &worker;
    worker.requestStop();
    worker.start(QThread::InheritPriority);
    QVERIFY(worker.wait(kPatienceMs));
    QVERIFY(!wasRequested);
    QVERIFY(!worker.isStopRequested());
}

void ThreadStateBaseTest::a_start_ends_a_run_that_still_goes_on()
{
#ifdef __SANITIZE_THREAD__
    QSKIP("the sanitizer does not understand how a thread is terminated");
#endif
    QSemaphore started;
    std::atomic<int> runs{0};
    ThreadOfThreads worker([&] {
        const int run = ++runs;
        started.release();
        if (run == 1) {
            goOn();
        }
    });
    worker.start(QThread::InheritPriority);
    QVERIFY(started.tryAcquire(1, kPatienceMs));
    worker.requestStop();
    worker.start(QThread::InheritPriority);
    QVERIFY(worker.wait(kPatienceMs));
    QCOMPARE(runs.load(), 2);
    QVERIFY(!worker.isStopRequested());
}

void ThreadStateBaseTest::a_run_that_cannot_be_ended_is_waited_for_3_seconds()
{
    HeldWorker held;
    held.worker.start(QThread::InheritPriority);
    QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
    QElapsedTimer watch;
    watch.start();
    held.worker.terminateIfRunning();
    QVERIFY2(watch.elapsed() >= 2900 && watch.elapsed() < 10000,
             qPrintable(QString::number(watch.elapsed())));
    QVERIFY(held.worker.isRunning());
}

void ThreadStateBaseTest::the_next_run_begins_when_one_that_could_not_be_ended_has_gone()
{
    HeldWorker held;
    QStateMachine machine;
    auto* const running = new QState(&machine);
    auto* const finished = new QFinalState(&machine);
    running->addTransition(new WorkerFinishedTransition(&held.worker, finished));
    running->addTransition(this, &ThreadStateBaseTest::again, running);
    connect(running, &QState::entered, [&held] { held.worker.start(QThread::InheritPriority); });
    machine.setInitialState(running);
    machine.start();
    QTRY_COMPARE_WITH_TIMEOUT(held.hasBegun.available(), 1, kPatienceMs);
    Q_EMIT again();
    QCoreApplication::processEvents();
    QCOMPARE(held.hasBegun.available(), 1);
    QVERIFY(held.worker.isUnderWay());
    // Its end is not that of the run that was asked for.
    held.mayEnd.release();
    QTRY_COMPARE_WITH_TIMEOUT(held.hasBegun.available(), 2, kPatienceMs);
    QVERIFY(!held.worker.isStopRequested());
    QVERIFY(machine.configuration().contains(running));
    held.mayEnd.release();
    QTRY_VERIFY_WITH_TIMEOUT(machine.configuration().contains(finished), kPatienceMs);
}

void ThreadStateBaseTest::a_run_that_is_no_longer_wanted_does_not_begin()
{
    HeldWorker held;
    held.worker.start(QThread::InheritPriority);
    QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
    held.worker.start(QThread::InheritPriority);
    held.mayEnd.release();
    QVERIFY(held.worker.wait(kPatienceMs));
    QVERIFY(held.worker.isUnderWay());
    held.worker.requestStop();
    QVERIFY(!held.worker.isUnderWay());
    QCoreApplication::processEvents();
    QVERIFY(!held.hasBegun.tryAcquire(2));
}

void ThreadStateBaseTest::destruction_ends_a_run()
{
#ifdef __SANITIZE_THREAD__
    QSKIP("the sanitizer does not understand how a thread is terminated");
#endif
    QSemaphore started;
    std::atomic<bool> isFinished{false};
    {
        ThreadWithoutEnd worker(started);
        connect(
            &worker, &QThread::finished, &worker, [&isFinished] { isFinished = true; },
            Qt::DirectConnection);
        worker.start(QThread::InheritPriority);
        QVERIFY(started.tryAcquire(1, kPatienceMs));
    }
    QVERIFY(isFinished);
}

void ThreadStateBaseTest::termination_without_a_run_does_nothing()
{
    ThreadOfThreads worker([] {});
    worker.terminateIfRunning();
    worker.start(QThread::InheritPriority);
    QVERIFY(worker.wait(kPatienceMs));
    worker.terminateIfRunning();
    QVERIFY(worker.isFinished());
}

void ThreadStateBaseTest::a_finished_run_leads_out_of_its_state()
{
    ThreadOfThreads worker([] {});
    QStateMachine machine;
    auto* const running = new QState(&machine);
    auto* const finished = new QFinalState(&machine);
    running->addTransition(new WorkerFinishedTransition(&worker, finished));
    connect(running, &QState::entered, [&worker] { worker.start(QThread::InheritPriority); });
    machine.setInitialState(running);
    machine.start();
    QTRY_VERIFY_WITH_TIMEOUT(machine.configuration().contains(finished), kPatienceMs);
}

void ThreadStateBaseTest::the_notice_of_a_run_before_does_not_lead_out_of_the_state()
{
#ifdef __SANITIZE_THREAD__
    QSKIP("the sanitizer does not understand how a thread is terminated");
#endif
    QSemaphore started;
    QSemaphore mayEnd;
    std::atomic<int> runs{0};
    ThreadOfThreads worker([&] {
        const int run = ++runs;
        started.release();
        if (run == 1) {
            goOn();
        }
        mayEnd.acquire();
    });
    QStateMachine machine;
    auto* const running = new QState(&machine);
    auto* const finished = new QFinalState(&machine);
    running->addTransition(new WorkerFinishedTransition(&worker, finished));
    running->addTransition(this, &ThreadStateBaseTest::again, running);
    connect(running, &QState::entered, [&worker] { worker.start(QThread::InheritPriority); });
    machine.setInitialState(running);
    machine.start();
    QTRY_COMPARE_WITH_TIMEOUT(started.available(), 1, kPatienceMs);
    // The first run is terminated, and its end is told when the second is under way.
    Q_EMIT again();
    QTRY_COMPARE_WITH_TIMEOUT(started.available(), 2, kPatienceMs);
    QCoreApplication::processEvents();
    const bool isRunning = machine.configuration().contains(running);
    mayEnd.release();
    QVERIFY(isRunning);
    QTRY_VERIFY_WITH_TIMEOUT(machine.configuration().contains(finished), kPatienceMs);
}

void ThreadStateBaseTest::a_state_is_left_only_when_the_latest_run_has_been_told_to_be_over()
{
#ifdef __SANITIZE_THREAD__
    QSKIP("the sanitizer does not understand how a thread is terminated");
#endif
    QSemaphore started;
    std::atomic<int> runs{0};
    ThreadOfThreads worker([&] {
        if (++runs == 1) {
            started.release();
            goOn();
        }
    });
    QStateMachine machine;
    auto* const running = new QState(&machine);
    auto* const finished = new QFinalState(&machine);
    running->addTransition(new WorkerFinishedTransition(&worker, finished));
    running->addTransition(this, &ThreadStateBaseTest::again, running);
    int told = 0;
    connect(
        &worker, &QThread::finished, this, [&told] { ++told; }, Qt::QueuedConnection);
    int toldWhenLeft = 0;
    connect(finished, &QState::entered, this, [&] { toldWhenLeft = told; });
    int entries = 0;
    connect(running, &QState::entered, [&] {
        worker.start(QThread::InheritPriority);
        if (++entries == 2) {
            // Now the ends of both runs are waiting to be told.
            worker.wait(kPatienceMs);
        }
    });
    machine.setInitialState(running);
    machine.start();
    QTRY_COMPARE_WITH_TIMEOUT(started.available(), 1, kPatienceMs);
    Q_EMIT again();
    QTRY_VERIFY_WITH_TIMEOUT(machine.configuration().contains(finished), kPatienceMs);
    QCOMPARE(toldWhenLeft, 2);
}

QTEST_GUILESS_MAIN(ThreadStateBaseTest)
#include "ThreadStateBaseTest.moc"
