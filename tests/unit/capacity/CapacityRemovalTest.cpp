#include <QCoreApplication>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include "LogCapture.h"
#include "ScannedTree.h"
#include "StorageCapacityWatcher.h"
#include "TestDevice.h"
#include "WatchedCard.h"
#include "config.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::createFilesInOrder;
using ScannedTree::exists;
using WatchedCard::enforce;
using WatchedCard::makeBusy;

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

QString cannotRemove(const QString& name)
{
    return "Cannot remove file /media/sdcard/w/" + name + ": Device or resource busy";
}

QString cannotRemoveDirectory(const QString& name, const QString& why)
{
    return "Cannot remove empty directory /media/sdcard/w/" + name + ": " + why;
}

/// Removes empty directories; returns what they were taken to count for.
qint64 removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir)
{
    const ConfigHandler config;
    qint64 used = 1000;
    StorageCapacityWatcher(config).removeEmptyDirs(watchPath, dir, used);
    return 1000 - used;
}

} // namespace

/// How chosen files go, and the directories that become empty by it.
class CapacityRemovalTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_file_that_cannot_be_removed_stays_and_the_next_goes();
    void no_younger_file_goes_for_one_that_cannot_be_removed();
    void emptied_directories_go_with_their_emptied_parents();
    void the_watched_directory_stays();
    void directories_that_still_hold_something_stay_data();
    void directories_that_still_hold_something_stay();
    void directories_that_were_empty_before_stay();
    void a_directory_from_which_nothing_could_be_removed_stays();
    void a_directory_that_cannot_be_removed_is_reported();
    void directories_are_tried_in_the_order_in_which_they_were_touched();
    void a_directory_that_went_with_an_emptied_one_is_reported();
    void each_directory_counts_for_2_bytes();
    void a_path_is_normalised_before_it_is_climbed();
    void a_climb_that_comes_to_the_root_is_reported();
    void nothing_is_removed_off_the_file_system_of_the_watched_directory();
    void an_empty_directory_with_a_path_of_any_length_is_removed();
    void a_parent_that_cannot_be_removed_ends_the_climb();
    void failures_count_where_their_level_is_off();
};

void CapacityRemovalTest::init()
{
    QVERIFY(WatchedCard::insert());
}

void CapacityRemovalTest::cleanup()
{
    WatchedCard::remove();
}

void CapacityRemovalTest::a_file_that_cannot_be_removed_stays_and_the_next_goes()
{
    createFilesInOrder(inRoot({"1", "2", "3", "4"}), 100);
    makeBusy(kRoot + "/1");
    makeBusy(kRoot + "/3");
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::files(), inRoot({"1", "3"}));
    QCOMPARE(log.messages(LogLevel::Warn), (QStringList{cannotRemove("1"), cannotRemove("3")}));
    QCOMPARE(log.records().size(), 2);
    QCOMPARE(log.records().at(0).channel, QString("StorageCapacityWatcher"));
    QCOMPARE(log.records().at(0).source, QString("StorageCapacityWatcher"));
    QCOMPARE(log.errorCount(), 0U);
}

void CapacityRemovalTest::no_younger_file_goes_for_one_that_cannot_be_removed()
{
    createFilesInOrder(inRoot({"1", "2", "3"}), 100);
    makeBusy(kRoot + "/1");
    const LogCapture log;
    enforce(WatchedCard::used() - 150);
    QCOMPARE(WatchedCard::files(), inRoot({"1", "3"}));
    QCOMPARE(log.messages(), QStringList{cannotRemove("1")});
}

