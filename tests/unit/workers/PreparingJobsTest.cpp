#include <QDir>
#include <QTest>

#include "CardConfig.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "StatePreparing.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

namespace {

const QString kCard = QStringLiteral("/media/sdcard");
const QString kDoubled = QStringLiteral("/media/sdcard/csv/media/sdcard/csv");
const QString kMove = QStringLiteral("/bin/mv");
const QString kRemove = QStringLiteral("/bin/rm");
const QByteArray kBoth = "<dir size='10'>logger</dir><dir size='10'>csv</dir>";
const QStringList kLoggerItems{"/PindleLogger.db", "/PindleLogger.db-journal", "/LoggerFiles"};

const QString kInfo = QStringLiteral("INFO St:Preparing StatePreparing: ");
const QString kError = QStringLiteral("ERROR St:Preparing StatePreparing: ");
const QString kLoggerDirectory = kInfo + "Logger directory is '/media/sdcard/logger'";
const QString kCsvStart = kInfo + "move File From " + kDoubled + " to /media/sdcard/csv";
const QString kCsvMoved = kInfo + "Succesffully moved csv files into new location";
const QString kCsvDelete = kInfo + "Delete old Folder: /media/sdcard/csv/media";

/// The jobs of a worker that is not started.
class Jobs
{
public:
    explicit Jobs(const QByteArray& children) : mConfig(CardConfig::withChildren(children)) {}

    QStringList relocateDatabase(const QString& mountPoint = kCard)
    {
        const LogCapture log;
        mWorker.prepareJobRelocateDatabase(mountPoint);
        mErrors = log.errorCount();
        return describe(log.records());
    }

    QStringList relocateCsv(const QString& mountPoint = kCard)
    {
        const LogCapture log;
        mWorker.prepareJobRelocateCsv(mountPoint);
        mErrors = log.errorCount();
        return describe(log.records());
    }

    /// Counted by the last job.
    unsigned int errors() const { return mErrors; }
    const ThreadPreparing& worker() const { return mWorker; }

private:
    ConfigHandler mConfig;
    ThreadPreparing mWorker{mConfig, nullptr};
    unsigned int mErrors = 0;
};

} // namespace

/// The jobs that move other services' data to where they belong on the card.
class PreparingJobsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void each_of_the_loggers_items_is_moved_data();
    void each_of_the_loggers_items_is_moved();
    void all_of_the_loggers_items_are_moved_in_their_order();
    void an_item_that_is_there_already_is_not_overwritten();
    void an_item_that_cannot_be_moved_is_reported_and_the_next_is_tried();
    void failures_count_where_their_level_is_off();
    void without_a_directory_for_it_nothing_is_moved();
    void paths_are_not_for_the_shell();
    void csv_files_are_moved_out_of_the_doubled_path();
    void without_a_doubled_path_nothing_is_logged();
    void csv_files_that_cannot_be_moved_stay();
    void files_that_were_left_keep_the_doubled_tree_data();
    void files_that_were_left_keep_the_doubled_tree();
    void a_doubled_tree_that_cannot_be_removed_is_reported();
    void the_doubled_trees_top_is_fixed();

private:
    QByteArray mMoveTool;
    QByteArray mRemoveTool;
};

void PreparingJobsTest::initTestCase()
{
    mMoveTool = TestDevice::readFile(kMove);
    mRemoveTool = TestDevice::readFile(kRemove);
    QVERIFY(!mMoveTool.isEmpty() && !mRemoveTool.isEmpty());
}

void PreparingJobsTest::init()
{
    QVERIFY(QDir().mkpath(kCard + "/logger"));
    QVERIFY(QDir().mkpath(kCard + "/csv"));
}

void PreparingJobsTest::cleanup()
{
    // In the place of stand-ins.
    TestDevice::writeScript(kMove, mMoveTool);
    TestDevice::writeScript(kRemove, mRemoveTool);
    TestDevice::remove("/media");
    TestDevice::remove("/cards");
}

void PreparingJobsTest::each_of_the_loggers_items_is_moved_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("description");
    QTest::newRow("database") << "/PindleLogger.db"
                              << "logger database";
    QTest::newRow("journal") << "/PindleLogger.db-journal"
                             << "logger database journal";
    QTest::newRow("folder") << "/LoggerFiles/file"
                            << "logger files folder";
}

