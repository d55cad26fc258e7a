#include <QCoreApplication>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include "CardConfig.h"
#include "LogCapture.h"
#include "ScannedTree.h"
#include "StorageCapacityWatcher.h"
#include "TestDevice.h"
#include "WatchedCard.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::exists;

namespace {

constexpr qint64 kCardSize = 8 * 1048576LL;
const QByteArray kCard = WatchedCard::kMountPoint;

QByteArray watched(const QByteArray& name, const QByteArray& size = "0",
                   const QByteArray& children = {})
{
    return "<dir capacitywatch='true' size='" + size + "'>" + name + children + "</dir>";
}

/// A watcher of the directories that a configuration names.
struct Watch
{
    explicit Watch(const QByteArray& children) : config(CardConfig::withChildren(children))
    {
        watcher.updateWatchDirs();
    }

    ConfigHandler config;
    StorageCapacityWatcher watcher{config};
};

QString noWatchedDirectory(const QString& identifier)
{
    return "There is no watched directory for identifier '" + identifier + "'";
}

} // namespace

/// Which directories are watched, and how they are asked for.
class WatchedDirectoriesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void only_marked_directories_are_watched();
    void no_directory_is_watched_before_the_list_is_built();
    void a_directory_is_asked_for_by_its_base_name_data();
    void a_directory_is_asked_for_by_its_base_name();
    void an_unknown_identifier_is_told();
    void only_the_directory_that_is_asked_for_is_brought_within_its_limit();
    void the_first_of_two_directories_of_one_name_is_meant();
    void no_identifier_means_all_directories_in_their_order();
    void the_limit_is_the_share_of_the_card_data();
    void the_limit_is_the_share_of_the_card();
    void a_share_of_0_empties_the_directory_each_time();
    void paths_are_cleaned();
    void a_usable_directory_is_its_owners_to_read_and_write_data();
    void a_usable_directory_is_its_owners_to_read_and_write();
    void directories_that_cannot_be_watched_are_left_out();
    void a_directory_that_can_be_watched_later_is_taken_in_then();
    void nothing_happens_without_a_card();
    void the_list_stays_as_it_is_while_no_card_is_mounted();
    void a_directory_that_lies_elsewhere_is_not_touched();
    void sizes_that_cannot_be_measured_are_reported();
};

void WatchedDirectoriesTest::init()
{
    QVERIFY(TestDevice::mountTmpfs(kCard, kCardSize));
}

void WatchedDirectoriesTest::cleanup()
{
    WatchedCard::remove();
    TestDevice::remove("/elsewhere");
}

void WatchedDirectoriesTest::only_marked_directories_are_watched()
{
    createDirectory(kCard + "/a");
    createDirectory(kCard + "/b");
    const Watch watch("<dir size='0'>a</dir><dir capacitywatch='TRUE' size='0'>b</dir>"
                      "<dir capacitywatch='false' size='0'>c</dir>");
    const LogCapture log;
    for (const char* const name : {"a", "b", "c"}) {
        QVERIFY(!watch.watcher.ensureDirSize(name));
    }
}

void WatchedDirectoriesTest::no_directory_is_watched_before_the_list_is_built()
{
    createDirectory(kCard + "/w");
    createFile(kCard + "/w/file", 100);
    const ConfigHandler config = CardConfig::withChildren(watched("w"));
    StorageCapacityWatcher watcher(config);
    const LogCapture log;
    QVERIFY(!watcher.ensureDirSize("w"));
    QVERIFY(watcher.ensureDirSize(""));
    QVERIFY(exists(kCard + "/w/file"));
    QCOMPARE(log.messages(), QStringList{noWatchedDirectory("w")});
    watcher.updateWatchDirs();
    QVERIFY(watcher.ensureDirSize("w"));
    QVERIFY(!exists(kCard + "/w/file"));
}

