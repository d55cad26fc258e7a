#include <atomic>
#include <csignal>
#include <functional>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTest>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "ProgramRunner.h"
#include "ThreadOfThreads.h"

/// A worker without the prefix "Thread" in its name.
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

/// A program that does not end by itself, and a run that waits for it.
class EndlessProgram
{
public:
    int run(bool isLogged = true) const
    {
        const QStringList arguments{"-c", "echo $$ >" + mFile + "; exec sleep 1000"};
        return isLogged ? ProgramRunner::run(log4cxx::Logger::getLogger("worker"), "/bin/sh",
                                             arguments, true, 600000)
                        : ChildProcess::execute("/bin/sh", arguments);
    }
    bool waitForStart() const
    {
        return QTest::qWaitFor([this] { return id() != 0; }, kPatienceMs);
    }
    bool isRunning() const { return ::kill(id(), 0) == 0; }

private:
    int id() const
    {
        QFile file(mFile);
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt() : 0;
    }

    const QTemporaryDir mDirectory;
    const QString mFile = mDirectory.filePath("id");
};

// The output of a process that does this and aborts; empty if it does not abort.
QByteArray lastWordsOf(const Construction& construction)
{
    QTemporaryFile words;
    if (!words.open()) {
        return {};
    }
    const pid_t child = ::fork();
    if (child == 0) {
        static_cast<void>(std::signal(SIGABRT, SIG_DFL));
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        ::dup2(words.handle(), STDERR_FILENO);
        qInstallMessageHandler(nullptr);
        construction();
        ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    words.seek(0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT ? words.readAll() : QByteArray();
}

} // namespace

class ThreadStateBaseTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_worker_and_its_channel_are_named_after_its_class();
    void a_worker_without_the_prefix_is_a_programming_error_data();
    void a_worker_without_the_prefix_is_a_programming_error();
    void a_stop_request_is_seen_by_the_run_and_cleared_by_the_next();
    void a_stop_request_leaves_the_program_of_the_run_alone();
    void termination_kills_the_program_that_the_run_waits_for_data();
    void termination_kills_the_program_that_the_run_waits_for();
    void a_terminated_run_starts_no_further_program();
    void the_wait_for_a_blocked_run_is_3_seconds_once();
    void the_next_run_follows_a_blocked_one();
    void a_cancelled_run_does_not_begin();
    void a_run_acts_in_the_owning_thread_unless_it_has_been_left_data();
    void a_run_acts_in_the_owning_thread_unless_it_has_been_left();
    void each_run_has_a_stack_for_signal_handlers();
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
    const QByteArray words = lastWordsOf(construction);
    QVERIFY2(words.contains("ASSERT: \"strncmp(metaObject()->className(), \"Thread\", 6) == 0\" in "
                            "file ThreadStateBase,"),
             words);
}

void ThreadStateBaseTest::a_stop_request_is_seen_by_the_run_and_cleared_by_the_next()
{
    HeldWork held;
    std::atomic<bool> isRequested{false};
    ThreadOfThreads* self = nullptr;
    ThreadOfThreads worker([&] {
        held();
        isRequested = self->isStopRequested();
    });
    self = &worker;
    for (const bool isLeft : {false, true, false}) {
        worker.start(QThread::InheritPriority);
        QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
        if (isLeft) {
            worker.requestStop();
        }
        held.mayEnd.release();
        QVERIFY(worker.wait(kPatienceMs));
        QCOMPARE(isRequested.load(), isLeft);
    }
}

void ThreadStateBaseTest::a_stop_request_leaves_the_program_of_the_run_alone()
{
    const EndlessProgram program;
    ThreadOfThreads worker([&program] { program.run(); });
    worker.start(QThread::InheritPriority);
    QVERIFY(program.waitForStart());
    worker.requestStop();
    QTest::qWait(500);
    QVERIFY(worker.isRunning());
    QVERIFY(program.isRunning());
}

void ThreadStateBaseTest::termination_kills_the_program_that_the_run_waits_for_data()
{
    QTest::addColumn<bool>("isStartedAgain");
    QTest::addColumn<bool>("isLogged");
    QTest::newRow("by another start") << true << true;
    QTest::newRow("by destruction") << false << true;
    QTest::newRow("a program that is waited for without end") << false << false;
}

void ThreadStateBaseTest::termination_kills_the_program_that_the_run_waits_for()
{
    QFETCH(const bool, isStartedAgain);
    QFETCH(const bool, isLogged);
    const EndlessProgram program;
    const LogCapture log;
    std::atomic<int> runs{0};
    std::atomic<int> code{0};
    QElapsedTimer watch;
    {
        ThreadOfThreads worker([&] {
            if (++runs == 1) {
                code = program.run(isLogged);
            }
        });
        worker.start(QThread::InheritPriority);
        QVERIFY(program.waitForStart());
        watch.start();
        if (isStartedAgain) {
            worker.start(QThread::InheritPriority);
            QVERIFY(worker.wait(kPatienceMs));
            QVERIFY(!worker.isStopRequested());
        }
    }
    QVERIFY2(watch.elapsed() < 2900, qPrintable(QString::number(watch.elapsed())));
    QCOMPARE(runs.load(), isStartedAgain ? 2 : 1);
    QCOMPARE(code.load(), -1);
    QVERIFY(!program.isRunning());
    // The run no longer waits for the program, so its end is not a failure.
    QCOMPARE(log.messages(LogLevel::Error), QStringList());
}