void CapacityRemovalTest::emptied_directories_go_with_their_emptied_parents()
{
    for (const char* const name : {"a", "a/b", "a/b/c", "d", "d/.e"}) {
        createDirectory(kRoot + "/" + name);
    }
    createFilesInOrder(inRoot({"a/b/c/1", "d/.e/2", "a/b/c/3", "4"}), 100);
    const LogCapture log;
    enforce(WatchedCard::used() - 250);
    QCOMPARE(WatchedCard::entries(), inRoot({"4"}));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityRemovalTest::the_watched_directory_stays()
{
    createDirectory(kRoot + "/a");
    createFilesInOrder(inRoot({"a/1", "2"}), 100);
    const LogCapture log;
    enforce(0);
    QVERIFY(exists(kRoot));
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    QCOMPARE(log.messages(), QStringList());
}

void CapacityRemovalTest::directories_that_still_hold_something_stay_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("a file") << QByteArray("file");
    QTest::newRow("a hidden file") << QByteArray(".file");
    QTest::newRow("a directory") << QByteArray("directory");
    QTest::newRow("three dots") << QByteArray("...");
}

void CapacityRemovalTest::directories_that_still_hold_something_stay()
{
    QFETCH(const QByteArray, name);
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    createFilesInOrder(inRoot({"a/b/1"}), 100);
    if (name == "directory") {
        createDirectory(kRoot + "/a/" + name);
    } else {
        createFile(kRoot + "/a/" + name, 100);
    }
    const LogCapture log;
    enforce(WatchedCard::used() - 1);
    QCOMPARE(WatchedCard::entries(), inRoot({"a", "a/" + name}));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityRemovalTest::directories_that_were_empty_before_stay()
{
    createDirectory(kRoot + "/empty");
    createDirectory(kRoot + "/a");
    createFilesInOrder(inRoot({"a/1", "2"}), 100);
    enforce(0);
    QCOMPARE(WatchedCard::entries(), inRoot({"empty"}));
}

void CapacityRemovalTest::a_directory_from_which_nothing_could_be_removed_stays()
{
    createDirectory(kRoot + "/a");
    createFilesInOrder(inRoot({"a/1"}), 100);
    makeBusy(kRoot + "/a/1");
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::entries(), inRoot({"a", "a/1"}));
    QCOMPARE(log.messages(), QStringList{cannotRemove("a/1")});
}

void CapacityRemovalTest::a_directory_that_cannot_be_removed_is_reported()
{
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    makeBusy(kRoot + "/a/b");
    createFilesInOrder(inRoot({"a/b/1", "2"}), 100);
    const LogCapture log;
    enforce(WatchedCard::used() - 1);
    QCOMPARE(WatchedCard::entries(), inRoot({"2", "a", "a/b"}));
    QCOMPARE(log.records().size(), 1);
    const LogRecord record = log.records().at(0);
    QCOMPARE(record.level, LogLevel::Error);
    QCOMPARE(record.message, cannotRemoveDirectory("a/b", "Device or resource busy"));
    QCOMPARE(record.channel, QString("StorageCapacityWatcher"));
    QCOMPARE(record.source, QString("StorageCapacityWatcher"));
    QVERIFY(record.function.startsWith("void StorageCapacityWatcher::removeEmptyDirs(const "));
    QCOMPARE(log.errorCount(), 1U);
}

void CapacityRemovalTest::directories_are_tried_in_the_order_in_which_they_were_touched()
{
    const QList<QByteArray> order{"m", "z", "a", "q", "b"};
    QList<QByteArray> files;
    QStringList messages;
    for (const QByteArray& name : order) {
        createDirectory(kRoot + "/" + name);
        makeBusy(kRoot + "/" + name);
        files.append(kRoot + "/" + name + "/1");
        messages.append(cannotRemoveDirectory(name, "Device or resource busy"));
    }
    // All of them a second time, the other way round: each is tried once.
    for (const QByteArray& name : inRoot({"b/2", "q/2", "a/2", "z/2", "m/2"})) {
        files.append(name);
    }
    createFilesInOrder(files, 100);
    const LogCapture log;
    enforce(0);
    QCOMPARE(log.messages(), messages);
    QCOMPARE(log.errorCount(), 5U);
}