void WatchedDirectoriesTest::a_directory_is_asked_for_by_its_base_name_data()
{
    QTest::addColumn<QString>("identifier");
    QTest::addColumn<bool>("isKnown");
    QTest::newRow("top") << "logs" << true;
    QTest::newRow("nested") << "old" << true;
    QTest::newRow("with a blank") << "with blank" << true;
    QTest::newRow("other case") << "Logs" << false;
    QTest::newRow("path") << "logs/old" << false;
    QTest::newRow("slash before it") << "/logs" << false;
    QTest::newRow("slash behind it") << "logs/" << false;
    QTest::newRow("beginning") << "log" << false;
    QTest::newRow("longer") << "logs " << false;
    QTest::newRow("not watched") << "other" << false;
    QTest::newRow("dot") << "." << false;
    QTest::newRow("mount point") << "sdcard" << false;
}

void WatchedDirectoriesTest::a_directory_is_asked_for_by_its_base_name()
{
    QFETCH(const QString, identifier);
    QFETCH(const bool, isKnown);
    for (const char* const path : {"/logs", "/logs/old", "/with blank", "/other"}) {
        createDirectory(kCard + path);
    }
    const Watch watch(watched("logs", "90", watched("old", "90")) + watched("with blank", "90") +
                      "<dir size='0'>other</dir>");
    const LogCapture log;
    QCOMPARE(watch.watcher.ensureDirSize(identifier), isKnown);
    QCOMPARE(log.messages(), isKnown ? QStringList() : QStringList{noWatchedDirectory(identifier)});
}

void WatchedDirectoriesTest::an_unknown_identifier_is_told()
{
    const Watch watch({});
    const LogCapture log;
    QVERIFY(!watch.watcher.ensureDirSize("csv"));
    QCOMPARE(log.records().size(), 1);
    const LogRecord record = log.records().at(0);
    QCOMPARE(record.level, LogLevel::Warn);
    QCOMPARE(record.message, QString("There is no watched directory for identifier 'csv'"));
    QCOMPARE(record.channel, QString("StorageCapacityWatcher"));
    QCOMPARE(record.source, QString("StorageCapacityWatcher"));
    QVERIFY(record.function.startsWith("bool StorageCapacityWatcher::ensureDirSize(const "));
    QCOMPARE(log.errorCount(), 0U);
}

void WatchedDirectoriesTest::only_the_directory_that_is_asked_for_is_brought_within_its_limit()
{
    for (const char* const name : {"/a", "/b"}) {
        createDirectory(kCard + name);
        createFile(kCard + name + "/file", 100);
    }
    const Watch watch(watched("a") + watched("b"));
    const LogCapture log;
    QVERIFY(watch.watcher.ensureDirSize("b"));
    QVERIFY(exists(kCard + "/a/file"));
    QVERIFY(!exists(kCard + "/b/file"));
    QCOMPARE(log.messages(), QStringList());
}

void WatchedDirectoriesTest::the_first_of_two_directories_of_one_name_is_meant()
{
    for (const char* const name : {"/a", "/a/x", "/b", "/b/x"}) {
        createDirectory(kCard + name);
        createFile(kCard + name + "/file", 100);
    }
    const Watch watch("<dir size='50'>b" + watched("x") + "</dir><dir size='50'>a" + watched("x") +
                      "</dir>");
    QVERIFY(watch.watcher.ensureDirSize("x"));
    QVERIFY(exists(kCard + "/a/x/file"));
    QVERIFY(!exists(kCard + "/b/x/file"));
}

void WatchedDirectoriesTest::no_identifier_means_all_directories_in_their_order()
{
    QStringList messages;
    for (const char* const name : {"c", "a", "b"}) {
        createDirectory(kCard + "/" + name);
        messages.append("/media/sdcard/" + QString(name) +
                        " exceed limit but there are no files to remove");
    }
    const Watch watch(watched("c", "-1") + watched("a", "-1") + watched("b", "-1"));
    {
        const LogCapture log;
        QVERIFY(watch.watcher.ensureDirSize(""));
        QCOMPARE(log.messages(), messages);
    }
    const LogCapture log;
    watch.watcher.ensureDirSizeAll();
    QCOMPARE(log.messages(), messages);
}