void PreparingJobsTest::each_of_the_loggers_items_is_moved()
{
    QFETCH(const QString, path);
    QFETCH(const QString, description);
    TestDevice::writeFile(kCard + path, "content");
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateDatabase(),
             (QStringList{kLoggerDirectory,
                          kInfo + "Succesffully moved " + description + " into new location"}));
    QCOMPARE(TestDevice::readFile(kCard + "/logger" + path), QByteArray("content"));
    QVERIFY(!QFile::exists(kCard + path));
    QCOMPARE(jobs.errors(), 0U);
    // Once more there is nothing left to do.
    QCOMPARE(jobs.relocateDatabase(), QStringList{kLoggerDirectory});
}

void PreparingJobsTest::all_of_the_loggers_items_are_moved_in_their_order()
{
    for (const char* const name : {"/LoggerFiles/a/b", "/PindleLogger.db-journal",
                                   "/PindleLogger.db", "/PindleLogger.other"}) {
        TestDevice::writeFile(kCard + name, "content");
    }
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateDatabase(),
             (QStringList{
                 kLoggerDirectory,
                 kInfo + "Succesffully moved logger database into new location",
                 kInfo + "Succesffully moved logger database journal into new location",
                 kInfo + "Succesffully moved logger files folder into new location",
             }));
    QVERIFY(QFile::exists(kCard + "/logger/LoggerFiles/a/b"));
    QVERIFY(QFile::exists(kCard + "/PindleLogger.other"));
}

void PreparingJobsTest::an_item_that_is_there_already_is_not_overwritten()
{
    for (const QString& item : kLoggerItems) {
        TestDevice::writeFile(kCard + item, "old");
        TestDevice::writeFile(kCard + "/logger" + item, "new");
    }
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateDatabase(), QStringList{kLoggerDirectory});
    for (const QString& item : kLoggerItems) {
        QCOMPARE(TestDevice::readFile(kCard + item), QByteArray("old"));
        QCOMPARE(TestDevice::readFile(kCard + "/logger" + item), QByteArray("new"));
    }
}

void PreparingJobsTest::an_item_that_cannot_be_moved_is_reported_and_the_next_is_tried()
{
    for (const QString& item : kLoggerItems) {
        TestDevice::writeFile(kCard + item, "content");
    }
    ToolStandIn::place(kMove, "exit 1");
    ToolStandIn::takeCalls();
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateDatabase(),
             (QStringList{
                 kLoggerDirectory,
                 kError + "Failed to moved logger database into new location",
                 kError + "Failed to moved logger database journal into new location",
                 kError + "Failed to moved logger files folder into new location",
             }));
    QCOMPARE(jobs.errors(), 3U);
    QCOMPARE(ToolStandIn::takeCalls(),
             (QStringList{
                 "mv /media/sdcard/PindleLogger.db /media/sdcard/logger/PindleLogger.db",
                 "mv /media/sdcard/PindleLogger.db-journal "
                 "/media/sdcard/logger/PindleLogger.db-journal",
                 "mv /media/sdcard/LoggerFiles /media/sdcard/logger/LoggerFiles",
             }));
}

void PreparingJobsTest::failures_count_where_their_level_is_off()
{
    TestDevice::writeFile(kCard + "/PindleLogger.db", "content");
    QVERIFY(QDir().mkpath(kDoubled));
    ToolStandIn::place(kMove, "exit 1");
    const Jobs jobs(kBoth);
    const LogCapture log(LogLevel::Off);
    jobs.worker().prepareJobRelocateDatabase(kCard);
    QCOMPARE(log.errorCount(), 1U);
    jobs.worker().prepareJobRelocateCsv(kCard);
    QCOMPARE(log.errorCount(), 2U);
    QCOMPARE(log.messages(), QStringList());
}

void PreparingJobsTest::without_a_directory_for_it_nothing_is_moved()
{
    TestDevice::writeFile(kCard + "/PindleLogger.db", "content");
    TestDevice::writeFile(kDoubled + "/day/file", "content");
    Jobs jobs("<dir size='10'>Logger</dir><dir size='10'>CSV</dir>");
    QCOMPARE(jobs.relocateDatabase(), QStringList());
    QCOMPARE(jobs.relocateCsv(), QStringList());
    QVERIFY(QFile::exists(kCard + "/PindleLogger.db"));
    QVERIFY(QFile::exists(kDoubled + "/day/file"));
}

void PreparingJobsTest::paths_are_not_for_the_shell()
{
    TestDevice::writeFile("/cards/my $(card)/PindleLogger.db", "content");
    QVERIFY(QDir().mkpath("/cards/my $(card)/data; of/logger"));
    Jobs jobs("<dir size='50'>data; of<dir size='10'>logger</dir></dir>");
    QCOMPARE(jobs.relocateDatabase("/cards/my $(card)"),
             (QStringList{
                 kInfo + "Logger directory is '/cards/my $(card)/data; of/logger'",
                 kInfo + "Succesffully moved logger database into new location",
             }));
    QVERIFY(QFile::exists("/cards/my $(card)/data; of/logger/PindleLogger.db"));
}

