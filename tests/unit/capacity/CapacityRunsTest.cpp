#include <thread>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include "LogCapture.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "WatchedCard.h"
#include "WatchedRuns.h"

namespace {

// Lets a held run go on as soon as it is not wanted any more, or, if it stays so, after a while.
std::thread releaseWhenAbandoned(const WatchedRuns& runs, LogCapture& log)
{
    return std::thread([&runs, &log] {
        const QDeadlineTimer deadline(2500);
        while (!runs.isAbandoned() && !deadline.hasExpired()) {
            std::this_thread::yield();
        }
        log.letGo();
    });
}

const QString kCannotRemoveA =
    QStringLiteral("Cannot remove empty directory /media/sdcard/second/a: Device or resource busy");

// Has all files of the second directory removed but one, at which the run is abandoned.
void abandonAtLastFile(WatchedRuns& runs, LogCapture& log)
{
    WatchedRuns::createFile("last");
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/last");
    log.holdAt("Cannot remove file /media/sdcard/second/last: Device or resource busy");
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    std::thread release = releaseWhenAbandoned(runs, log);
    runs.watcher().abandonRuns();
    release.join();
}

// What this process has open on the card.
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

/// Runs in the background.
class CapacityRunsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_run_leaves_the_event_loop_free();
    void the_end_of_a_run_is_told_in_the_watchers_thread();
    void a_run_is_disposed_of_when_it_has_ended();
    void the_directories_are_brought_within_their_limits_in_their_order();
    void a_request_during_a_run_is_fulfilled_at_once();
    void two_runs_at_once_end_well();
    void destruction_ends_a_run_early();
    void an_abandoned_run_leaves_the_next_directories();
    void an_abandoned_run_leaves_the_next_files();
    void an_abandoned_run_tidies_up_100_directories();
    void an_abandoned_run_tidies_up_until_something_fails();
    void a_run_that_tidies_up_holds_no_directory_open();
    void requests_are_fulfilled_after_runs_were_abandoned();
    void a_run_that_does_not_end_is_waited_for_3_seconds();
};

void CapacityRunsTest::a_run_leaves_the_event_loop_free()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    QTimer timer;
    const QSignalSpy timeouts(&timer, &QTimer::timeout);
    timer.start(0);
    QTRY_VERIFY_WITH_TIMEOUT(!timeouts.isEmpty(), 30000);
    QCOMPARE(runs.runs(), 1);
    QVERIFY(WatchedRuns::fileExists());
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(!WatchedRuns::fileExists());
}

void CapacityRunsTest::the_end_of_a_run_is_told_in_the_watchers_thread()
{
    const LogCapture log;
    WatchedRuns runs;
    const CancellationSource source;
    WorkerThread worker(&runs.watcher(), source.token());
    QCOMPARE(QString::fromStdString(worker.logger()->getName()), QString("WorkerThread"));
    QThread* notifiedIn = nullptr;
    connect(&worker, &WorkerThread::done, this,
            [&notifiedIn] { notifiedIn = QThread::currentThread(); });
    worker.start();
    QTRY_VERIFY_WITH_TIMEOUT(notifiedIn != nullptr, 30000);
    QCOMPARE(notifiedIn, QThread::currentThread());
    QVERIFY(worker.wait(30000));
}

void CapacityRunsTest::a_run_is_disposed_of_when_it_has_ended()
{
    const LogCapture log;
    WatchedRuns runs;
    for (int i = 0; i < 3; ++i) {
        runs.watcher().startEnsureDirSizeAllAsThread();
        const QPointer<WorkerThread> worker = runs.watcher().findChild<WorkerThread*>();
        QVERIFY(!worker.isNull());
        QVERIFY(runs.waitForEnd());
        QVERIFY(worker.isNull());
    }
}

void CapacityRunsTest::the_directories_are_brought_within_their_limits_in_their_order()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QCOMPARE(log.messages(), (QStringList{WatchedRuns::kReport, WatchedRuns::kSecondReport}));
    WatchedRuns::createFile();
    runs.watcher().startEnsureDirSizeAllAsThread();
    QVERIFY(runs.waitForEnd());
    QVERIFY(!WatchedRuns::fileExists());
}

void CapacityRunsTest::a_request_during_a_run_is_fulfilled_at_once()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    QVERIFY(runs.watcher().ensureDirSize("second"));
    QVERIFY(!WatchedRuns::fileExists());
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
}

void CapacityRunsTest::two_runs_at_once_end_well()
{
    LogCapture log;
    WatchedRuns runs;
    for (int i = 0; i < 200; ++i) {
        WatchedRuns::createFile(QByteArray::number(i));
    }
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    runs.watcher().storageIsReady();
    QCOMPARE(runs.runs(), 2);
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
    QCOMPARE(ScannedTree::list(WatchedRuns::kSecond).size(), 1);
    QCOMPARE(log.messages().count(WatchedRuns::kReport), 2);
}