void WatchedDirectoriesTest::the_limit_is_the_share_of_the_card_data()
{
    QTest::addColumn<QByteArray>("size");
    QTest::addColumn<qint64>("limit");
    QTest::newRow("half") << QByteArray("50") << kCardSize / 2;
    QTest::newRow("whole") << QByteArray("100") << kCardSize;
    QTest::newRow("more than whole") << QByteArray("150") << kCardSize * 3 / 2;
    // 8388608 * 0.001 = 8388.608
    QTest::newRow("fraction of a byte") << QByteArray("0.1") << qint64{8388};
}

void WatchedDirectoriesTest::the_limit_is_the_share_of_the_card()
{
    QFETCH(const QByteArray, size);
    QFETCH(const qint64, limit);
    const QByteArray dir = kCard + "/w";
    createDirectory(dir);
    createFile(dir + "/old", 0);
    ScannedTree::awaitNextChangeTime();
    createFile(dir + "/young", 0);
    const Watch watch(watched("w", size));
    const qint64 rest = limit - ScannedTree::sizeOf(dir);
    // A hole, so that more than the card holds is possible.
    QCOMPARE(::truncate((dir + "/young").constData(), rest), 0);
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QVERIFY(exists(dir + "/old"));
    QCOMPARE(::truncate((dir + "/young").constData(), rest + 1), 0);
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QVERIFY(!exists(dir + "/old"));
}

void WatchedDirectoriesTest::a_share_of_0_empties_the_directory_each_time()
{
    const QByteArray dir = kCard + "/w";
    createDirectory(dir);
    const Watch watch(watched("w", "0"));
    for (int i = 0; i < 3; ++i) {
        createFile(dir + "/a", 0);
        createFile(dir + "/b", 100);
        watch.watcher.ensureDirSizeAll();
        QCOMPARE(ScannedTree::list(dir).size(), 1);
    }
}

void WatchedDirectoriesTest::paths_are_cleaned()
{
    createDirectory(kCard + "/b");
    createDirectory(kCard + "/b/c");
    createFile(kCard + "/b/c/file", 100);
    const Watch watch(watched("a/../b//./c/"));
    const LogCapture log;
    QVERIFY(watch.watcher.ensureDirSize("c"));
    QVERIFY(!exists(kCard + "/b/c/file"));
    QCOMPARE(log.messages(), QStringList());
}

void WatchedDirectoriesTest::a_usable_directory_is_its_owners_to_read_and_write_data()
{
    QTest::addColumn<mode_t>("mode");
    QTest::addColumn<QString>("problem");
    const auto row = [](const char* name, mode_t mode, const char* problem) {
        QTest::newRow(name) << mode << problem;
    };
    row("usual", 0755, "");
    row("without search", 0600, "");
    row("not readable", 0355, " is not readable");
    row("not writable", 0577, " is not writable");
    row("neither", 0155, " is not readable");
    row("nothing for the owner", 0077, " is not readable");
}

void WatchedDirectoriesTest::a_usable_directory_is_its_owners_to_read_and_write()
{
    QFETCH(const mode_t, mode);
    QFETCH(const QString, problem);
    createDirectory(kCard + "/w");
    QCOMPARE(::chmod((kCard + "/w").constData(), mode), 0);
    QCOMPARE(::chown((kCard + "/w").constData(), 1234, 1234), 0);
    const Watch watch({});
    const LogCapture log;
    QCOMPARE(watch.watcher.isWatchDirUsable(kCard + "/w"), problem.isEmpty());
    if (!problem.isEmpty()) {
        QCOMPARE(log.messages(LogLevel::Error), QStringList{"/media/sdcard/w" + problem});
        QCOMPARE(log.records().at(0).channel, QString("StorageCapacityWatcher"));
        QVERIFY(log.records().at(0).function.startsWith(
            "bool StorageCapacityWatcher::isWatchDirUsable(const "));
    }
    QCOMPARE(log.errorCount(), problem.isEmpty() ? 0U : 1U);
}

