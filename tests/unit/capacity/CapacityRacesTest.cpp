#include <functional>

#include <QCoreApplication>
#include <QTest>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <log4cxx/logger.h>

#include "CardConfig.h"
#include "LogCapture.h"
#include "ScannedTree.h"
#include "StorageCapacityWatcher.h"
#include "TestDevice.h"
#include "TracedProcess.h"
#include "WatchedCard.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::exists;

using Change = std::function<void()>;
Q_DECLARE_METATYPE(Change)

namespace {

const QByteArray kRoot = WatchedCard::kDirectory;
const QByteArray kDir = kRoot + "/a/b";
const QByteArray kOutside = "/media/sdcard/outside";

/// Whether a directory is about to be removed from its parent under this name.
bool isRemovalOf(const TracedProcess::Call& call, const QByteArray& name)
{
    return call.number == SYS_unlinkat && call.arguments[2] == AT_REMOVEDIR && call.text(1) == name;
}

/// Brings the directory within a limit that no file fits in; returns the messages.
QStringList enforceNothing()
{
    const LogCapture log;
    WatchedCard::enforce(0);
    return log.messages();
}

/// Enforces, and makes a change when the files have been chosen, but not a call before the first of
/// them goes.
QStringList enforceAndChange(const Change& change)
{
    int opened = 0;
    const TracedProcess traced(enforceNothing, [&](const TracedProcess::Call& call) {
        // The first time it is read.
        if (call.number == SYS_openat && call.text(1) == kDir && ++opened == 2) {
            change();
        }
    });
    return traced.isFinished() ? traced.output() : QStringList{"not finished"};
}

void move(const QByteArray& from, const QByteArray& to)
{
    QCOMPARE(std::rename(from.constData(), to.constData()), 0);
}

QString cannotRemove(const QString& name, const QString& why)
{
    return "Cannot remove file /media/sdcard/w/a/b/" + name + ": " + why;
}

} // namespace

/// Cards that change between the choice of files and their removal.
class CapacityRacesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void files_of_another_directory_stay_data();
    void files_of_another_directory_stay();
    void a_file_that_has_gone_is_told_and_the_next_goes();
    void a_file_that_became_a_directory_stays();
    void a_directory_that_was_filled_again_stays();
    void a_directory_that_became_a_link_stays();
    void directories_of_another_tree_stay();
    void a_path_that_leads_off_the_card_when_it_is_opened_is_left();
    void a_file_is_asked_for_its_status_once_and_a_chosen_one_again_before_it_goes();
    void a_directory_is_not_opened_for_each_of_its_files();
};

void CapacityRacesTest::initTestCase()
{
    // It looks for its configuration when it is first used, which is not the service's doing.
    log4cxx::Logger::getRootLogger();
}

void CapacityRacesTest::init()
{
    QVERIFY(WatchedCard::insert());
    createDirectory(kRoot + "/a");
    createDirectory(kDir);
    ScannedTree::createFilesInOrder({kDir + "/1", kDir + "/2"}, 1'000);
    createDirectory(kOutside);
    createDirectory(kOutside + "/b");
    for (const char* const name : {"/1", "/2", "/b/1", "/b/2"}) {
        createFile(kOutside + name, 10);
    }
}

void CapacityRacesTest::cleanup()
{
    TestDevice::unmountAll(kDir);
    WatchedCard::remove();
}

void CapacityRacesTest::files_of_another_directory_stay_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<QString>("why");
    const QByteArray away = "/media/sdcard/away";
    QTest::newRow("gone") << Change([=] { move(kDir, away); }) << "No such file or directory";
    QTest::newRow("link out of the tree") << Change([=] {
        move(kDir, away);
        QCOMPARE(::symlink(kOutside, kDir), 0);
    }) << "Not a directory";
    QTest::newRow("parent that links out of the tree") << Change([=] {
        move(kRoot + "/a", away);
        QCOMPARE(::symlink(kOutside, kRoot + "/a"), 0);
    }) << "Stale file handle";
    QTest::newRow("another directory") << Change([=] {
        move(kDir, away);
        move(kOutside + "/b", kDir);
    }) << "Stale file handle";
    QTest::newRow("another file system") << Change([] {
        QVERIFY(TestDevice::mountTmpfs(kDir, 1048576));
        createFile(kDir + "/1");
    }) << "Stale file handle";
    QTest::newRow("file") << Change([=] {
        move(kDir, away);
        createFile(kDir, 10);
    }) << "Not a directory";
}

void CapacityRacesTest::files_of_another_directory_stay()
{
    QFETCH(const Change, change);
    QFETCH(const QString, why);
    QList<QByteArray> before;
    const QStringList messages = enforceAndChange([&] {
        change();
        for (const ScannedTree::Entry& entry : ScannedTree::list("/media/sdcard")) {
            before.append(entry.path);
        }
    });
    QCOMPARE(messages, (QStringList{cannotRemove("1", why), cannotRemove("2", why)}));
    QVERIFY(before.size() > 6);
    for (const QByteArray& path : before) {
        QVERIFY2(exists(path), path);
    }
}

void CapacityRacesTest::a_file_that_has_gone_is_told_and_the_next_goes()
{
    const QStringList messages = enforceAndChange([] { QCOMPARE(::unlink(kDir + "/1"), 0); });
    QCOMPARE(messages, QStringList{cannotRemove("1", "No such file or directory")});
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
}

