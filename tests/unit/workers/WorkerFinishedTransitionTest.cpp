#include <atomic>

#include <QCoreApplication>
#include <QFinalState>
#include <QStateMachine>
#include <QTest>

#include "ThreadOfThreads.h"

/// How the end of a worker's run leads out of its state.
class WorkerFinishedTransitionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_finished_run_leads_out_of_its_state();
    void the_notice_of_a_run_before_does_not_lead_out_of_the_state();
    void a_state_is_left_only_when_the_latest_run_has_been_told_to_be_over();
    void the_next_run_begins_when_one_that_could_not_be_ended_has_gone();

Q_SIGNALS:
    void again();
};

void WorkerFinishedTransitionTest::a_finished_run_leads_out_of_its_state()
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

void WorkerFinishedTransitionTest::the_notice_of_a_run_before_does_not_lead_out_of_the_state()
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
    running->addTransition(this, &WorkerFinishedTransitionTest::again, running);
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

void WorkerFinishedTransitionTest::
    a_state_is_left_only_when_the_latest_run_has_been_told_to_be_over()
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
    running->addTransition(this, &WorkerFinishedTransitionTest::again, running);
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

void WorkerFinishedTransitionTest::the_next_run_begins_when_one_that_could_not_be_ended_has_gone()
{
    HeldWorker held;
    QStateMachine machine;
    auto* const running = new QState(&machine);
    auto* const finished = new QFinalState(&machine);
    running->addTransition(new WorkerFinishedTransition(&held.worker, finished));
    running->addTransition(this, &WorkerFinishedTransitionTest::again, running);
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

QTEST_GUILESS_MAIN(WorkerFinishedTransitionTest)
#include "WorkerFinishedTransitionTest.moc"
