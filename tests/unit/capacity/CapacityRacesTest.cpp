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
#include "SDCardFileInfo.h"
#include "ScannedTree.h"
#include "StorageCapacityWatcher.h"
#include "TestDevice.h"
#include "TracedProcess.h"
#include "WatchedCard.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::exists;
using ScannedTree::sizeOf;

using Change = std::function<void()>;
Q_DECLARE_METATYPE(Change)

namespace {

const QByteArray kRoot = WatchedCard::kDirectory;
const QByteArray kDir = kRoot + "/a/b";
const QByteArray kOutside = "/media/sdcard/outside";
const QByteArray kAway = "/media/sdcard/away";
const QString kNoEntry = QStringLiteral("No such file or directory");
const QString kStale = QStringLiteral("Stale file handle");

bool isOpeningOf(const TracedProcess::Call& call, const QByteArray& path)
{
    return call.number == SYS_openat && call.text(1) == path;
}

/// Whether the call removes a directory with this name from its parent.
bool isRemovalOf(const TracedProcess::Call& call, const QByteArray& name)
{
    return call.number == SYS_unlinkat && call.arguments[2] == AT_REMOVEDIR && call.text(1) == name;
}

/// Bytes of the directory, then the messages.
QStringList measure()
{
    const LogCapture log;
    const ConfigHandler config;
    const qint64 size = StorageCapacityWatcher(config).dirSize(kRoot);
    return QStringList{QString::number(size)} + log.messages(LogLevel::Error);
}

/// Brings the directory within a limit that is smaller than any file; returns the messages.
QStringList enforceNothing()
{
    const LogCapture log;
    WatchedCard::enforce(0);
    return log.messages();
}

/// Runs the work and makes a change right before the @p occurrence-th call of a kind.
QStringList doAndChange(QStringList (*work)(), const Change& change,
                        const std::function<bool(const TracedProcess::Call&)>& isMoment,
                        int occurrence = 1)
{
    int seen = 0;
    const TracedProcess traced(work, [&](const TracedProcess::Call& call) {
        if (isMoment(call) && ++seen == occurrence) {
            change();
        }
    });
    return traced.isFinished() && seen >= occurrence ? traced.output() : QStringList{"no moment"};
}

/// Makes a change between the choice of the files and the first removal: at the second opening of
/// the directory.
QStringList enforceAndChange(const Change& change)
{
    return doAndChange(
        enforceNothing, change,
        [](const TracedProcess::Call& call) { return isOpeningOf(call, kDir); }, 2);
}

void move(const QByteArray& from, const QByteArray& to)
{
    QCOMPARE(std::rename(from.constData(), to.constData()), 0);
}

void createLink(const QByteArray& target, const QByteArray& path)
{
    QCOMPARE(::symlink(target.constData(), path.constData()), 0);
}

QString cannotRemove(const QString& name, const QString& why)
{
    return "Cannot remove file /media/sdcard/w/a/b/" + name + ": " + why;
}

QString cannotRemoveDirectory(const QString& why)
{
    return "Cannot remove empty directory /media/sdcard/w/a/b: " + why;
}

} // namespace

/// Cards that change during the scan, and between the choice of files and their removal.
class CapacityRacesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void a_directory_replaced_since_the_listing_is_not_measured_data() { replacements(); }
    void a_directory_replaced_since_the_listing_is_not_measured();
    void files_of_another_directory_stay_data() { replacements(); }
    void files_of_another_directory_stay();
    void an_entry_with_an_unreadable_status_is_tried_for_removal();
    void a_directory_with_an_unreadable_status_is_not_a_file();
    void only_the_chosen_file_itself_is_removed_data();
    void only_the_chosen_file_itself_is_removed();
    void a_directory_that_was_filled_again_stays();
    void a_directory_that_became_a_link_stays();
    void a_directory_emptied_by_another_process_is_removed_at_once();
    void a_parent_that_has_vanished_is_reported();
    void directories_of_another_tree_stay();
    void a_path_that_leads_off_the_card_when_it_is_opened_is_left_alone();
    void a_status_is_read_once_and_again_before_a_removal();
    void a_directory_is_not_opened_for_each_of_its_files();

