#include <QCoreApplication>
#include <QTest>

#include <sys/stat.h>
#include <sys/sysmacros.h>
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

void createSpecial(const QByteArray& path, mode_t type)
{
    QCOMPARE(::mknod(path.constData(), type | 0600, makedev(1, 3)), 0);
}

QString cannotRemove(const QString& name)
{
    return "Cannot remove file /media/sdcard/w/" + name + ": Device or resource busy";
}

QString cannotRemoveDirectory(const QString& name, const QString& why)
{
    return "Cannot remove empty directory /media/sdcard/w/" + name + ": " + why;
}

/// Removes empty directories; returns the bytes that they counted for.
qint64 removeEmptyDirs(const QByteArray& watchPath, const QByteArray& dir)
{
    const ConfigHandler config;
    qint64 used = 1000;
    StorageCapacityWatcher(config).removeEmptyDirs(watchPath, dir, used);
    return 1000 - used;
}

} // namespace

/// Which files are removed to bring a directory within its limit, and which emptied directories.
class CapacityEnforcementTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void files_of_any_size_count_in_full_data();
    void files_of_any_size_count_in_full();
    void the_age_is_compared_in_nanoseconds();
    void each_hard_link_counts_and_is_removed_by_itself();
    void every_entry_except_a_directory_can_be_removed();
    void a_directory_from_which_nothing_could_be_removed_stays();
    void directories_are_tried_in_the_order_in_which_they_were_touched();
    void a_directory_removed_with_another_is_reported_in_its_turn_data();
    void a_directory_removed_with_another_is_reported_in_its_turn();
    void each_directory_counts_for_2_bytes();
    void a_path_is_normalised_before_its_parents_are_removed();
    void the_removal_of_parents_ends_at_the_root();
    void nothing_is_removed_off_the_file_system_of_the_watched_directory();
};

void CapacityEnforcementTest::init()
{
    QVERIFY(WatchedCard::insert());
}

void CapacityEnforcementTest::cleanup()
{
    WatchedCard::remove();
}

void CapacityEnforcementTest::files_of_any_size_count_in_full_data()
{
    QTest::addColumn<qint64>("oldest");
    QTest::addColumn<qint64>("excess");
    QTest::addColumn<bool>("nextStays");
    QTest::newRow("empty file") << qint64{0} << qint64{1} << false;
    QTest::newRow("5 GiB suffice") << (qint64{5} << 30) << (qint64{5} << 30) - 1 << true;
    QTest::newRow("5 GiB do not suffice") << (qint64{5} << 30) << (qint64{5} << 30) << false;
}

void CapacityEnforcementTest::files_of_any_size_count_in_full()
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