void CapacityRemovalTest::a_directory_that_went_with_an_emptied_one_is_reported()
{
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    createFilesInOrder(inRoot({"a/b/1", "a/2"}), 100);
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    QCOMPARE(log.messages(), QStringList{cannotRemoveDirectory("a", "No such file or directory")});
}

void CapacityRemovalTest::each_directory_counts_for_2_bytes()
{
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    createDirectory(kRoot + "/a/b/c");
    const LogCapture log;
    QCOMPARE(removeEmptyDirs(kRoot, kRoot), qint64{0});
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/a"), qint64{0});
    QCOMPARE(WatchedCard::entries().size(), 3);
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/a/b/c"), qint64{6});
    QCOMPARE(WatchedCard::entries().size(), 0);
    QVERIFY(exists(kRoot));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityRemovalTest::a_path_is_normalised_before_it_is_climbed()
{
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "//a/./x/../b/"), qint64{4});
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    createDirectory(kRoot + "/a");
    QCOMPARE(::chdir(kRoot.constData()), 0);
    const qint64 counted = removeEmptyDirs(kRoot, "a");
    QCOMPARE(::chdir("/"), 0);
    QCOMPARE(counted, qint64{2});
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
}

void CapacityRemovalTest::a_climb_that_comes_to_the_root_is_reported()
{
    createDirectory("/lonely");
    const LogCapture log;
    QCOMPARE(removeEmptyDirs("/etc", "/lonely"), qint64{2});
    QVERIFY(!exists("/lonely"));
    QCOMPARE(log.messages(LogLevel::Error), QStringList{"Cannot get parent directory of /lonely"});
    QCOMPARE(log.records().at(0).channel, QString("StorageCapacityWatcher"));
    QCOMPARE(log.errorCount(), 1U);
}

void CapacityRemovalTest::nothing_is_removed_off_the_file_system_of_the_watched_directory()
{
    createDirectory("/elsewhere");
    createDirectory("/elsewhere/inner");
    createDirectory("/elsewhere/inner/empty");
    QCOMPARE(::symlink("/elsewhere", kRoot + "/away"), 0);
    const LogCapture log;
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/away/inner/empty"), qint64{0});
    QVERIFY(exists("/elsewhere/inner/empty"));
    TestDevice::remove("/elsewhere");
    QCOMPARE(log.messages(LogLevel::Error), QStringList{"Cannot remove empty directory " + kRoot +
                                                        "/away/inner/empty: Stale file handle"});
}

void CapacityRemovalTest::an_empty_directory_with_a_path_of_any_length_is_removed()
{
    const QByteArray name(250, 'x');
    QCOMPARE(::chdir(kRoot.constData()), 0);
    QByteArray path = kRoot;
    for (int i = 0; i < 40; ++i) {
        createDirectory(name);
        QCOMPARE(::chdir(name.constData()), 0);
        path += "/" + name;
    }
    QCOMPARE(::chdir("/"), 0);
    const LogCapture log;
    QCOMPARE(removeEmptyDirs(kRoot, path), qint64{80});
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
}

void CapacityRemovalTest::a_parent_that_cannot_be_removed_ends_the_climb()
{
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    makeBusy(kRoot + "/a/b");
    createDirectory(kRoot + "/a/b/c");
    const LogCapture log;
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/a/b/c"), qint64{2});
    QCOMPARE(WatchedCard::entries(), inRoot({"a", "a/b"}));
    QCOMPARE(log.messages(), QStringList{cannotRemoveDirectory("a/b", "Device or resource busy")});
}

void CapacityRemovalTest::failures_count_where_their_level_is_off()
{
    createDirectory(kRoot + "/a");
    makeBusy(kRoot + "/a");
    createFilesInOrder(inRoot({"a/1"}), 100);
    const LogCapture log(LogLevel::Off);
    enforce(0);
    QCOMPARE(log.errorCount(), 1U);
    QCOMPARE(log.messages(), QStringList());
}

TEST_DEVICE_MAIN(CapacityRemovalTest)
#include "CapacityRemovalTest.moc"
