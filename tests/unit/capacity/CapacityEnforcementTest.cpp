#include <QCoreApplication>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "LogCapture.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "WatchedCard.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::createFilesInOrder;
using ScannedTree::exists;
using WatchedCard::enforce;

namespace {

const QByteArray kRoot = WatchedCard::kDirectory;

QList<QByteArray> inRoot(const QList<QByteArray>& names)
{
    QList<QByteArray> paths;
    for (const QByteArray& name : names) {
        paths.append(kRoot + "/" + name);
    }
    return paths;
}

void createSpecial(const QByteArray& path, mode_t type)
{
    QCOMPARE(::mknod(path.constData(), type | 0600, makedev(1, 3)), 0);
}

void createLink(const QByteArray& target, const QByteArray& path)
{
    QCOMPARE(::symlink(target.constData(), path.constData()), 0);
}

} // namespace

/// Which files go to bring a directory within its limit.
class CapacityEnforcementTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void the_oldest_go_until_the_use_is_below_the_limit_data();
    void the_oldest_go_until_the_use_is_below_the_limit();
    void a_size_counts_for_what_it_is_data();
    void a_size_counts_for_what_it_is();
    void the_change_time_decides_not_the_other_times();
    void nanoseconds_decide();
    void the_oldest_go_wherever_in_the_tree_they_are();
    void directories_count_but_are_not_chosen();
    void only_directories_beyond_the_limit_are_reported_data();
    void only_directories_beyond_the_limit_are_reported();
    void each_name_of_a_file_counts_and_goes_by_itself();
    void links_go_as_themselves();
    void everything_that_is_no_directory_can_go();
    void a_file_system_mounted_below_stays();
    void names_are_bytes_data();
    void names_are_bytes();
    void a_missing_directory_is_reported();
    void files_that_were_not_chosen_keep_their_change_time();
};

void CapacityEnforcementTest::init()
{
    QVERIFY(WatchedCard::insert());
}

void CapacityEnforcementTest::cleanup()
{
    WatchedCard::remove();
}

void CapacityEnforcementTest::the_oldest_go_until_the_use_is_below_the_limit_data()
{
    QTest::addColumn<qint64>("limitBelowUse");
    QTest::addColumn<int>("removed");
    QTest::newRow("use well below the limit") << qint64{-1'000'000} << 0;
    QTest::newRow("use one byte below the limit") << qint64{-1} << 0;
    QTest::newRow("use at the limit") << qint64{0} << 0;
    QTest::newRow("one byte above") << qint64{1} << 1;
    QTest::newRow("one file brings it one byte below") << qint64{99} << 1;
    QTest::newRow("one file brings it to the limit") << qint64{100} << 2;
    QTest::newRow("one byte more than a file") << qint64{101} << 2;
    QTest::newRow("three files bring it one byte below") << qint64{299} << 3;
    QTest::newRow("three files bring it to the limit") << qint64{300} << 4;
    QTest::newRow("all files bring it to the limit") << qint64{500} << 5;
    QTest::newRow("all files are not enough") << qint64{501} << 5;
}

void CapacityEnforcementTest::the_oldest_go_until_the_use_is_below_the_limit()
{
    QFETCH(const qint64, limitBelowUse);
    QFETCH(const int, removed);
    // The names' order is not that of the ages.
    const QList<QByteArray> files = inRoot({"c", "a", "e", "b", "d"});
    createFilesInOrder(files, 100);
    const LogCapture log;
    enforce(WatchedCard::used() - limitBelowUse);
    for (int i = 0; i < files.size(); ++i) {
        QCOMPARE(exists(files[i]), i >= removed);
    }
    QVERIFY(exists(kRoot));
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(log.errorCount(), 0U);
}

void CapacityEnforcementTest::a_size_counts_for_what_it_is_data()
{
    QTest::addColumn<qint64>("oldest");
    QTest::addColumn<qint64>("excess");
    QTest::addColumn<bool>("nextStays");
    QTest::newRow("empty file") << qint64{0} << qint64{1} << false;
    QTest::newRow("5 GiB suffice") << (qint64{5} << 30) << (qint64{5} << 30) - 1 << true;
    QTest::newRow("5 GiB do not suffice") << (qint64{5} << 30) << (qint64{5} << 30) << false;
}

void CapacityEnforcementTest::a_size_counts_for_what_it_is()
{
    QFETCH(const qint64, oldest);
    QFETCH(const qint64, excess);
    createFile(kRoot + "/oldest", oldest);
    ScannedTree::awaitNextChangeTime();
    createFilesInOrder(inRoot({"next", "last"}), 10);
    enforce(WatchedCard::used() - excess);
    QVERIFY(!exists(kRoot + "/oldest"));
    QTEST(exists(kRoot + "/next"), "nextStays");
    QVERIFY(exists(kRoot + "/last"));
}