void CapacityEnforcementTest::the_age_is_compared_in_nanoseconds()
{
    // Many files within one second, with names in another order.
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

void CapacityEnforcementTest::each_hard_link_counts_and_is_removed_by_itself()
{
    createFile(kRoot + "/a", 1000);
    for (const QByteArray& path : {kRoot + "/b", kRoot + "/c", QByteArray("/media/sdcard/out")}) {
        QCOMPARE(::link((kRoot + "/a").constData(), path.constData()), 0);
    }
    const qint64 used = WatchedCard::used();
    QCOMPARE(used, ScannedTree::sizeOf(kRoot) + 3000);
    const LogCapture log;
    enforce(used - 1001);
    QCOMPARE(WatchedCard::entries().size(), 1);
    enforce(0);
    QCOMPARE(WatchedCard::entries().size(), 0);
    QVERIFY(exists("/media/sdcard/out"));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::every_entry_except_a_directory_can_be_removed()
{
    createSpecial(kRoot + "/pipe", S_IFIFO);
    createSpecial(kRoot + "/socket", S_IFSOCK);
    createSpecial(kRoot + "/character device", S_IFCHR);
    createSpecial(kRoot + "/block device", S_IFBLK);
    createFile(kRoot + "/unreadable", 10);
    QCOMPARE(::chmod((kRoot + "/unreadable").constData(), 0), 0);
    createFile(kRoot + "/.hidden", 10);
    createFile(kRoot + "/hole", qint64{1} << 40);
    createFile(kRoot + "/-\xff\xc3\n%s", 5);
    createFile(kRoot + "/...", 3);
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::a_directory_from_which_nothing_could_be_removed_stays()
{
    createDirectory(kRoot + "/a");
    createFile(kRoot + "/a/1", 100);
    makeBusy(kRoot + "/a/1");
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::entries(), inRoot({"a", "a/1"}));
    const LogRecord expected{LogLevel::Warn, "StorageCapacityWatcher", "StorageCapacityWatcher",
                             "void StorageCapacityWatcher::ensureDirSizeSingle("
                             "const StorageCapacityWatcher::WatchDir&) const",
                             cannotRemove("a/1")};
    QCOMPARE(log.records(), QVector<LogRecord>{expected});
    QCOMPARE(log.errorCount(), 0U);
}

void CapacityEnforcementTest::directories_are_tried_in_the_order_in_which_they_were_touched()
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
    // All of them again, in reverse order: each is tried once. The last file, which stays, is
    // reported before the directories.
    files += inRoot({"b/2", "q/2", "a/2", "z/2", "m/2", "last"});
    messages.prepend(cannotRemove("last"));
    createFilesInOrder(files, 100);
    makeBusy(kRoot + "/last");
    const LogCapture log;
    enforce(0);
    QCOMPARE(log.messages(), messages);
    const LogRecord record = log.records().last();
    QCOMPARE(record.level, LogLevel::Error);
    QCOMPARE(record.channel, QString("StorageCapacityWatcher"));
    QCOMPARE(record.source, QString("StorageCapacityWatcher"));
    QCOMPARE(record.function, QString("void StorageCapacityWatcher::removeEmptyDirs("
                                      "const QByteArray&, const QByteArray&, qint64&) const"));
    QCOMPARE(log.errorCount(), 5U);
}

void CapacityEnforcementTest::a_directory_removed_with_another_is_reported_in_its_turn_data()
{
    QTest::addColumn<QList<QByteArray>>("files");
    QTest::addColumn<bool>("isReported");
    QTest::newRow("child first") << inRoot({"a/b/1", "a/2"}) << true;
    QTest::newRow("parent first") << inRoot({"a/2", "a/b/1"}) << false;
    QTest::newRow("parent before the last child") << inRoot({"a/b/1", "a/2", "a/c/3"}) << false;
    QTest::newRow("parent after all children") << inRoot({"a/b/1", "a/c/3", "a/2"}) << true;
}

void CapacityEnforcementTest::a_directory_removed_with_another_is_reported_in_its_turn()
{
    QFETCH(const QList<QByteArray>, files);
    QFETCH(const bool, isReported);
    for (const char* const name : {"/a", "/a/b", "/a/c"}) {
        createDirectory(kRoot + name);
    }
    if (files.size() < 3) {
        QCOMPARE(::rmdir(kRoot + "/a/c"), 0);
    }
    createFilesInOrder(files, 100);
    const LogCapture log;
    enforce(0);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    const QString report = cannotRemoveDirectory("a", "No such file or directory");
    QCOMPARE(log.messages(), isReported ? QStringList{report} : QStringList());
}

void CapacityEnforcementTest::each_directory_counts_for_2_bytes()
{
    for (const char* const name : {"/a", "/a/b", "/a/b/c"}) {
        createDirectory(kRoot + name);
    }
    const LogCapture log;
    QCOMPARE(removeEmptyDirs(kRoot, kRoot), qint64{0});
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/a"), qint64{0});
    QCOMPARE(WatchedCard::entries().size(), 3);
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/a/b/c"), qint64{6});
    QCOMPARE(WatchedCard::entries().size(), 0);
    QVERIFY(exists(kRoot));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::a_path_is_normalised_before_its_parents_are_removed()
{
    createDirectory(kRoot + "/a");
    createDirectory(kRoot + "/a/b");
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "//a/./x/../b/"), qint64{4});
    createDirectory(kRoot + "/a");
    QCOMPARE(::chdir(kRoot.constData()), 0);
    const qint64 counted = removeEmptyDirs(kRoot, "a");
    QCOMPARE(::chdir("/"), 0);
    QCOMPARE(counted, qint64{2});
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
}

void CapacityEnforcementTest::the_removal_of_parents_ends_at_the_root()
{
    createDirectory("/lonely");
    const LogCapture log;
    QCOMPARE(removeEmptyDirs("/etc", "/lonely"), qint64{2});
    QVERIFY(!exists("/lonely"));
    QCOMPARE(log.messages(), QStringList());
}

void CapacityEnforcementTest::nothing_is_removed_off_the_file_system_of_the_watched_directory()
{
    for (const char* const name : {"", "/inner", "/inner/empty"}) {
        createDirectory(QByteArray("/elsewhere") + name);
    }
    QCOMPARE(::symlink("/elsewhere", kRoot + "/away"), 0);
    const LogCapture log;
    QCOMPARE(removeEmptyDirs(kRoot, kRoot + "/away/inner/empty"), qint64{0});
    QVERIFY(exists("/elsewhere/inner/empty"));
    TestDevice::remove("/elsewhere");
    QCOMPARE(log.messages(LogLevel::Error),
             QStringList{cannotRemoveDirectory("away/inner/empty", "Stale file handle")});
}

TEST_DEVICE_MAIN(CapacityEnforcementTest)
#include "CapacityEnforcementTest.moc"
