#include <csignal>
#include <thread>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include "LimitEnforcement.h"
#include "LogCapture.h"
#include "MetaMethods.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "WatchedCard.h"
#include "WatchedRuns.h"

namespace {

constexpr int kPatienceMs = 30000;

/// Brings the second directory to 0 bytes and cancels at the file "last", which cannot be removed.
void enforceUntilLast(LogCapture& log)
{
    WatchedRuns::createFile("last");
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/last");
    ScannedTree::awaitNextChangeTime();
    WatchedRuns::createFile("after it");
    log.holdAt("Cannot remove file /media/sdcard/second/last: Device or resource busy");
    CancellationSource source;
    std::thread run([token = source.token()] {
        LimitEnforcement(log4cxx::Logger::getLogger("run"), token).run(WatchedRuns::kSecond, 0);
    });
    QVERIFY(log.waitUntilHeld());
    source.cancelAll();
    log.letGo();
    run.join();
    QVERIFY(WatchedRuns::fileExists("after it"));
}

/// A directory with one file, in the second directory.
void createDirectoryWithFile(const QByteArray& name)
{
    ScannedTree::createDirectory(WatchedRuns::kSecond + "/" + name);
    WatchedRuns::createFile(name + "/file");
}

// The files and directories on the card that this process has open.
QStringList openOnCard()
{
    QStringList open;
    for (const QFileInfo& descriptor :
         QDir("/proc/self/fd").entryInfoList(QDir::Files | QDir::Dirs)) {
        if (descriptor.symLinkTarget().startsWith(WatchedCard::kMountPoint)) {
            open.append(descriptor.symLinkTarget());
        }
    }
    return open;
}

} // namespace

/// Background runs and their early end.
class CapacityRunsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void signals_and_slots_have_this_order();
    void a_run_has_a_logger_and_a_signal_stack_of_its_own_and_ends_in_the_watchers_thread();
    void the_directories_are_brought_within_their_limits_in_their_order();
    void destruction_ends_a_run_early();
    void the_wait_for_blocked_runs_is_3_seconds_in_total();
    void the_wait_ends_with_the_run();
    void no_run_starts_between_an_abandonment_and_the_next_card();
    void the_cycle_goes_on_for_a_card_that_stays_mounted();
    void a_cancelled_enforcement_leaves_no_emptied_directory();
    void a_cancelled_enforcement_does_not_log_failed_removals();
    void nothing_is_open_while_the_last_records_are_written();
};

void CapacityRunsTest::signals_and_slots_have_this_order()
{
    QCOMPARE(methodsOf(StorageCapacityWatcher::staticMetaObject, QMetaMethod::Slot),
             (QStringList{"storageIsReady()", "storageIsUnmounted()", "ensureDirSizeAll()",
                          "ensureDirSize(QString)", "startEnsureDirSizeAllAsThread()",
                          "ensureDirSizeAllDone()"}));
    QCOMPARE(methodsOf(StorageCapacityWatcher::staticMetaObject, QMetaMethod::Signal),
             QStringList());
    QCOMPARE(methodsOf(WorkerThread::staticMetaObject, QMetaMethod::Signal), QStringList{"done()"});
    QCOMPARE(methodsOf(WorkerThread::staticMetaObject, QMetaMethod::Slot), QStringList());
}

void CapacityRunsTest::
    a_run_has_a_logger_and_a_signal_stack_of_its_own_and_ends_in_the_watchers_thread()
{
    const LogCapture log;
    WatchedRuns runs;
    const CancellationSource source;
    WorkerThread worker(&runs.watcher(), source.token());
    QCOMPARE(QString::fromStdString(worker.logger()->getName()), QString("WorkerThread"));
    stack_t stack{};
    connect(
        &worker, &WorkerThread::done, this, [&stack] { ::sigaltstack(nullptr, &stack); },
        Qt::DirectConnection);
    QThread* notifiedIn = nullptr;
    connect(&worker, &WorkerThread::done, this,
            [&notifiedIn] { notifiedIn = QThread::currentThread(); });
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(notifiedIn != nullptr, kPatienceMs);
    QCOMPARE(notifiedIn, QThread::currentThread());
    QVERIFY(worker.wait(kPatienceMs));
    QVERIFY(stack.ss_sp != nullptr && (stack.ss_flags & SS_DISABLE) == 0);
}

void CapacityRunsTest::the_directories_are_brought_within_their_limits_in_their_order()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QCOMPARE(log.messages(), (QStringList{WatchedRuns::kReport, WatchedRuns::kSecondReport}));
}

