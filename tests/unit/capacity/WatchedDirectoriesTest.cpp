#include <cerrno>

#include <QCoreApplication>
#include <QTest>
#include <QTextCodec>

#include <sys/stat.h>
#include <sys/statvfs.h>
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

bool isSizeUnknown = false;

QByteArray watched(const QByteArray& name, const QByteArray& size = "0",
                   const QByteArray& children = {})
{
    return "<dir capacitywatch='true' size='" + size + "'>" + name + children + "</dir>";
}

/// A watcher of the directories in a configuration.
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

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

int __real_statvfs64(const char*, struct statvfs64*);

int __wrap_statvfs64(const char* path, struct statvfs64* status)
{
    if (isSizeUnknown) {
        errno = EIO;
        return -1;
    }
    return __real_statvfs64(path, status);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

/// Which directories are watched, with which limits, and how callers select them.
class WatchedDirectoriesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void only_marked_directories_are_watched_once_the_list_is_built();
    void a_directory_is_selected_by_its_base_name_data();
    void a_directory_is_selected_by_its_base_name();
    void the_limit_is_the_share_of_the_card_data();
    void the_limit_is_the_share_of_the_card();
    void a_card_with_an_unreadable_size_has_limits_of_0();
    void paths_stay_utf_8_in_the_c_locale();
    void directories_that_cannot_be_watched_are_left_out();
    void a_directory_that_becomes_usable_is_watched_from_then_on();
    void a_watched_directory_that_has_vanished_is_reported();
    void a_link_is_followed_on_the_card_and_not_off_it();
    void one_level_and_a_whole_tree_are_measured();
};

void WatchedDirectoriesTest::init()
{
    QVERIFY(TestDevice::mountTmpfs(kCard, kCardSize));
}

void WatchedDirectoriesTest::cleanup()
{
    isSizeUnknown = false;
    WatchedCard::remove();
    TestDevice::remove("/elsewhere");
}

void WatchedDirectoriesTest::only_marked_directories_are_watched_once_the_list_is_built()
{
    for (const char* const name : {"/a", "/b", "/c"}) {
        createDirectory(kCard + name);
    }
    createFile(kCard + "/a/file", 100);
    const ConfigHandler config = CardConfig::withChildren(
        watched("x/..//./a/") + "<dir capacitywatch='TRUE' size='0'>b</dir><dir size='0'>c</dir>");
    StorageCapacityWatcher watcher(config);
    const LogCapture log;
    QVERIFY(!watcher.ensureDirSize("a"));
    QVERIFY(watcher.ensureDirSize(""));
    QVERIFY(exists(kCard + "/a/file"));
    watcher.updateWatchDirs();
    QVERIFY(watcher.ensureDirSize("a"));
    QVERIFY(!exists(kCard + "/a/file"));
    QVERIFY(!watcher.ensureDirSize("b"));
    QVERIFY(!watcher.ensureDirSize("c"));
    QCOMPARE(log.messages(), (QStringList{noWatchedDirectory("a"), noWatchedDirectory("b"),
                                          noWatchedDirectory("c")}));
}

void WatchedDirectoriesTest::a_directory_is_selected_by_its_base_name_data()
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
    QTest::newRow("dot") << "." << false;
    QTest::newRow("mount point") << "sdcard" << false;
}

void WatchedDirectoriesTest::a_directory_is_selected_by_its_base_name()
{
    QFETCH(const QString, identifier);
    QFETCH(const bool, isKnown);
    for (const char* const path : {"/logs", "/logs/old", "/with blank"}) {
        createDirectory(kCard + path);
    }
    const Watch watch(watched("logs", "90", watched("old", "90")) + watched("with blank", "90"));
    const LogCapture log;
    QCOMPARE(watch.watcher.ensureDirSize(identifier), isKnown);
    QCOMPARE(log.messages(), isKnown ? QStringList() : QStringList{noWatchedDirectory(identifier)});
}

void WatchedDirectoriesTest::the_limit_is_the_share_of_the_card_data()
{
    QTest::addColumn<QByteArray>("size");
    QTest::addColumn<qint64>("limit");
    QTest::newRow("half") << QByteArray("50") << kCardSize / 2;
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
    // A hole, so that the file may be larger than the card.
    QCOMPARE(::truncate((dir + "/young").constData(), rest), 0);
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QVERIFY(exists(dir + "/old"));
    QCOMPARE(::truncate((dir + "/young").constData(), rest + 1), 0);
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QVERIFY(!exists(dir + "/old"));
}

void WatchedDirectoriesTest::a_card_with_an_unreadable_size_has_limits_of_0()
{
    createDirectory(kCard + "/w");
    createFile(kCard + "/w/file", 0);
    isSizeUnknown = true;
    const Watch watch(watched("w", "90"));
    const LogCapture log;
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QVERIFY(!exists(kCard + "/w/file"));
    QCOMPARE(log.messages(), QStringList());
}