void CapacityRacesTest::a_file_that_became_a_directory_stays()
{
    const QStringList messages = enforceAndChange([] {
        QCOMPARE(::unlink(kDir + "/1"), 0);
        createDirectory(kDir + "/1");
    });
    QCOMPARE(messages, QStringList{cannotRemove("1", "Stale file handle")});
    QCOMPARE(WatchedCard::entries(), (QList<QByteArray>{kRoot + "/a", kDir, kDir + "/1"}));
}

void CapacityRacesTest::a_directory_that_was_filled_again_stays()
{
    const TracedProcess traced(enforceNothing, [](const TracedProcess::Call& call) {
        if (isRemovalOf(call, "b")) {
            createFile(kDir + "/new", 10);
        }
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(traced.output(),
             QStringList{"Cannot remove empty directory /media/sdcard/w/a/b: Directory not empty"});
    QVERIFY(exists(kDir + "/new"));
}

void CapacityRacesTest::a_directory_that_became_a_link_stays()
{
    const TracedProcess traced(enforceNothing, [](const TracedProcess::Call& call) {
        if (isRemovalOf(call, "b")) {
            QCOMPARE(::rmdir(kDir), 0);
            createDirectory(kOutside + "/empty");
            QCOMPARE(::symlink(kOutside + "/empty", kDir), 0);
        }
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(traced.output(),
             QStringList{"Cannot remove empty directory /media/sdcard/w/a/b: Not a directory"});
    QVERIFY(exists(kDir));
    QVERIFY(exists(kOutside + "/empty"));
}

void CapacityRacesTest::directories_of_another_tree_stay()
{
    createDirectory(kOutside + "/a");
    createDirectory(kOutside + "/a/b");
    const TracedProcess traced(enforceNothing, [](const TracedProcess::Call& call) {
        static bool isRemoved = false;
        isRemoved = isRemoved || (call.number == SYS_unlinkat && call.text(1) == "2");
        if (isRemoved && call.number == SYS_openat && call.text(1) == kRoot + "/a") {
            move(kRoot, "/media/sdcard/away");
            QCOMPARE(::symlink(kOutside, kRoot), 0);
        }
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(traced.output(),
             QStringList{"Cannot remove empty directory /media/sdcard/w/a/b: Stale file handle"});
    QVERIFY(exists(kOutside + "/a/b"));
    QVERIFY(exists("/media/sdcard/away/a/b"));
}

void CapacityRacesTest::a_path_that_leads_off_the_card_when_it_is_opened_is_left()
{
    const QByteArray elsewhere = "/elsewhere";
    createDirectory(elsewhere);
    createDirectory(elsewhere + "/b");
    createFile(elsewhere + "/b/1", 10);
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='50'>w<dir size='50'>a<dir size='0' "
                                 "capacitywatch='true'>b</dir></dir></dir>");
    int opened = 0;
    const TracedProcess traced(
        [&config] {
            StorageCapacityWatcher watcher(config);
            watcher.updateWatchDirs();
            const LogCapture log;
            watcher.ensureDirSizeAll();
            return log.messages();
        },
        [&](const TracedProcess::Call& call) {
            if (call.number == SYS_openat && call.text(1) == kDir && ++opened == 1) {
                move(kRoot + "/a", "/media/sdcard/away");
                QCOMPARE(::symlink(elsewhere, kRoot + "/a"), 0);
            }
        });
    QVERIFY(traced.isFinished());
    QCOMPARE(opened, 1);
    QCOMPARE(traced.output(), QStringList{"/media/sdcard/w/a/b is not on the card"});
    QVERIFY(exists(elsewhere + "/b/1"));
    QVERIFY(exists("/media/sdcard/away/b/1"));
    TestDevice::remove(elsewhere);
}

void CapacityRacesTest::a_file_is_asked_for_its_status_once_and_a_chosen_one_again_before_it_goes()
{
    QMap<QByteArray, int> expected{{"a", 1}, {"b", 1}, {"1", 2}, {"2", 2}};
    ScannedTree::awaitNextChangeTime();
    for (int i = 0; i < 40; ++i) {
        const QByteArray name = "young " + QByteArray::number(i);
        createFile(kRoot + "/" + name, 0);
        expected[name] = 1;
    }
    const qint64 limit = WatchedCard::used() - 1'500;
    QMap<QByteArray, int> asked;
    QList<QByteArray> removed;
    const TracedProcess traced(
        [limit] {
            WatchedCard::enforce(limit);
            return QStringList();
        },
        [&](const TracedProcess::Call& call) {
            const QByteArray path = call.statusPath();
            if (!path.isEmpty()) {
                ++asked[path];
            } else if (call.number == SYS_unlinkat && call.arguments[2] == 0) {
                removed.append(call.text(1));
            }
        });
    QVERIFY(traced.isFinished());
    QCOMPARE(asked, expected);
    QCOMPARE(removed, (QList<QByteArray>{"1", "2"}));
}

void CapacityRacesTest::a_directory_is_not_opened_for_each_of_its_files()
{
    for (int i = 0; i < 100; ++i) {
        createFile(kDir + "/file " + QByteArray::number(i), 10);
    }
    int opened = 0;
    const TracedProcess traced(enforceNothing, [&opened](const TracedProcess::Call& call) {
        opened += call.number == SYS_openat && call.text(1) == kDir ? 1 : 0;
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    // To be read, to remove its files, and to see that it is empty.
    QCOMPARE(opened, 3);
}

TEST_DEVICE_MAIN(CapacityRacesTest)
#include "CapacityRacesTest.moc"
