#include <QDir>
#include <QTest>

#include "CardConfig.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "StatePreparing.h"
#include "TestDevice.h"

namespace {

const QString kCard = QStringLiteral("/media/sdcard");
const QString kDoubled = QStringLiteral("/media/sdcard/csv/media/sdcard/csv");
constexpr qint64 kCardSize = 1048576;
const QString kMove = QStringLiteral("/bin/mv");
const QByteArray kBoth = "<dir size='10'>logger</dir><dir size='10'>csv</dir>";

const QString kInfo = QStringLiteral("INFO St:Preparing StatePreparing: ");
const QString kError = QStringLiteral("ERROR St:Preparing StatePreparing: ");
const QString kLoggerDirectory = kInfo + "Logger directory is '/media/sdcard/logger'";
const QString kCsvStart = kInfo + "move File From " + kDoubled + " to /media/sdcard/csv";
const QString kCsvMoved = kInfo + "Succesffully moved csv files into new location";

/// The jobs of a worker that was not started.
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

/// Moves of other services' data to their places on the card.
class PreparingJobsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void a_move_that_does_not_succeed_is_reported_data();
    void a_move_that_does_not_succeed_is_reported();
    void failures_count_even_if_their_level_is_off();
    void the_shell_does_not_interpret_paths();
    void csv_may_be_nested_in_another_directory();
    void the_doubled_trees_top_is_fixed();
    void links_to_other_places_on_the_card_are_followed();
    void csv_files_are_not_moved_off_the_card();

private:
    QByteArray mMoveTool;
};

void PreparingJobsTest::initTestCase()
{
    mMoveTool = TestDevice::readFile(kMove);
    QVERIFY(!mMoveTool.isEmpty());
}

void PreparingJobsTest::init()
{
    QVERIFY(TestDevice::mountTmpfs(kCard, kCardSize));
}

void PreparingJobsTest::cleanup()
{
    // Replaces the stand-in.
    TestDevice::writeScript(kMove, mMoveTool);
    TestDevice::unmountAll(kCard);
    TestDevice::remove("/media");
    TestDevice::remove("/cards");
    TestDevice::remove("/outside");
}

void PreparingJobsTest::a_move_that_does_not_succeed_is_reported_data()
{
    QTest::addColumn<QByteArray>("tool");
    QTest::newRow("fails") << QByteArray("#!/bin/sh\nexit 1\n");
    QTest::newRow("crashes") << QByteArray("#!/bin/sh\nkill -SEGV $$\n");
    QTest::newRow("cannot be started") << QByteArray("#!/nowhere/interpreter\n");
}

void PreparingJobsTest::a_move_that_does_not_succeed_is_reported()
{
    QFETCH(const QByteArray, tool);
    TestDevice::writeFile(kCard + "/PindleLogger.db", "content");
    TestDevice::writeFile(kCard + "/LoggerFiles/a", "content");
    TestDevice::writeFile(kDoubled + "/day/file", "content");
    TestDevice::writeScript(kMove, tool);
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateDatabase(),
             (QStringList{
                 kLoggerDirectory,
                 kError + "Failed to moved logger database into new location",
                 kError + "Failed to moved logger files folder into new location",
             }));
    QCOMPARE(jobs.errors(), 2U);
    QCOMPARE(jobs.relocateCsv(),
             (QStringList{kCsvStart, kError + "Failed moveing csv files into new location"}));
    QCOMPARE(jobs.errors(), 1U);
    QVERIFY(QFile::exists(kDoubled + "/day/file"));
}

void PreparingJobsTest::failures_count_even_if_their_level_is_off()
{
    TestDevice::writeFile(kCard + "/PindleLogger.db", "content");
    QVERIFY(QDir().mkpath(kDoubled));
    TestDevice::writeScript(kMove, "#!/bin/sh\nexit 1\n");
    const Jobs jobs(kBoth);
    const LogCapture log(LogLevel::Off);
    jobs.worker().prepareJobRelocateDatabase(kCard);
    QCOMPARE(log.errorCount(), 1U);
    jobs.worker().prepareJobRelocateCsv(kCard);
    QCOMPARE(log.errorCount(), 2U);
    QCOMPARE(log.messages(), QStringList());
}

void PreparingJobsTest::the_shell_does_not_interpret_paths()
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

void PreparingJobsTest::csv_may_be_nested_in_another_directory()
{
    const QString doubled = kCard + "/data/csv" + kCard + "/data/csv";
    TestDevice::writeFile(doubled + "/day/file", "content");
    Jobs jobs("<dir size='50'>data<dir size='10'>csv</dir></dir>");
    QCOMPARE(jobs.relocateCsv(),
             (QStringList{
                 kInfo + "move File From " + doubled + " to /media/sdcard/data/csv",
                 kCsvMoved,
                 kInfo + "Delete old Folder: /media/sdcard/data/csv/media",
                 kInfo + "Succesffully removed old csv directory",
             }));
    QCOMPARE(QDir(kCard + "/data/csv").entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{"file"});
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

void PreparingJobsTest::links_to_other_places_on_the_card_are_followed()
{
    QVERIFY(QDir().mkpath(kCard + "/data"));
    TestDevice::writeFile(kCard + "/PindleLogger.db", "content");
    TestDevice::writeFile(kCard + "/days/a.csv", "content");
    QVERIFY(QDir().mkpath(kDoubled));
    QVERIFY(QFile::link("data", kCard + "/logger"));
    QVERIFY(QFile::link("/media/sdcard/days", kDoubled + "/day"));
    // Not a directory, so nothing is moved from it.
    QVERIFY(QFile::link("/etc/passwd", kDoubled + "/users"));
    Jobs jobs(kBoth);
    jobs.relocateDatabase();
    jobs.relocateCsv();
    QVERIFY(QFile::exists(kCard + "/data/PindleLogger.db"));
    QVERIFY(QFile::exists(kCard + "/csv/a.csv"));
}

void PreparingJobsTest::csv_files_are_not_moved_off_the_card()
{
    // The link for the directory leads off the card, and another link leads back.
    TestDevice::writeFile(kCard + "/days/day/file", "content");
    QVERIFY(QDir().mkpath("/outside/media/sdcard"));
    QVERIFY(QFile::link(kCard + "/days", "/outside/media/sdcard/csv"));
    QVERIFY(QFile::link("/outside", kCard + "/csv"));
    Jobs jobs(kBoth);
    QCOMPARE(jobs.relocateCsv(),
             QStringList{kError + "Leaving '/media/sdcard/csv' alone: it is not on the card"});
    QCOMPARE(jobs.errors(), 1U);
    QVERIFY(QFile::exists(kCard + "/days/day/file"));
}

TEST_DEVICE_MAIN(PreparingJobsTest)
#include "PreparingJobsTest.moc"