void ThreadStateBaseTest::a_terminated_run_starts_no_further_program()
{
    HeldWork held;
    std::atomic<int> code{0};
    ThreadOfThreads worker([&] {
        held();
        code =
            ProgramRunner::run(log4cxx::Logger::getLogger("worker"), "/bin/true", {}, true, 10000);
    });
    const LogCapture log;
    worker.start(QThread::InheritPriority);
    QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
    worker.requestEnd();
    QVERIFY(worker.isStopRequested());
    held.mayEnd.release();
    QVERIFY(worker.wait(kPatienceMs));
    QCOMPARE(code.load(), -1);
    QCOMPARE(log.messages(), QStringList());
}

void ThreadStateBaseTest::the_wait_for_a_blocked_run_is_3_seconds_once()
{
    HeldWorker held;
    held.worker.start(QThread::InheritPriority);
    QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
    QElapsedTimer watch;
    watch.start();
    held.worker.terminateIfRunning();
    QVERIFY2(watch.elapsed() >= 2900 && watch.elapsed() < 5000,
             qPrintable(QString::number(watch.elapsed())));
    QVERIFY(held.worker.isRunning());
    watch.restart();
    held.worker.terminateIfRunning();
    QVERIFY2(watch.elapsed() < 2000, qPrintable(QString::number(watch.elapsed())));
}

void ThreadStateBaseTest::the_next_run_follows_a_blocked_one()
{
    HeldWorker held;
    held.worker.start(QThread::InheritPriority);
    QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
    held.worker.start(QThread::InheritPriority);
    QVERIFY(held.worker.isUnderWay());
    // Otherwise the old run would continue its work.
    QVERIFY(held.worker.isStopRequested());
    held.mayEnd.release();
    QTRY_COMPARE_WITH_TIMEOUT(held.hasBegun.available(), 1, kPatienceMs);
    QVERIFY(!held.worker.isStopRequested());
    QVERIFY(!held.worker.isInterruptionRequested());
}

void ThreadStateBaseTest::a_cancelled_run_does_not_begin()
{
    HeldWorker held;
    held.worker.start(QThread::InheritPriority);
    QVERIFY(held.hasBegun.tryAcquire(1, kPatienceMs));
    held.worker.start(QThread::InheritPriority);
    held.worker.requestStop();
    held.mayEnd.release();
    QVERIFY(held.worker.wait(kPatienceMs));
    QVERIFY(!held.worker.isUnderWay());
    QCoreApplication::processEvents();
    QVERIFY(!held.hasBegun.tryAcquire(1));
}

void ThreadStateBaseTest::a_run_acts_in_the_owning_thread_unless_it_has_been_left_data()
{
    QTest::addColumn<bool>("isLeft");
    QTest::addColumn<bool>("isStartedAgain");
    QTest::addColumn<int>("actions");
    QTest::newRow("current") << false << false << 1;
    QTest::newRow("left") << true << false << 0;
    QTest::newRow("of an earlier run") << false << true << 0;
}

void ThreadStateBaseTest::a_run_acts_in_the_owning_thread_unless_it_has_been_left()
{
    QFETCH(const bool, isLeft);
    QFETCH(const bool, isStartedAgain);
    std::atomic<int> runs{0};
    int actions = 0;
    ThreadOfThreads* self = nullptr;
    ThreadOfThreads worker([&] {
        if (++runs == 1) {
            self->postFromRun([&] { actions += QThread::currentThread() == thread() ? 1 : 100; });
        }
    });
    self = &worker;
    worker.start(QThread::InheritPriority);
    QVERIFY(worker.wait(kPatienceMs));
    if (isLeft) {
        worker.requestStop();
    }
    if (isStartedAgain) {
        worker.start(QThread::InheritPriority);
        QVERIFY(worker.wait(kPatienceMs));
    }
    QCOMPARE(actions, 0);
    QCoreApplication::processEvents();
    QTEST(actions, "actions");
}

void ThreadStateBaseTest::each_run_has_a_stack_for_signal_handlers()
{
    stack_t stack{};
    ThreadOfThreads worker([&stack] { ::sigaltstack(nullptr, &stack); });
    for (int run = 0; run < 2; ++run) {
        stack.ss_flags = SS_DISABLE;
        worker.start(QThread::InheritPriority);
        QVERIFY(worker.wait(kPatienceMs));
        QCOMPARE(stack.ss_flags, 0);
        QVERIFY(stack.ss_size >= static_cast<std::size_t>(MINSIGSTKSZ));
    }
}

QTEST_GUILESS_MAIN(ThreadStateBaseTest)
#include "ThreadStateBaseTest.moc"
