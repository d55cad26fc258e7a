#include <array>
#include <atomic>
#include <csignal>
#include <functional>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSemaphore>
#include <QTest>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ThreadOfThreads.h"

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
    void a_run_that_is_no_longer_wanted_does_not_begin();
    void destruction_ends_a_run();
    void termination_without_a_run_does_nothing();
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

QTEST_GUILESS_MAIN(ThreadStateBaseTest)
#include "ThreadStateBaseTest.moc"