void WatchedDirectoriesTest::directories_that_cannot_be_watched_are_left_out()
{
    createFile(kCard + "/file");
    createDirectory(kCard + "/target");
    QCOMPARE(::symlink("target", (kCard + "/link").constData()), 0);
    createDirectory(kCard + "/last");
    const LogCapture log;
    const Watch watch(watched("missing") + watched("file") + watched("link") +
                      watched("last", "90"));
    QCOMPARE(log.messages(LogLevel::Error),
             (QStringList{
                 "SDCardFileInfo() fstatat() failed for /media/sdcard/missing: "
                 "No such file or directory",
                 "/media/sdcard/missing does not exist",
                 "/media/sdcard/file is not a directory",
                 "/media/sdcard/link is not a directory",
             }));
    QCOMPARE(log.errorCount(), 4U);
    for (const char* const name : {"missing", "file", "link"}) {
        QVERIFY(!watch.watcher.ensureDirSize(name));
    }
    QVERIFY(watch.watcher.ensureDirSize("last"));
}

void WatchedDirectoriesTest::a_directory_that_can_be_watched_later_is_taken_in_then()
{
    const LogCapture log;
    Watch watch(watched("w", "90"));
    QVERIFY(!watch.watcher.ensureDirSize("w"));
    createDirectory(kCard + "/w");
    watch.watcher.updateWatchDirs();
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QCOMPARE(::rmdir((kCard + "/w").constData()), 0);
    watch.watcher.updateWatchDirs();
    QVERIFY(!watch.watcher.ensureDirSize("w"));
}

void WatchedDirectoriesTest::nothing_happens_without_a_card()
{
    createDirectory(kCard + "/w");
    Watch watch(watched("w"));
    TestDevice::unmountAll(kCard);
    createDirectory(kCard + "/w");
    createFile(kCard + "/w/file", 100);
    const LogCapture log;
    for (const char* const identifier : {"w", "unknown", ""}) {
        QVERIFY(watch.watcher.ensureDirSize(identifier));
    }
    watch.watcher.ensureDirSizeAll();
    QVERIFY(exists(kCard + "/w/file"));
    QCOMPARE(log.messages(), QStringList());
}

void WatchedDirectoriesTest::the_list_stays_as_it_is_while_no_card_is_mounted()
{
    createDirectory(kCard + "/w");
    Watch watch(watched("w", "90"));
    TestDevice::unmountAll(kCard);
    const LogCapture log;
    watch.watcher.updateWatchDirs();
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(TestDevice::mountTmpfs(kCard, kCardSize));
    createDirectory(kCard + "/w");
    QVERIFY(watch.watcher.ensureDirSize("w"));
}

void WatchedDirectoriesTest::a_directory_that_lies_elsewhere_is_not_touched()
{
    createDirectory("/elsewhere");
    createDirectory("/elsewhere/w");
    createFile("/elsewhere/w/file", 100);
    QCOMPARE(::symlink("/elsewhere", (kCard + "/link").constData()), 0);
    const Watch watch("<dir size='50'>link" + watched("w") + "</dir>");
    const LogCapture log;
    QVERIFY(watch.watcher.ensureDirSize("w"));
    watch.watcher.ensureDirSizeAll();
    QVERIFY(exists("/elsewhere/w/file"));
    const QString message = "/media/sdcard/link/w is not on the card";
    QCOMPARE(log.messages(LogLevel::Error), (QStringList{message, message}));
    QCOMPARE(log.errorCount(), 2U);
}

void WatchedDirectoriesTest::sizes_that_cannot_be_measured_are_reported()
{
    createFile(kCard + "/file", 100);
    const Watch watch({});
    const LogCapture log;
    QCOMPARE(watch.watcher.dirSize(kCard + "/file"), qint64{0});
    QCOMPARE(watch.watcher.dirSizeFlat(kCard + "/file"), qint64{0});
    QCOMPARE(watch.watcher.dirSize(kCard + "/missing"), qint64{0});
    const QString noDirectory = "It is not a directory: /media/sdcard/file";
    QCOMPARE(log.messages(LogLevel::Error),
             (QStringList{noDirectory, noDirectory,
                          "fstatat() failed for /media/sdcard/missing: "
                          "No such file or directory"}));
    QCOMPARE(log.records().at(0).channel, QString("StorageCapacityWatcher"));
    QCOMPARE(log.errorCount(), 3U);
}

TEST_DEVICE_MAIN(WatchedDirectoriesTest)
#include "WatchedDirectoriesTest.moc"