void CapacityRunsTest::destruction_ends_a_run_early()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    std::thread release = releaseWhenAbandoned(runs, log);
    runs.destroyWatcher();
    release.join();
    QVERIFY(WatchedRuns::fileExists());
    QCOMPARE(log.messages(), QStringList{WatchedRuns::kReport});
}

void CapacityRunsTest::an_abandoned_run_leaves_the_next_directories()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    std::thread release = releaseWhenAbandoned(runs, log);
    runs.watcher().abandonRuns();
    const bool isFinished = runs.watcher().findChild<WorkerThread*>()->isFinished();
    release.join();
    QVERIFY(isFinished);
    QVERIFY(runs.waitForEnd());
    QVERIFY(WatchedRuns::fileExists());
    QCOMPARE(log.messages(), QStringList{WatchedRuns::kReport});
}

void CapacityRunsTest::an_abandoned_run_leaves_the_next_files()
{
    LogCapture log;
    WatchedRuns runs;
    ScannedTree::createDirectory(WatchedRuns::kSecond + "/a");
    WatchedRuns::createFile("a/1");
    ScannedTree::awaitNextChangeTime();
    WatchedRuns::createFile("2");
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/2");
    ScannedTree::awaitNextChangeTime();
    WatchedRuns::createFile("3");
    log.holdAt("Cannot remove file /media/sdcard/second/2: Device or resource busy");
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    std::thread release = releaseWhenAbandoned(runs, log);
    runs.watcher().abandonRuns();
    release.join();
    QVERIFY(!WatchedRuns::fileExists("a/1"));
    QVERIFY(WatchedRuns::fileExists("2"));
    QVERIFY(WatchedRuns::fileExists("3"));
    // No later run would come back to the directory that has been emptied.
    QVERIFY(!WatchedRuns::fileExists("a"));
}

void CapacityRunsTest::an_abandoned_run_tidies_up_100_directories()
{
    LogCapture log;
    WatchedRuns runs;
    for (int i = 0; i < 120; ++i) {
        const QByteArray name = "dir " + QByteArray::number(i);
        ScannedTree::createDirectory(WatchedRuns::kSecond + "/" + name);
        WatchedRuns::createFile(name + "/file");
    }
    ScannedTree::awaitNextChangeTime();
    abandonAtLastFile(runs, log);
    QCOMPARE(ScannedTree::list(WatchedRuns::kSecond).size(), 1 + 20 + 1);
}

void CapacityRunsTest::an_abandoned_run_tidies_up_until_something_fails()
{
    LogCapture log;
    WatchedRuns runs;
    for (const QByteArray name : {"a", "b"}) {
        ScannedTree::createDirectory(WatchedRuns::kSecond + "/" + name);
        WatchedRuns::createFile(name + "/file");
        ScannedTree::awaitNextChangeTime();
    }
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/a");
    abandonAtLastFile(runs, log);
    QCOMPARE(log.messages().last(), kCannotRemoveA);
    QVERIFY(WatchedRuns::fileExists("b"));
    QVERIFY(!WatchedRuns::fileExists("b/file"));
}

void CapacityRunsTest::a_run_that_tidies_up_holds_no_directory_open()
{
    LogCapture log;
    WatchedRuns runs;
    ScannedTree::createDirectory(WatchedRuns::kSecond + "/a");
    WatchedRuns::createFile("a/file");
    WatchedCard::makeBusy(WatchedRuns::kSecond + "/a");
    log.holdAt(kCannotRemoveA);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    const QStringList open = openOnCard();
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QCOMPARE(open, QStringList());
}

void CapacityRunsTest::requests_are_fulfilled_after_runs_were_abandoned()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().updateWatchDirs();
    runs.watcher().abandonRuns();
    WatchedRuns::createFile();
    QVERIFY(runs.watcher().ensureDirSize("second"));
    QVERIFY(!WatchedRuns::fileExists());
    WatchedRuns::createFile();
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QVERIFY(!WatchedRuns::fileExists());
}

void CapacityRunsTest::a_run_that_does_not_end_is_waited_for_3_seconds()
{
    LogCapture log;
    WatchedRuns runs;
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    QElapsedTimer time;
    time.start();
    runs.watcher().abandonRuns();
    QVERIFY(time.elapsed() >= 2990);
    log.letGo();
    QVERIFY(runs.waitForEnd());
}

TEST_DEVICE_MAIN(CapacityRunsTest)
#include "CapacityRunsTest.moc"