private:
    static void replacements();
};

void CapacityRacesTest::initTestCase()
{
    // At its first use it looks for its configuration, which is not a call of the service.
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

void CapacityRacesTest::replacements()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<QString>("whyNotMeasured");
    QTest::addColumn<QString>("whyNotRemoved");
    const QString failed = "fstatat() failed for /media/sdcard/w/a/b: ";
    const QString noDirectory = "It is not a directory: /media/sdcard/w/a/b";
    QTest::newRow("gone") << Change([] { move(kDir, kAway); }) << failed + kNoEntry << kNoEntry;
    QTest::newRow("link out of the tree") << Change([] {
        move(kDir, kAway);
        createLink(kOutside, kDir);
    }) << noDirectory << "Not a directory";
    QTest::newRow("parent that links out of the tree") << Change([] {
        move(kRoot + "/a", kAway);
        createLink(kOutside, kRoot + "/a");
    }) << failed + kStale << kStale;
    QTest::newRow("another directory") << Change([] {
        move(kDir, kAway);
        move(kOutside + "/b", kDir);
    }) << failed + kStale << kStale;
    QTest::newRow("another file system") << Change([] {
        QVERIFY(TestDevice::mountTmpfs(kDir, 1048576));
        createFile(kDir + "/1");
    }) << failed + kStale << kStale;
}

void CapacityRacesTest::a_directory_replaced_since_the_listing_is_not_measured()
{
    QFETCH(const Change, change);
    QFETCH(const QString, whyNotMeasured);
    const qint64 rest = sizeOf(kRoot) + sizeOf(kRoot + "/a");
    const QStringList output = doAndChange(
        measure, change, [](const TracedProcess::Call& call) { return isOpeningOf(call, kDir); });
    QCOMPARE(output, (QStringList{QString::number(rest), whyNotMeasured}));
}

void CapacityRacesTest::files_of_another_directory_stay()
{
    QFETCH(const Change, change);
    QFETCH(const QString, whyNotRemoved);
    QList<QByteArray> before;
    const QStringList messages = enforceAndChange([&] {
        change();
        for (const ScannedTree::Entry& entry : ScannedTree::list("/media/sdcard")) {
            before.append(entry.path);
        }
    });
    QCOMPARE(messages,
             (QStringList{cannotRemove("1", whyNotRemoved), cannotRemove("2", whyNotRemoved)}));
    QVERIFY(before.size() > 6);
    for (const QByteArray& path : before) {
        QVERIFY2(exists(path), path);
    }
}

void CapacityRacesTest::an_entry_with_an_unreadable_status_is_tried_for_removal()
{
    const QStringList messages = doAndChange(
        enforceNothing, [] { QCOMPARE(::unlink(kDir + "/2"), 0); },
        [](const TracedProcess::Call& call) { return call.statusPath() == "2"; });
    const QString path = "/media/sdcard/w/a/b/2";
    QCOMPARE(messages, (QStringList{
                           "fstatat() failed for " + path + ": " + kNoEntry,
                           "SDCardFileInfo() fstatat() failed for " + path + ": " + kNoEntry,
                           cannotRemove("2", kNoEntry),
                       }));
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
}

void CapacityRacesTest::a_directory_with_an_unreadable_status_is_not_a_file()
{
    const QStringList messages = doAndChange(
        enforceNothing, [] { move(kDir, kAway); },
        [](const TracedProcess::Call& call) { return call.statusPath() == "b"; });
    QCOMPARE(messages, (QStringList{
                           "fstatat() failed for /media/sdcard/w/a/b: " + kNoEntry,
                           "/media/sdcard/w exceed limit but there are no files to remove",
                       }));
}

