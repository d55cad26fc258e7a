#include <array>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPointer>
#include <QSignalSpy>
#include <QStateMachine>
#include <QTest>

#include "StateHarness.h"
#include "ThreadOfThreads.h"
#include "WorkerState.h"

namespace {

/// A state with a worker that runs a function of the test.
class StateOfThreads : public WorkerState
{
public:
    explicit StateOfThreads(const std::function<void()>& work)
    {
        worker = new ThreadOfThreads(work, this);
        setWorker(worker);
    }

    ThreadOfThreads* worker;
};

} // namespace

/// How a worker starts and ends with its state.
class WorkerStateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void entering_starts_the_worker_and_its_end_finishes_the_state();
    void leaving_asks_the_worker_to_stop();
    void an_earlier_run_does_not_finish_the_state();
    void a_state_is_finished_only_when_the_latest_end_is_delivered();
    void two_blocked_workers_delay_the_end_by_3_seconds_in_total();
};

void WorkerStateTest::entering_starts_the_worker_and_its_end_finishes_the_state()
{
    HeldWork work;
    auto* const state = new StateOfThreads(work.function());
    StateHarness harness(state);
    const QSignalSpy finished(state, &QState::finished);
    Q_EMIT harness.enter();
    QTRY_COMPARE_WITH_TIMEOUT(work.hasBegun.available(), 1, kPatienceMs);
    QCoreApplication::processEvents();
    QCOMPARE(finished.size(), 0);
    work.mayEnd.release();
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, kPatienceMs);
    QVERIFY(state->active());
    QVERIFY(!state->worker->isStopRequested());
}

void WorkerStateTest::leaving_asks_the_worker_to_stop()
{
    HeldWork work;
    auto* const state = new StateOfThreads(work.function());
    StateHarness harness(state);
    const QSignalSpy finished(state, &QState::finished);
    Q_EMIT harness.enter();
    QTRY_COMPARE_WITH_TIMEOUT(work.hasBegun.available(), 1, kPatienceMs);
    Q_EMIT harness.leave();
    QTRY_VERIFY_WITH_TIMEOUT(!state->active(), kPatienceMs);
    QVERIFY(state->worker->isStopRequested());
    QVERIFY(state->worker->isRunning());
    work.mayEnd.release();
    QVERIFY(state->worker->wait(kPatienceMs));
    QCoreApplication::processEvents();
    QCOMPARE(finished.size(), 0);
}

void WorkerStateTest::an_earlier_run_does_not_finish_the_state()
{
    HeldWork work;
    auto* const state = new StateOfThreads(work.function());
    StateHarness harness(state);
    const QSignalSpy finished(state, &QState::finished);
    Q_EMIT harness.enter();
    QTRY_COMPARE_WITH_TIMEOUT(work.hasBegun.available(), 1, kPatienceMs);
    Q_EMIT harness.leave();
    // The run continues, so this waits for it and then for the delivery of its end.
    Q_EMIT harness.enter();
    QTRY_VERIFY_WITH_TIMEOUT(state->active(), kPatienceMs);
    work.mayEnd.release();
    QTRY_COMPARE_WITH_TIMEOUT(work.hasBegun.available(), 2, kPatienceMs);
    QCoreApplication::processEvents();
    QCOMPARE(finished.size(), 0);
    work.mayEnd.release();
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, kPatienceMs);
}

void WorkerStateTest::a_state_is_finished_only_when_the_latest_end_is_delivered()
{
    QSemaphore hasBegun;
    auto* const state = new StateOfThreads([&hasBegun] {
        hasBegun.release();
        // The second run ends at once.
        while (hasBegun.available() == 1 && !QThread::currentThread()->isInterruptionRequested()) {
            QThread::yieldCurrentThread();
        }
    });
    StateHarness harness(state);
    int delivered = 0;
    connect(
        state->worker, &QThread::finished, this, [&delivered] { ++delivered; },
        Qt::QueuedConnection);
    int deliveredWhenFinished = 0;
    connect(state, &QState::finished, this, [&] { deliveredWhenFinished = delivered; });
    Q_EMIT harness.enter();
    QTRY_COMPARE_WITH_TIMEOUT(hasBegun.available(), 1, kPatienceMs);
    Q_EMIT harness.leave();
    QTRY_VERIFY_WITH_TIMEOUT(!state->active(), kPatienceMs);
    // This ends the first run. Then the ends of both runs wait for delivery.
    connect(state->initialState(), &QAbstractState::entered, this,
            [state] { state->worker->wait(kPatienceMs); });
    Q_EMIT harness.enter();
    QTRY_COMPARE_WITH_TIMEOUT(hasBegun.available(), 2, kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(deliveredWhenFinished, 2, kPatienceMs);
}

void WorkerStateTest::two_blocked_workers_delay_the_end_by_3_seconds_in_total()
{
    HeldWork work;
    std::array<QPointer<ThreadOfThreads>, 2> workers;
    QElapsedTimer watch;
    {
        QStateMachine machine;
        for (QPointer<ThreadOfThreads>& worker : workers) {
            auto* const state = new StateOfThreads(work.function());
            machine.addState(state);
            worker = state->worker;
            worker->start(QThread::InheritPriority);
            QVERIFY(work.hasBegun.tryAcquire(1, kPatienceMs));
        }
        watch.start();
    }
    QVERIFY2(watch.elapsed() >= 2900 && watch.elapsed() < 5000,
             qPrintable(QString::number(watch.elapsed())));
    // Such a run keeps the objects that it uses.
    work.mayEnd.release(2);
    for (const QPointer<ThreadOfThreads>& worker : workers) {
        QVERIFY(worker);
        QVERIFY(worker->isStopRequested());
        QVERIFY(worker->wait(kPatienceMs));
        delete worker;
    }
}

QTEST_GUILESS_MAIN(WorkerStateTest)
#include "WorkerStateTest.moc"