void PreparingJobsTest::csv_files_are_moved_out_of_the_doubled_path()
{
    for (const char* const name :
         {"/day1/a.csv", "/day1/b.csv", "/day2/c.csv", "/day2/sub/d.csv"}) {
        TestDevice::writeFile(kDoubled + name, name);
    }
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateCsv(), (QStringList{kCsvStart, kCsvMoved, kCsvDelete,
                                              kInfo + "Succesffully removed old csv directory"}));
    QCOMPARE(QDir(kCard + "/csv").entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             (QStringList{"a.csv", "b.csv", "c.csv", "sub"}));
    QCOMPARE(TestDevice::readFile(kCard + "/csv/sub/d.csv"), QByteArray("/day2/sub/d.csv"));
    QCOMPARE(jobs.errors(), 0U);
    QCOMPARE(jobs.relocateCsv(), QStringList());
}

void PreparingJobsTest::without_a_doubled_path_nothing_is_logged()
{
    TestDevice::writeFile(kCard + "/csv/media/sdcard/other/day/file", "content");
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateCsv(), QStringList());
    QVERIFY(QFile::exists(kCard + "/csv/media/sdcard/other/day/file"));
}

void PreparingJobsTest::csv_files_that_cannot_be_moved_stay()
{
    TestDevice::writeFile(kDoubled + "/day/file", "content");
    ToolStandIn::place(kMove, "exit 1");
    ToolStandIn::takeCalls();
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateCsv(),
             (QStringList{kCsvStart, kError + "Failed moveing csv files into new location"}));
    QCOMPARE(jobs.errors(), 1U);
    QCOMPARE(ToolStandIn::takeCalls(),
             QStringList{"mv " + kDoubled + "/day/file /media/sdcard/csv"});
    QVERIFY(QFile::exists(kDoubled + "/day/file"));
}

void PreparingJobsTest::files_that_were_left_keep_the_doubled_tree_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<int>("records");
    QTest::newRow("a file") << QStringList{"/day1/a"} << 1;
    QTest::newRow("two in one directory") << QStringList{"/day1/a", "/day1/b"} << 1;
    QTest::newRow("in two directories") << QStringList{"/day1/a", "/day2/b", "/day3/sub/c"} << 2;
}

void PreparingJobsTest::files_that_were_left_keep_the_doubled_tree()
{
    QFETCH(const QStringList, files);
    QFETCH(const int, records);
    for (const QString& file : files) {
        TestDevice::writeFile(kDoubled + file, "content");
    }
    // It says that it moved them.
    ToolStandIn::place(kMove, "exit 0");
    Jobs jobs(kBoth);
    QStringList expected{kCsvStart, kCsvMoved};
    for (int i = 0; i < records; ++i) {
        expected.append(kError + "old Dirs are not emtpy");
    }
    QCOMPARE(jobs.relocateCsv(), expected);
    QCOMPARE(jobs.errors(), static_cast<unsigned int>(records));
    for (const QString& file : files) {
        QVERIFY(QFile::exists(kDoubled + file));
    }
}

void PreparingJobsTest::a_doubled_tree_that_cannot_be_removed_is_reported()
{
    TestDevice::writeFile(kDoubled + "/day/file", "content");
    ToolStandIn::place(kRemove, "exit 1");
    ToolStandIn::takeCalls();
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateCsv(), (QStringList{kCsvStart, kCsvMoved, kCsvDelete,
                                              kError + "Failed removeing old csv directory"}));
    QCOMPARE(jobs.errors(), 1U);
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"rm -r /media/sdcard/csv/media"});
    QVERIFY(QFile::exists(kCard + "/csv/file"));
}

void PreparingJobsTest::the_doubled_trees_top_is_fixed()
{
    const QString doubled = "/cards/1/csv/cards/1/csv";
    TestDevice::writeFile(doubled + "/day/file", "content");
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateCsv("/cards/1"),
             (QStringList{
                 kInfo + "move File From " + doubled + " to /cards/1/csv",
                 kCsvMoved,
                 kInfo + "Delete old Folder: /cards/1/csv/media",
                 kError + "Failed removeing old csv directory",
             }));
    QVERIFY(QFile::exists("/cards/1/csv/file"));
    QVERIFY(QFile::exists(doubled + "/day"));
}

TEST_DEVICE_MAIN(PreparingJobsTest)
#include "PreparingJobsTest.moc"