void CapacityRacesTest::only_the_chosen_file_itself_is_removed_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<QString>("why");
    QTest::newRow("gone") << Change([] {}) << kNoEntry;
    QTest::newRow("directory") << Change([] { createDirectory(kDir + "/1"); }) << kStale;
    QTest::newRow("new file") << Change([] { move(kOutside + "/1", kDir + "/1"); }) << kStale;
    QTest::newRow("written to") << Change([] {
        move(kAway, kDir + "/1");
        TestDevice::writeFile(kDir + "/1", "more");
    }) << QString();
}

void CapacityRacesTest::only_the_chosen_file_itself_is_removed()
{
    QFETCH(const Change, change);
    QFETCH(const QString, why);
    const QStringList messages = enforceAndChange([&change] {
        move(kDir + "/1", kAway);
        change();
    });
    const bool stays = why == kStale;
    QCOMPARE(messages, why.isEmpty() ? QStringList() : QStringList{cannotRemove("1", why)});
    QCOMPARE(WatchedCard::entries(),
             stays ? (QList<QByteArray>{kRoot + "/a", kDir, kDir + "/1"}) : QList<QByteArray>());
}

void CapacityRacesTest::a_directory_that_was_filled_again_stays()
{
    const QStringList messages = doAndChange(
        enforceNothing, [] { createFile(kDir + "/new", 10); },
        [](const TracedProcess::Call& call) { return isRemovalOf(call, "b"); });
    QCOMPARE(messages, QStringList());
    QVERIFY(exists(kDir + "/new"));
}

void CapacityRacesTest::a_directory_that_became_a_link_stays()
{
    createDirectory(kOutside + "/empty");
    const QStringList messages = doAndChange(
        enforceNothing,
        [] {
            QCOMPARE(::rmdir(kDir), 0);
            createLink(kOutside + "/empty", kDir);
        },
        [](const TracedProcess::Call& call) { return isRemovalOf(call, "b"); });
    QCOMPARE(messages, QStringList{cannotRemoveDirectory("Not a directory")});
    QVERIFY(exists(kDir));
    QVERIFY(exists(kOutside + "/empty"));
}

void CapacityRacesTest::a_directory_emptied_by_another_process_is_removed_at_once()
{
    int opened = 0;
    const TracedProcess traced(enforceNothing, [&opened](const TracedProcess::Call& call) {
        if (call.number == SYS_unlinkat && call.text(1) == "2") {
            QCOMPARE(::unlink(kDir + "/2"), 0);
        }
        opened += isOpeningOf(call, kDir) ? 1 : 0;
    });
    QCOMPARE(traced.output(), QStringList{cannotRemove("2", kNoEntry)});
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    // Would be opened once more at the end.
    QCOMPARE(opened, 2);
}

void CapacityRacesTest::a_parent_that_has_vanished_is_reported()
{
    const QStringList messages = doAndChange(
        enforceNothing, [] { move(kRoot + "/a", kAway); },
        [](const TracedProcess::Call& call) { return isRemovalOf(call, "b"); });
    QCOMPARE(messages, QStringList{"Cannot get parent directory of /media/sdcard/w/a/b"});
    QVERIFY(exists(kAway));
    QVERIFY(!exists(kAway + "/b"));
}

void CapacityRacesTest::directories_of_another_tree_stay()
{
    createDirectory(kOutside + "/a");
    createDirectory(kOutside + "/a/b");
    // The second opening of the parent precedes the removal of its directory.
    const QStringList messages = doAndChange(
        enforceNothing,
        [] {
            move(kRoot, kAway);
            createLink(kOutside, kRoot);
        },
        [](const TracedProcess::Call& call) { return isOpeningOf(call, kRoot + "/a"); }, 2);
    QCOMPARE(messages, QStringList{cannotRemoveDirectory(kStale)});
    QVERIFY(exists(kOutside + "/a/b"));
    QVERIFY(exists(kAway + "/a/b"));
}