void CapacityEnforcementTest::the_change_time_decides_not_the_other_times()
{
    createFilesInOrder(inRoot({"first", "second", "third"}), 100);
    // It says that it is the youngest, but was created first.
    const auto setTimes = [](const QByteArray& name, time_t seconds) {
        const std::array<timespec, 2> times{{{seconds, 0}, {seconds, 0}}};
        QCOMPARE(::utimensat(AT_FDCWD, (kRoot + "/" + name).constData(), times.data(), 0), 0);
        ScannedTree::awaitNextChangeTime();
    };
    setTimes("second", 3'000'000'000);
    setTimes("third", 1);
    QCOMPARE(::chmod((kRoot + "/first").constData(), 0600), 0);
    enforce(WatchedCard::used() - 1);
    QCOMPARE(WatchedCard::files(), inRoot({"first", "third"}));
    enforce(WatchedCard::used() - 1);
    QCOMPARE(WatchedCard::files(), inRoot({"first"}));
}

void CapacityEnforcementTest::nanoseconds_decide()
{
    // Many files within a second, the names in an order of their own.
    QList<QByteArray> files;
    for (int i = 0; i < 30; ++i) {
        files.append(kRoot + "/" + QByteArray::number(i * 7 % 30));
    }
    createFilesInOrder(files, 100);
    enforce(WatchedCard::used() - 1499);
    for (int i = 0; i < files.size(); ++i) {
        QCOMPARE(exists(files[i]), i >= 15);
    }
}

void CapacityEnforcementTest::the_oldest_go_wherever_in_the_tree_they_are()
{
    createDirectory(kRoot + "/.hidden");
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    const QList<QByteArray> files = inRoot({"a/b/.1", ".hidden/2", "3", "a/4", "a/b/5", ".6", "7"});
    createFilesInOrder(files, 1000);
    enforce(WatchedCard::used() - 3001);
    QCOMPARE(WatchedCard::entries(), inRoot({".6", "7", "a", "a/b", "a/b/5"}));
}

void CapacityEnforcementTest::directories_count_but_are_not_chosen()
{
    createDirectory(kRoot + "/old");
    createDirectory(kRoot + "/old/older");
    ScannedTree::awaitNextChangeTime();
    createFilesInOrder(inRoot({"1", "2"}), 10'000);
    // The files alone would be at the limit.
    enforce(20'000);
    QCOMPARE(WatchedCard::entries(), inRoot({"2", "old", "old/older"}));
}

void CapacityEnforcementTest::only_directories_beyond_the_limit_are_reported_data()
{
    QTest::addColumn<QList<QByteArray>>("directories");
    QTest::newRow("none") << QList<QByteArray>();
    QTest::newRow("empty ones") << inRoot({"a", "a/b", ".c"});
}

void CapacityEnforcementTest::only_directories_beyond_the_limit_are_reported()
{
    QFETCH(QList<QByteArray>, directories);
    for (const QByteArray& directory : directories) {
        createDirectory(directory);
    }
    std::sort(directories.begin(), directories.end());
    const LogCapture log;
    enforce(-1);
    QCOMPARE(log.records().size(), 1);
    const LogRecord record = log.records().at(0);
    QCOMPARE(record.level, LogLevel::Warn);
    QCOMPARE(record.message,
             QString("/media/sdcard/w exceed limit but there are no files to remove"));
    QCOMPARE(record.channel, QString("StorageCapacityWatcher"));
    QCOMPARE(record.source, QString("StorageCapacityWatcher"));
    QVERIFY(record.function.startsWith("void StorageCapacityWatcher::ensureDirSizeSingle(const "));
    QCOMPARE(log.errorCount(), 0U);
    QCOMPARE(WatchedCard::entries(), directories);
}

void CapacityEnforcementTest::each_name_of_a_file_counts_and_goes_by_itself()
{
    createFile(kRoot + "/a", 1000);
    QCOMPARE(::link((kRoot + "/a").constData(), (kRoot + "/b").constData()), 0);
    QCOMPARE(::link((kRoot + "/a").constData(), (kRoot + "/c").constData()), 0);
    QCOMPARE(::link((kRoot + "/a").constData(), "/media/sdcard/outside"), 0);
    const qint64 used = WatchedCard::used();
    QCOMPARE(used, ScannedTree::sizeOf(kRoot) + 3000);
    const LogCapture log;
    enforce(used - 1001);
    QCOMPARE(WatchedCard::files().size(), 1);
    enforce(0);
    QCOMPARE(WatchedCard::files().size(), 0);
    QVERIFY(exists("/media/sdcard/outside"));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::links_go_as_themselves()
{
    createDirectory("/media/sdcard/outside");
    createFile("/media/sdcard/outside/file", 1'000'000);
    createLink("/media/sdcard/outside", kRoot + "/away");
    createLink("../outside/file", kRoot + "/file");
    createLink("nowhere", kRoot + "/dangling");
    createLink(".", kRoot + "/self");
    ScannedTree::awaitNextChangeTime();
    createFile(kRoot + "/last", 10);
    // Counted with what they link to they would be more by far.
    const qint64 links = 21 + 15 + 7 + 1;
    QCOMPARE(WatchedCard::used(), ScannedTree::sizeOf(kRoot) + links + 10);
    const LogCapture log;
    enforce(WatchedCard::used() - links + 1);
    QCOMPARE(WatchedCard::entries(), inRoot({"last"}));
    QVERIFY(exists("/media/sdcard/outside/file"));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::everything_that_is_no_directory_can_go()
{
    createSpecial(kRoot + "/pipe", S_IFIFO);
    createSpecial(kRoot + "/socket", S_IFSOCK);
    createSpecial(kRoot + "/character device", S_IFCHR);
    createSpecial(kRoot + "/block device", S_IFBLK);
    createFile(kRoot + "/unreadable", 10);
    QCOMPARE(::chmod((kRoot + "/unreadable").constData(), 0), 0);
    createFile(kRoot + "/.hidden", 10);
    createFile(kRoot + "/hole", qint64{1} << 40);
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::a_file_system_mounted_below_stays()
{
    createFile(kRoot + "/own", 100);
    QVERIFY(TestDevice::mountTmpfs(kRoot + "/other", 1048576));
    createFile(kRoot + "/other/file", 100);
    const LogCapture log;
    enforce(0);
    const bool otherStays = exists(kRoot + "/other/file");
    TestDevice::unmountAll(kRoot + "/other");
    QVERIFY(otherStays);
    QVERIFY(!exists(kRoot + "/own"));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::names_are_bytes_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("not UTF-8") << QByteArray("\xff\xfe\xc3");
    QTest::newRow("newline") << QByteArray("a\nb\n");
    QTest::newRow("leading dash") << QByteArray("-rf");
    QTest::newRow("255 bytes that are no text") << QByteArray(255, '\x80');
    QTest::newRow("percent") << QByteArray("%s%n");
    QTest::newRow("three dots") << QByteArray("...");
    QTest::newRow("blank") << QByteArray(" ");
    QTest::newRow("backslash") << QByteArray("..\\..\\x");
}

void CapacityEnforcementTest::names_are_bytes()
{
    QFETCH(const QByteArray, name);
    createDirectory(kRoot + "/" + name);
    createDirectory(kRoot + "/" + name + "/" + name);
    createFile(kRoot + "/" + name + "/" + name + "/" + name, 500);
    ScannedTree::awaitNextChangeTime();
    createFile(kRoot + "/kept", 500);
    const LogCapture log;
    enforce(WatchedCard::used() - 1);
    QCOMPARE(WatchedCard::entries(), inRoot({"kept"}));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::a_missing_directory_is_reported()
{
    QCOMPARE(::rmdir(kRoot.constData()), 0);
    const LogCapture log;
    enforce(0);
    QCOMPARE(log.messages(LogLevel::Error),
             QStringList{"fstatat() failed for /media/sdcard/w: No such file or directory"});
    QCOMPARE(log.records().at(0).channel, QString("StorageCapacityWatcher"));
    QCOMPARE(log.errorCount(), 1U);
}

void CapacityEnforcementTest::files_that_were_not_chosen_keep_their_change_time()
{
    createFilesInOrder(inRoot({"a", "b", "c", "d"}), 100);
    const auto times = [] {
        QList<qint64> found;
        for (const ScannedTree::Entry& entry : ScannedTree::list(kRoot)) {
            if (entry.path.endsWith('c') || entry.path.endsWith('d')) {
                found.append(entry.changeTime);
            }
        }
        return found;
    };
    const QList<qint64> before = times();
    QCOMPARE(before.size(), 2);
    enforce(WatchedCard::used() - 150);
    QCOMPARE(times(), before);
}

TEST_DEVICE_MAIN(CapacityEnforcementTest)
#include "CapacityEnforcementTest.moc"
