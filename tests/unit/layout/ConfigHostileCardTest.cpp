#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include "CardConfig.h"
#include "LogCapture.h"
#include "TestDevice.h"
#include "config.h"

namespace {

constexpr qint64 kCardSize = 1048576;

unsigned modeOf(const char* path)
{
    struct stat status = {};
    ::lstat(path, &status);
    return status.st_mode;
}

} // namespace

/// The layout on cards that hold something else where it wants to be.
class ConfigHostileCardTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_link_to_a_directory_is_taken_for_the_directory();
    void a_dangling_link_is_no_directory();
    void a_link_to_itself_is_no_directory();
    void a_file_in_place_of_a_directory_is_corrected_but_stays();
    void what_is_nested_in_a_file_fails();
    void what_is_no_link_stays_where_a_link_belongs_data();
    void what_is_no_link_stays_where_a_link_belongs();
    void a_link_to_a_directory_is_replaced_and_the_directory_stays();
    void the_parent_link_of_a_name_with_dots_is_followed();
};

void ConfigHostileCardTest::init()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    QVERIFY(QDir().mkpath("/outside"));
    QCOMPARE(::chmod("/outside", 0700), 0);
}

void ConfigHostileCardTest::cleanup()
{
    TestDevice::unmountAll(CardConfig::kMountPoint);
    TestDevice::remove("/outside");
}

void ConfigHostileCardTest::a_link_to_a_directory_is_taken_for_the_directory()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1' mode='0750'>a</dir>");
    QCOMPARE(::symlink("/outside", "/media/sdcard/a"), 0);
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QVERIFY(S_ISLNK(modeOf("/media/sdcard/a")));
    QCOMPARE(modeOf("/outside"), unsigned{S_IFDIR | 0750});
    QCOMPARE(log.messages(), QStringList{"Correct directory mode '0750' for '/media/sdcard/a'"});
}

void ConfigHostileCardTest::a_dangling_link_is_no_directory()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>a</dir>");
    QCOMPARE(::symlink("/outside/missing", "/media/sdcard/a"), 0);
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    QCOMPARE(log.messages(LogLevel::Error),
             (QStringList{"Can't create directory for '/media/sdcard/a' (File exists)",
                          "Can't set directory owner for '/media/sdcard/a' "
                          "(No such file or directory)"}));
    QVERIFY(!QFileInfo::exists("/outside/missing"));
}

void ConfigHostileCardTest::a_link_to_itself_is_no_directory()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>a</dir>");
    QCOMPARE(::symlink("a", "/media/sdcard/a"), 0);
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    QCOMPARE(log.messages(LogLevel::Error),
             (QStringList{"Can't create directory for '/media/sdcard/a' (File exists)",
                          "Can't set directory owner for '/media/sdcard/a' "
                          "(Too many levels of symbolic links)"}));
}

void ConfigHostileCardTest::a_file_in_place_of_a_directory_is_corrected_but_stays()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1' mode='0750'>a</dir>");
    TestDevice::writeFile("/media/sdcard/a", "content");
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(modeOf("/media/sdcard/a"), unsigned{S_IFREG | 0750});
    QCOMPARE(TestDevice::readFile("/media/sdcard/a"), QByteArray("content"));
    QCOMPARE(log.messages(), QStringList{"Correct directory mode '0750' for '/media/sdcard/a'"});
}

void ConfigHostileCardTest::what_is_nested_in_a_file_fails()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1' mode='0644'>a<dir size='1'>b</dir><symlink target='t'>l</symlink></dir>");
    TestDevice::writeFile("/media/sdcard/a", "content");
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    QCOMPARE(log.messages(),
             (QStringList{"Can't create directory for '/media/sdcard/a/b' (Not a directory)",
                          "Can't set directory owner for '/media/sdcard/a/b' (Not a directory)",
                          "Cannot create symlink '/media/sdcard/a/l' (Not a directory)"}));
}

void ConfigHostileCardTest::what_is_no_link_stays_where_a_link_belongs_data()
{
    QTest::addColumn<uint>("type");
    QTest::newRow("empty file") << uint{S_IFREG};
    QTest::newRow("directory") << uint{S_IFDIR};
    QTest::newRow("pipe") << uint{S_IFIFO};
    QTest::newRow("socket") << uint{S_IFSOCK};
    QTest::newRow("huge file") << uint{0};
}

void ConfigHostileCardTest::what_is_no_link_stays_where_a_link_belongs()
{
    QFETCH(uint, type);
    const ConfigHandler config = CardConfig::withChildren("<symlink target='t'>l</symlink>");
    if (type == S_IFDIR) {
        QCOMPARE(::mkdir("/media/sdcard/l", 0755), 0);
    } else {
        QCOMPARE(::mknod("/media/sdcard/l", (type == 0 ? uint{S_IFREG} : type) | 0644U, 0), 0);
    }
    if (type == 0) {
        // More than memory could hold.
        QCOMPARE(::truncate("/media/sdcard/l", qint64{1} << 42), 0);
        type = S_IFREG;
    }
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    const LogRecord expected{
        LogLevel::Error, "config", "config", "bool ConfigHandler::applyConfigLayout() const",
        "Cannot read target of existing symlink '/media/sdcard/l' (Invalid argument)"};
    QCOMPARE(log.records(), QVector<LogRecord>{expected});
    QCOMPARE(log.errorCount(), 1U);
    QCOMPARE(modeOf("/media/sdcard/l") & S_IFMT, type);
}

void ConfigHostileCardTest::a_link_to_a_directory_is_replaced_and_the_directory_stays()
{
    const ConfigHandler config = CardConfig::withChildren("<symlink target='t'>l</symlink>");
    TestDevice::writeFile("/outside/kept", "content");
    QCOMPARE(::symlink("/outside", "/media/sdcard/l"), 0);
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(QFile::symLinkTarget("/media/sdcard/l"), QString("/media/sdcard/t"));
    QCOMPARE(TestDevice::readFile("/outside/kept"), QByteArray("content"));
    QCOMPARE(log.messages(), QStringList());
}

void ConfigHostileCardTest::the_parent_link_of_a_name_with_dots_is_followed()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>a/../b</dir>");
    QVERIFY(QDir().mkpath("/media/sdcard/inner/deep"));
    QCOMPARE(::symlink("inner/deep", "/media/sdcard/a"), 0);
    QVERIFY(config.applyConfigLayout());
    QVERIFY(QFileInfo("/media/sdcard/inner/b").isDir());
    QVERIFY(!QFileInfo::exists("/media/sdcard/b"));
}

TEST_DEVICE_MAIN(ConfigHostileCardTest)
#include "ConfigHostileCardTest.moc"
