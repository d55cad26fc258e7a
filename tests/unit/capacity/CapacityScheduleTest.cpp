#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include "LogCapture.h"
#include "TestDevice.h"
#include "WatchedRuns.h"

namespace {

const QString kIntervalFile = QStringLiteral("/etc/scw_interval");
constexpr int kThreeHoursMs = 3 * 60 * 60 * 1000;

} // namespace

/// When directories are brought within their limits.
class CapacityScheduleTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();
    void runs_are_3_hours_apart_by_default();
    void a_positive_number_in_the_file_is_the_interval_data();
    void a_positive_number_in_the_file_is_the_interval();
    void the_interval_counts_from_the_end_of_a_run();
    void each_timeout_starts_a_run_that_starts_the_timer();
    void a_run_that_ends_without_a_card_is_the_last();
    void a_running_timer_is_not_restarted();
    void an_unmounted_card_has_neither_a_next_run_nor_watched_directories();
    void ready_without_a_card_keeps_the_list_and_starts_a_run_that_does_nothing();
};

void CapacityScheduleTest::cleanup()
{
    TestDevice::remove(kIntervalFile);
}

void CapacityScheduleTest::runs_are_3_hours_apart_by_default()
{
    const LogCapture log;
    WatchedRuns runs;
    QCOMPARE(runs.timer().interval(), kThreeHoursMs);
    QVERIFY(runs.timer().isSingleShot());
    QVERIFY(!runs.timer().isActive());
    QCOMPARE(runs.runs(), 0);
    QVERIFY(QDir().mkpath(kIntervalFile));
    const StorageCapacityWatcher other(runs.config());
    QCOMPARE(other.findChild<QTimer*>()->interval(), kThreeHoursMs);
    QCOMPARE(log.messages(), QStringList());
}

void CapacityScheduleTest::a_positive_number_in_the_file_is_the_interval_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("interval");
    const auto row = [](const char* name, const QByteArray& content, int interval) {
        QTest::newRow(name) << content << interval;
    };
    row("line", "60000\n", 60000);
    row("without a line break", "60000", 60000);
    row("line of another system", "60000\r\n", 60000);
    row("white space around it", " \t\n 17 \n\n", 17);
    row("largest", "2147483647", 2147483647);
    row("word", "abc", 0);
    row("0", "0", 0);
    row("negative", "-5", 0);
    row("empty", "", 0);
    row("hexadecimal", "0x10", 0);
    row("fraction", "10.5", 0);
    row("too large", "2147483648", 0);
    row("beyond 32 bits", "99999999999", 0);
}

void CapacityScheduleTest::a_positive_number_in_the_file_is_the_interval()
{
    QFETCH(const QByteArray, content);
    QFETCH(const int, interval);
    TestDevice::writeFile(kIntervalFile, content);
    const LogCapture log;
    WatchedRuns runs;
    // The file is read once.
    TestDevice::writeFile(kIntervalFile, "70000");
    QCOMPARE(runs.timer().interval(), interval > 0 ? interval : kThreeHoursMs);
    QVERIFY(!runs.timer().isActive());
    const QString message =
        QString("Use special Storage Capacity Watcher interval of %1 ms").arg(interval);
    QCOMPARE(log.messages(LogLevel::Info), interval > 0 ? QStringList{message} : QStringList());
    QCOMPARE(log.records().size(), interval > 0 ? 1 : 0);
}

void CapacityScheduleTest::the_interval_counts_from_the_end_of_a_run()
{
    LogCapture log;
    WatchedRuns runs;
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    QTest::qWait(50);
    QVERIFY(!runs.timer().isActive());
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
    QCOMPARE(runs.timer().interval(), kThreeHoursMs);
}

void CapacityScheduleTest::each_timeout_starts_a_run_that_starts_the_timer()
{
    TestDevice::writeFile(kIntervalFile, "1");
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    for (int i = 0; i < 3; ++i) {
        WatchedRuns::createFile();
        QTRY_VERIFY_WITH_TIMEOUT(!WatchedRuns::fileExists(), 30000);
        // Never two at the same time.
        QVERIFY(runs.runs() <= 1);
    }
}

void CapacityScheduleTest::a_run_that_ends_without_a_card_is_the_last()
{
    LogCapture log;
    WatchedRuns runs;
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QVERIFY(log.waitUntilHeld());
    WatchedRuns::unmountCard();
    // The mount point's directory is not the card.
    QVERIFY(QDir().mkpath(WatchedRuns::kSecond));
    WatchedRuns::createFile();
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(!runs.timer().isActive());
    QVERIFY(WatchedRuns::fileExists());
    QCOMPARE(log.messages(),
             (QStringList{WatchedRuns::kReport, "/media/sdcard/second is not on the card"}));
}

void CapacityScheduleTest::a_running_timer_is_not_restarted()
{
    WatchedRuns runs;
    runs.watcher().ensureDirSizeAllDone();
    QVERIFY(runs.timer().isActive());
    const int id = runs.timer().timerId();
    runs.watcher().ensureDirSizeAllDone();
    QCOMPARE(runs.timer().timerId(), id);
}

void CapacityScheduleTest::an_unmounted_card_has_neither_a_next_run_nor_watched_directories()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
    QVERIFY(runs.watcher().ensureDirSize("second"));
    runs.watcher().storageIsUnmounted();
    QVERIFY(!runs.timer().isActive());
    QVERIFY(!runs.watcher().ensureDirSize("second"));
}

void CapacityScheduleTest::ready_without_a_card_keeps_the_list_and_starts_a_run_that_does_nothing()
{
    WatchedRuns runs;
    runs.watcher().updateWatchDirs();
    WatchedRuns::unmountCard();
    const LogCapture log;
    runs.watcher().storageIsReady();
    QCOMPARE(runs.runs(), 1);
    QVERIFY(runs.waitForEnd());
    QVERIFY(!runs.timer().isActive());
    QCOMPARE(log.messages(), QStringList());
    WatchedRuns::mountCard();
    QVERIFY(runs.watcher().ensureDirSize("second"));
}

TEST_DEVICE_MAIN(CapacityScheduleTest)
#include "CapacityScheduleTest.moc"
