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
    void a_file_can_tell_another_interval_data();
    void a_file_can_tell_another_interval();
    void another_interval_is_told_in_the_log();
    void what_is_no_interval_is_passed_over_data();
    void what_is_no_interval_is_passed_over();
    void an_interval_file_that_is_a_directory_is_passed_over();
    void the_interval_is_read_once();
    void a_ready_card_is_looked_at_at_once_and_then_after_the_interval();
    void each_run_is_followed_by_another();
    void a_run_that_ends_without_a_card_is_the_last();
    void a_timer_that_runs_is_not_started_anew();
    void an_unmounted_card_is_not_looked_at_again();
    void the_directories_of_an_unmounted_card_are_forgotten();
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
    QCOMPARE(log.messages(), QStringList());
}

void CapacityScheduleTest::a_file_can_tell_another_interval_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("interval");
    QTest::newRow("line") << QByteArray("60000\n") << 60000;
    QTest::newRow("without a line break") << QByteArray("60000") << 60000;
    QTest::newRow("line of another system") << QByteArray("60000\r\n") << 60000;
    QTest::newRow("white space around it") << QByteArray(" \t\n 17 \n\n") << 17;
    QTest::newRow("smallest") << QByteArray("1") << 1;
    QTest::newRow("leading zeros") << QByteArray("0010") << 10;
    QTest::newRow("largest") << QByteArray("2147483647") << 2147483647;
}

void CapacityScheduleTest::a_file_can_tell_another_interval()
{
    QFETCH(const QByteArray, content);
    QFETCH(const int, interval);
    TestDevice::writeFile(kIntervalFile, content);
    const LogCapture log;
    WatchedRuns runs;
    QCOMPARE(runs.timer().interval(), interval);
    QVERIFY(!runs.timer().isActive());
    QCOMPARE(log.messages(),
             QStringList{
                 QString("Use special Storage Capacity Watcher interval of %1 ms").arg(interval)});
}

void CapacityScheduleTest::another_interval_is_told_in_the_log()
{
    TestDevice::writeFile(kIntervalFile, "60000\n");
    const LogCapture log;
    WatchedRuns runs;
    QCOMPARE(log.records().size(), 1);
    const LogRecord record = log.records().at(0);
    QCOMPARE(record.level, LogLevel::Info);
    QCOMPARE(record.message, QString("Use special Storage Capacity Watcher interval of 60000 ms"));
    QCOMPARE(record.channel, QString("StorageCapacityWatcher"));
    QCOMPARE(record.source, QString("StorageCapacityWatcher"));
    QVERIFY(record.function.startsWith("StorageCapacityWatcher::StorageCapacityWatcher(const "));
}

void CapacityScheduleTest::what_is_no_interval_is_passed_over_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("word") << QByteArray("abc");
    QTest::newRow("0") << QByteArray("0");
    QTest::newRow("negative") << QByteArray("-5");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("blank") << QByteArray(" \n");
    QTest::newRow("unit") << QByteArray("60000 ms");
    QTest::newRow("two numbers") << QByteArray("1 2");
    QTest::newRow("hexadecimal") << QByteArray("0x10");
    QTest::newRow("fraction") << QByteArray("10.5");
    QTest::newRow("exponent") << QByteArray("1.5e3");
    QTest::newRow("two lines") << QByteArray("1000\n1000");
    QTest::newRow("too large") << QByteArray("2147483648");
    QTest::newRow("beyond 32 bits") << QByteArray("99999999999");
    QTest::newRow("zero bytes") << QByteArray(100, '\0');
    QTest::newRow("long") << QByteArray(100'000, '9');
}

void CapacityScheduleTest::what_is_no_interval_is_passed_over()
{
    QFETCH(const QByteArray, content);
    TestDevice::writeFile(kIntervalFile, content);
    const LogCapture log;
    WatchedRuns runs;
    QCOMPARE(runs.timer().interval(), kThreeHoursMs);
    QCOMPARE(log.messages(), QStringList());
}

void CapacityScheduleTest::an_interval_file_that_is_a_directory_is_passed_over()
{
    QVERIFY(QDir().mkpath(kIntervalFile));
    const LogCapture log;
    WatchedRuns runs;
    QCOMPARE(runs.timer().interval(), kThreeHoursMs);
    QCOMPARE(log.messages(), QStringList());
}

void CapacityScheduleTest::the_interval_is_read_once()
{
    TestDevice::writeFile(kIntervalFile, "60000");
    LogCapture log;
    WatchedRuns runs;
    log.take();
    TestDevice::writeFile(kIntervalFile, "70000");
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QCOMPARE(runs.timer().interval(), 60000);
    QCOMPARE(log.messages(), (QStringList{WatchedRuns::kReport, WatchedRuns::kSecondReport}));
}

void CapacityScheduleTest::a_ready_card_is_looked_at_at_once_and_then_after_the_interval()
{
    LogCapture log;
    WatchedRuns runs;
    WatchedRuns::createFile();
    log.holdAt(WatchedRuns::kReport);
    runs.watcher().storageIsReady();
    QCOMPARE(runs.runs(), 1);
    QVERIFY(log.waitUntilHeld());
    // The interval counts from the end of the run.
    QCoreApplication::processEvents();
    QVERIFY(!runs.timer().isActive());
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(!WatchedRuns::fileExists());
    QVERIFY(runs.timer().isActive());
    QCOMPARE(runs.timer().interval(), kThreeHoursMs);
}

void CapacityScheduleTest::each_run_is_followed_by_another()
{
    TestDevice::writeFile(kIntervalFile, "1");
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    for (int i = 0; i < 5; ++i) {
        WatchedRuns::createFile();
        QTRY_VERIFY_WITH_TIMEOUT(!WatchedRuns::fileExists(), 30000);
        // One after the other, never two.
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
    runs.watcher().storageIsUnmounted();
    WatchedRuns::unmountCard();
    // What is at the mount point now is not the card's.
    QVERIFY(QDir().mkpath(WatchedRuns::kSecond));
    WatchedRuns::createFile();
    log.letGo();
    QVERIFY(runs.waitForEnd());
    QVERIFY(!runs.timer().isActive());
    QVERIFY(WatchedRuns::fileExists());
    QCOMPARE(log.messages(),
             (QStringList{WatchedRuns::kReport, "/media/sdcard/second is not on the card"}));
}

void CapacityScheduleTest::a_timer_that_runs_is_not_started_anew()
{
    WatchedRuns runs;
    runs.watcher().ensureDirSizeAllDone();
    QVERIFY(runs.timer().isActive());
    const int id = runs.timer().timerId();
    runs.watcher().ensureDirSizeAllDone();
    QCOMPARE(runs.timer().timerId(), id);
}

void CapacityScheduleTest::an_unmounted_card_is_not_looked_at_again()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().storageIsReady();
    QVERIFY(runs.waitForEnd());
    QVERIFY(runs.timer().isActive());
    runs.watcher().storageIsUnmounted();
    QVERIFY(!runs.timer().isActive());
}

void CapacityScheduleTest::the_directories_of_an_unmounted_card_are_forgotten()
{
    const LogCapture log;
    WatchedRuns runs;
    runs.watcher().updateWatchDirs();
    QVERIFY(runs.watcher().ensureDirSize("second"));
    runs.watcher().storageIsUnmounted();
    QVERIFY(!runs.watcher().ensureDirSize("second"));
    WatchedRuns::createFile();
    runs.watcher().ensureDirSizeAll();
    QVERIFY(WatchedRuns::fileExists());
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