void CapacityRunsTest::destruction_ends_a_run_early()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    std::thread release([&log] {
        // Long enough for the destruction to begin.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        log.letGo();
    });
    runs.destroyWatcher();
    release.join();
    QVERIFY(WatchedRuns::fileExists());
    QCOMPARE(log.messages(), QStringList{WatchedRuns::kReport});
}

void CapacityRunsTest::the_wait_for_blocked_runs_is_3_seconds_in_total()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    QElapsedTimer time;
    time.start();
    runs.watcher().abandonRuns();
    const qint64 first = time.restart();
    runs.watcher().abandonRuns();
    const qint64 second = time.elapsed();
    log.letGo();
    QVERIFY(first >= 2990 && second < 2000);
    QVERIFY(runs.waitForEnd());
    // The directories after that are left alone.
    QVERIFY(WatchedRuns::fileExists());
    QCOMPARE(log.messages(), QStringList{WatchedRuns::kReport});

    // The wait for the next card's runs starts again.
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    time.start();
    runs.watcher().abandonRuns();
    const qint64 next = time.elapsed();
    log.letGo();
    QVERIFY(next >= 2990);
    QVERIFY(runs.waitForEnd());
}

void CapacityRunsTest::the_wait_ends_with_the_run()
{
    LogCapture log;
    WatchedRuns runs;
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    std::thread release([&log] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        log.letGo();
    });
    QElapsedTimer time;
    time.start();
    runs.watcher().abandonRuns();
    const qint64 waited = time.elapsed();
    const bool isFinished = runs.watcher().findChild<WorkerThread*>()->isFinished();
    release.join();
    QVERIFY(isFinished);
    QVERIFY(waited < 2900);
    QVERIFY(runs.waitForEnd());
}

void CapacityRunsTest::no_run_starts_between_an_abandonment_and_the_next_card()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
    runs.watcher().abandonRuns();
    QVERIFY(!runs.timer().isActive());
    runs.watcher().ensureDirSizeAllDone();
    QVERIFY(!runs.timer().isActive());
    runs.watcher().startEnsureDirSizeAllAsThread();
    QCOMPARE(runs.runs(), 0);
    runs.watcher().storageIsReady();
    QCOMPARE(runs.runs(), 1);
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
}

void CapacityRunsTest::the_cycle_goes_on_for_a_card_that_stays_mounted()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    runs.watcher().abandonRuns();
    runs.watcher().resumeRuns();
    QVERIFY(runs.timer().isActive());
    runs.watcher().startEnsureDirSizeAllAsThread();
    QCOMPARE(runs.runs(), 1);
    QVERIFY(runs.waitForEnd());
}

void CapacityRunsTest::a_cancelled_enforcement_leaves_no_emptied_directory()
{
    LogCapture log;
    const WatchedRuns runs;
    ScannedTree::createDirectory(WatchedRuns::kSecond + "/of the user");
    ScannedTree::createDirectory(WatchedRuns::kSecond + "/parent");
    for (int i = 0; i < 300; ++i) {
        createDirectoryWithFile("parent/" + QByteArray::number(i));
    }
    ScannedTree::awaitNextChangeTime();
    enforceUntilLast(log);
    QVERIFY(!WatchedRuns::fileExists("parent"));
    QVERIFY(WatchedRuns::fileExists("of the user"));
    QCOMPARE(log.messages().size(), 1);
}

void CapacityRunsTest::a_cancelled_enforcement_does_not_log_failed_removals()
{
    LogCapture log;
    const WatchedRuns runs;
    createDirectoryWithFile("busy");
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/busy");
    createDirectoryWithFile("next");
    ScannedTree::awaitNextChangeTime();
    enforceUntilLast(log);
    QVERIFY(WatchedRuns::fileExists("busy"));
    QVERIFY(!WatchedRuns::fileExists("next"));
    QCOMPARE(log.messages().size(), 1);
}

void CapacityRunsTest::nothing_is_open_while_the_last_records_are_written()
{
    LogCapture log;
    WatchedRuns runs;
    createDirectoryWithFile("a");
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/a");
    log.holdAt("Cannot remove empty directory /media/sdcard/second/a: Device or resource busy");
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    const QStringList open = openOnCard();
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QCOMPARE(open, QStringList());
}

TEST_DEVICE_MAIN(CapacityRunsTest)
#include "CapacityRunsTest.moc"