void WatchedDirectoriesTest::paths_stay_utf_8_in_the_c_locale()
{
    QTextCodec* const codec = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("US-ASCII"));
    QVERIFY(QString::fromUtf8("ä").toLocal8Bit() != "ä");
    // The text of an element is read as Latin-1.
    const QString name = QString::fromLatin1("Müll 数据");
    const QByteArray dir = kCard + "/" + name.toUtf8();
    createDirectory(dir);
    createDirectory(dir + "/ä");
    createFile(dir + "/ä/ö", 100);
    createFile(dir + "/ü", 100);
    WatchedCard::makeBusy(dir + "/ü");
    const LogCapture log;
    const Watch watch(watched("Müll 数据"));
    const bool isKnown = watch.watcher.ensureDirSize(name);
    QTextCodec::setCodecForLocale(codec);
    QVERIFY(isKnown);
    QVERIFY(!exists(dir + "/ä"));
    QCOMPARE(log.messages(), (QStringList{"Configuration successfully parsed",
                                          "Cannot remove file " + QString::fromUtf8(dir + "/ü") +
                                              ": Device or resource busy"}));
}

void WatchedDirectoriesTest::directories_that_cannot_be_watched_are_left_out()
{
    createFile(kCard + "/file");
    createDirectory(kCard + "/target");
    QCOMPARE(::symlink("target", (kCard + "/link").constData()), 0);
    for (const char* const name : {"/closed", "/read-only", "/last"}) {
        createDirectory(kCard + name);
    }
    // The owner's bits decide, for every owner.
    QCOMPARE(::chmod((kCard + "/closed").constData(), 0077), 0);
    QCOMPARE(::chmod((kCard + "/read-only").constData(), 0577), 0);
    QCOMPARE(::chmod((kCard + "/last").constData(), 0600), 0);
    QCOMPARE(::chown((kCard + "/last").constData(), 1234, 1234), 0);
    const QString missing =
        "SDCardFileInfo() fstatat() failed for /media/sdcard/missing: No such file or directory";
    const LogCapture log;
    const Watch watch(watched("missing") + watched("file") + watched("link") + watched("closed") +
                      watched("read-only") + watched("last", "90"));
    QCOMPARE(log.messages(LogLevel::Error), (QStringList{
                                                missing,
                                                "/media/sdcard/missing does not exist",
                                                "/media/sdcard/file is not a directory",
                                                "/media/sdcard/link is not a directory",
                                                "/media/sdcard/closed is not readable",
                                                "/media/sdcard/read-only is not writable",
                                            }));
    QCOMPARE(log.errorCount(), 6U);
    for (const char* const name : {"missing", "file", "link", "closed", "read-only"}) {
        QVERIFY(!watch.watcher.ensureDirSize(name));
    }
    QVERIFY(watch.watcher.ensureDirSize("last"));
}

void WatchedDirectoriesTest::a_directory_that_becomes_usable_is_watched_from_then_on()
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

void WatchedDirectoriesTest::a_watched_directory_that_has_vanished_is_reported()
{
    createDirectory(kCard + "/w");
    const Watch watch(watched("w"));
    QCOMPARE(::rmdir((kCard + "/w").constData()), 0);
    const LogCapture log;
    QVERIFY(watch.watcher.ensureDirSize("w"));
    const QString failed = "fstatat() failed for /media/sdcard/w: No such file or directory";
    QCOMPARE(log.messages(LogLevel::Error), (QStringList{"SDCardFileInfo() " + failed, failed}));
    QCOMPARE(log.records().size(), 2);
    QCOMPARE(log.errorCount(), 2U);
}

void WatchedDirectoriesTest::a_link_is_followed_on_the_card_and_not_off_it()
{
    createDirectory("/elsewhere");
    const QByteArray inside = kCard + "/inside";
    createDirectory(inside);
    for (const QByteArray& parent : {QByteArray("/elsewhere"), inside}) {
        createDirectory(parent + "/w");
        createFile(parent + "/w/file", 100);
    }
    QCOMPARE(::symlink("/elsewhere", (kCard + "/away").constData()), 0);
    QCOMPARE(::symlink(inside.constData(), (kCard + "/link").constData()), 0);
    const Watch watch("<dir size='50'>away" + watched("w") + "</dir><dir size='50'>link" +
                      watched("w") + "</dir>");
    const LogCapture log;
    // With two directories of the same name the first one is used.
    QVERIFY(watch.watcher.ensureDirSize("w"));
    QVERIFY(exists(inside + "/w/file"));
    watch.watcher.ensureDirSizeAll();
    QVERIFY(exists("/elsewhere/w/file"));
    QVERIFY(!exists(inside + "/w/file"));
    const QString message = "/media/sdcard/away/w is not on the card";
    QCOMPARE(log.messages(LogLevel::Error), (QStringList{message, message}));
    QCOMPARE(log.errorCount(), 2U);
}

void WatchedDirectoriesTest::one_level_and_a_whole_tree_are_measured()
{
    createDirectory(kCard + "/w");
    createFile(kCard + "/w/file", 1000);
    createFile(kCard + "/.hidden", 200);
    QCOMPARE(::symlink("/etc", (kCard + "/link").constData()), 0);
    const Watch watch({});
    const LogCapture log;
    const qint64 ofCard = ScannedTree::sizeOf(kCard) + 204;
    QCOMPARE(watch.watcher.dirSizeFlat(kCard), ofCard);
    QCOMPARE(watch.watcher.dirSize(kCard), ofCard + ScannedTree::sizeOf(kCard + "/w") + 1000);
    QCOMPARE(log.messages(), QStringList());
}

TEST_DEVICE_MAIN(WatchedDirectoriesTest)
#include "WatchedDirectoriesTest.moc"