void CapacityRacesTest::a_path_that_leads_off_the_card_when_it_is_opened_is_left_alone()
{
    const QByteArray elsewhere = "/elsewhere";
    createDirectory(elsewhere);
    createDirectory(elsewhere + "/b");
    createFile(elsewhere + "/b/1", 10);
    CardConfig::write("<sdcard><dir size='50'>w<dir size='50'>a<dir size='0' "
                      "capacitywatch='true'>b</dir></dir></dir></sdcard>");
    const QStringList messages = doAndChange(
        [] {
            ConfigHandler config;
            config.setup();
            StorageCapacityWatcher watcher(config);
            watcher.updateWatchDirs();
            const LogCapture log;
            watcher.ensureDirSizeAll();
            return log.messages();
        },
        [&] {
            move(kRoot + "/a", kAway);
            createLink(elsewhere, kRoot + "/a");
        },
        [](const TracedProcess::Call& call) { return isOpeningOf(call, kDir); });
    QCOMPARE(messages, QStringList{"/media/sdcard/w/a/b is not on the card"});
    QVERIFY(exists(elsewhere + "/b/1"));
    QVERIFY(exists(kAway + "/b/1"));
    TestDevice::remove(elsewhere);
}

void CapacityRacesTest::a_status_is_read_once_and_again_before_a_removal()
{
    QMap<QByteArray, int> expected{{"a", 1}, {"b", 1}, {"1", 2}, {"2", 2}};
    ScannedTree::awaitNextChangeTime();
    for (int i = 0; i < 40; ++i) {
        const QByteArray name = "young " + QByteArray::number(i);
        createFile(kRoot + "/" + name, 0);
        expected[name] = 1;
    }
    // Entries that are not directories and have a record of their own.
    expected[kRoot + "/young 1"] = 1;
    expected[kRoot + "/young 2"] = 1;
    const qint64 limit = WatchedCard::used() - 1'500;
    QMap<QByteArray, int> asked;
    QList<QByteArray> removed;
    quint64 lackingFlags = 0;
    const TracedProcess traced(
        [limit] {
            const LogCapture log;
            const ConfigHandler config;
            StorageCapacityWatcher(config).dirSize(kRoot + "/young 1");
            const SDCardFileInfo info(kRoot + "/young 2");
            WatchedCard::enforce(limit);
            return QStringList();
        },
        [&](const TracedProcess::Call& call) {
            const QByteArray path = call.statusPath();
            if (!path.isEmpty()) {
                ++asked[path];
                lackingFlags |= ~call.statusFlags() & (AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
            } else if (call.number == SYS_unlinkat && call.arguments[2] == 0) {
                removed.append(call.text(1));
            }
        });
    QVERIFY(traced.isFinished());
    QCOMPARE(asked, expected);
    QCOMPARE(lackingFlags, quint64{0});
    QCOMPARE(removed, (QList<QByteArray>{"1", "2"}));
}

void CapacityRacesTest::a_directory_is_not_opened_for_each_of_its_files()
{
    for (int i = 0; i < 100; ++i) {
        createFile(kDir + "/file " + QByteArray::number(i), 10);
    }
    int opened = 0;
    quint64 lackingFlags = 0;
    const TracedProcess traced(enforceNothing, [&](const TracedProcess::Call& call) {
        if (isOpeningOf(call, kDir)) {
            ++opened;
            // Started programs must not inherit the descriptor, and no link is followed.
            lackingFlags |= ~call.arguments[2] & (O_CLOEXEC | O_NOFOLLOW);
        }
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(lackingFlags, quint64{0});
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    // Once to read it, once to remove its files.
    QCOMPARE(opened, 2);
}

TEST_DEVICE_MAIN(CapacityRacesTest)
#include "CapacityRacesTest.moc"
