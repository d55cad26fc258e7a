#include <algorithm>
#include <array>
#include <climits>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTest>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CardConfig.h"
#include "LogCapture.h"
#include "TestDevice.h"
#include "config.h"

namespace {

constexpr qint64 kCardSize = 1048576;
constexpr mode_t kPermissions = 07777;
LogRecord record(LogLevel level, const QString& message)
{
    return {level, "config", "config", "bool ConfigHandler::applyConfigLayout() const", message};
}

struct stat statusOf(const char* path)
{
    struct stat status = {};
    ::lstat(path, &status);
    return status;
}

unsigned modeOf(const char* path)
{
    return statusOf(path).st_mode & kPermissions;
}

QByteArray contentOf(const char* link)
{
    std::array<char, PATH_MAX> content{};
    const ssize_t size = ::readlink(link, content.data(), content.size());
    return {content.data(), static_cast<int>(std::max<ssize_t>(size, 0))};
}

} // namespace

class ConfigLayoutTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void an_empty_layout_touches_nothing();
    void missing_directories_are_created_parents_first();
    void a_new_directory_gets_mode_and_owner();
    void the_creation_mask_narrows_a_new_directory_until_the_next_run();
    void a_wrong_mode_is_corrected_and_told();
    void special_mode_bits_are_not_compared();
    void a_wrong_owner_is_corrected_and_told_data();
    void a_wrong_owner_is_corrected_and_told();
    void a_missing_mount_point_fails_every_step();
    void failures_on_a_read_only_card_are_told();
    void missing_links_are_created_as_configured();
    void a_right_link_is_not_touched();
    void a_link_with_another_content_is_replaced_data();
    void a_link_with_another_content_is_replaced();
    void a_second_run_changes_and_tells_nothing();
    void a_failed_step_does_not_stop_the_others();
};

void ConfigLayoutTest::init()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    ::umask(022);
}

void ConfigLayoutTest::cleanup()
{
    TestDevice::unmountAll(CardConfig::kMountPoint);
}

void ConfigLayoutTest::an_empty_layout_touches_nothing()
{
    const ConfigHandler config = CardConfig::withChildren("");
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(QDir("/media/sdcard").entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList());
}

void ConfigLayoutTest::missing_directories_are_created_parents_first()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1'>a<dir size='1'>b<dir size='1'>c</dir></dir></dir><dir size='1'>d</dir>");
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(QFileInfo("/media/sdcard/a/b/c").isDir());
    QVERIFY(QFileInfo("/media/sdcard/d").isDir());
}

void ConfigLayoutTest::a_new_directory_gets_mode_and_owner()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1' mode='0700' owner='daemon:mail'>a</dir><dir size='1'>b</dir>");
    QVERIFY(config.applyConfigLayout());
    const DirInfo::Ids ids = config.dirs().at(0).ownerIds();
    QVERIFY(ids.user != 0 && ids.group != 0);
    QCOMPARE(modeOf("/media/sdcard/a"), 0700U);
    QCOMPARE(statusOf("/media/sdcard/a").st_uid, ids.user);
    QCOMPARE(statusOf("/media/sdcard/a").st_gid, ids.group);
    QCOMPARE(modeOf("/media/sdcard/b"), 0755U);
    QCOMPARE(statusOf("/media/sdcard/b").st_uid, uid_t{0});
    QCOMPARE(statusOf("/media/sdcard/b").st_gid, gid_t{0});
}

void ConfigLayoutTest::the_creation_mask_narrows_a_new_directory_until_the_next_run()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1' mode='0777'>a</dir>");
    ::umask(027);
    LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(modeOf("/media/sdcard/a"), 0750U);
    QCOMPARE(log.take().size(), 0);
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(modeOf("/media/sdcard/a"), 0777U);
    QCOMPARE(log.messages(), QStringList{"Correct directory mode '0777' for '/media/sdcard/a'"});
}

void ConfigLayoutTest::a_wrong_mode_is_corrected_and_told()
{
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='1'>a</dir><dir size='1' mode='750'>b</dir>");
    QCOMPARE(::mkdir("/media/sdcard/a", 0700), 0);
    QCOMPARE(::mkdir("/media/sdcard/b", 0755), 0);
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(modeOf("/media/sdcard/a"), 0755U);
    QCOMPARE(modeOf("/media/sdcard/b"), 0750U);
    QCOMPARE(log.records(),
             (QVector<LogRecord>{
                 record(LogLevel::Warn, "Correct directory mode '' for '/media/sdcard/a'"),
                 record(LogLevel::Warn, "Correct directory mode '750' for '/media/sdcard/b'")}));
    QCOMPARE(log.errorCount(), 0U);
}

void ConfigLayoutTest::special_mode_bits_are_not_compared()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>a</dir>");
    QCOMPARE(::mkdir("/media/sdcard/a", 0755), 0);
    QCOMPARE(::chmod("/media/sdcard/a", 07755), 0);
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(modeOf("/media/sdcard/a"), 07755U);
    QCOMPARE(log.messages(), QStringList());
}

void ConfigLayoutTest::a_wrong_owner_is_corrected_and_told_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<uint>("group");
    QTest::newRow("both") << 4001U << 4002U;
    QTest::newRow("user") << 4001U << 0U;
    QTest::newRow("group") << 0U << 4002U;
}

void ConfigLayoutTest::a_wrong_owner_is_corrected_and_told()
{
    QFETCH(const uint, user);
    QFETCH(const uint, group);
    const ConfigHandler config = CardConfig::withChildren("<dir size='1' owner='root'>a</dir>");
    QCOMPARE(::mkdir("/media/sdcard/a", 0755), 0);
    QCOMPARE(::chown("/media/sdcard/a", user, group), 0);
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(statusOf("/media/sdcard/a").st_uid, uid_t{0});
    QCOMPARE(statusOf("/media/sdcard/a").st_gid, gid_t{0});
    QCOMPARE(log.records(),
             QVector<LogRecord>{
                 record(LogLevel::Warn, "Correct directory owner 'root' for '/media/sdcard/a'")});
}

void ConfigLayoutTest::a_missing_mount_point_fails_every_step()
{
    CardConfig::write("<sdcard mountpoint='/media/none'><dir size='1'>a</dir>"
                      "<symlink target='a'>l</symlink></sdcard>");
    ConfigHandler config;
    QVERIFY(config.setup());
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    const QString reason = " (No such file or directory)";
    QCOMPARE(log.records(),
             (QVector<LogRecord>{
                 record(LogLevel::Error, "Can't create directory for '/media/none/a'" + reason),
                 record(LogLevel::Error, "Can't set directory owner for '/media/none/a'" + reason),
                 record(LogLevel::Error, "Cannot create symlink '/media/none/l'" + reason)}));
    QCOMPARE(log.errorCount(), 3U);
}

void ConfigLayoutTest::failures_on_a_read_only_card_are_told()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1' mode='0700' owner='daemon'>a</dir><dir size='1'>new</dir>"
        "<symlink target='t'>wrong</symlink><symlink target='t'>missing</symlink>");
    QCOMPARE(::mkdir("/media/sdcard/a", 0755), 0);
    QCOMPARE(::symlink("other", "/media/sdcard/wrong"), 0);
    QCOMPARE(::mount(nullptr, "/media/sdcard", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    const QString reason = " (Read-only file system)";
    QCOMPARE(
        log.records(),
        (QVector<LogRecord>{
            record(LogLevel::Error,
                   "Can't set directory mode '0700' for '/media/sdcard/a'" + reason),
            record(LogLevel::Error,
                   "Can't set directory owner 'daemon' for '/media/sdcard/a'" + reason),
            record(LogLevel::Error, "Can't create directory for '/media/sdcard/new'" + reason),
            record(LogLevel::Error,
                   "Can't set directory owner for '/media/sdcard/new' (No such file or directory)"),
            record(LogLevel::Error,
                   "Cannot unlink existing symlink '/media/sdcard/wrong'" + reason),
            record(LogLevel::Error, "Cannot create symlink '/media/sdcard/missing'" + reason)}));
    QCOMPARE(log.errorCount(), 6U);
}

void ConfigLayoutTest::missing_links_are_created_as_configured()
{
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='1'>logs<symlink target='../csv/x'>current</symlink>"
                                 "</dir><symlink target='/nowhere'>top</symlink>");
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(contentOf("/media/sdcard/logs/current"), QByteArray("../csv/x"));
    QCOMPARE(contentOf("/media/sdcard/top"), QByteArray("/nowhere"));
    QCOMPARE(log.messages(), QStringList());
}

void ConfigLayoutTest::a_right_link_is_not_touched()
{
    const ConfigHandler config = CardConfig::withChildren("<symlink target='t'>link</symlink>");
    QCOMPARE(::symlink("t", "/media/sdcard/link"), 0);
    const struct stat before = statusOf("/media/sdcard/link");
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(statusOf("/media/sdcard/link").st_ino, before.st_ino);
    QCOMPARE(log.messages(), QStringList());
}

void ConfigLayoutTest::a_link_with_another_content_is_replaced_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("other") << QByteArray("xyz");
    QTest::newRow("longer") << QByteArray("abcd");
    QTest::newRow("shorter") << QByteArray("ab");
    QTest::newRow("other case") << QByteArray("ABC");
    QTest::newRow("as long as a path can be") << QByteArray(PATH_MAX - 1, 'x');
}

void ConfigLayoutTest::a_link_with_another_content_is_replaced()
{
    QFETCH(const QByteArray, content);
    const ConfigHandler config = CardConfig::withChildren("<symlink target='abc'>link</symlink>");
    QCOMPARE(::symlink(content.constData(), "/media/sdcard/link"), 0);
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(contentOf("/media/sdcard/link"), QByteArray("abc"));
    QCOMPARE(log.messages(), QStringList());
}

void ConfigLayoutTest::a_second_run_changes_and_tells_nothing()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1' mode='0700' owner='daemon:mail'>a<symlink target='x'>l</symlink></dir>");
    QVERIFY(config.applyConfigLayout());
    const struct stat dirBefore = statusOf("/media/sdcard/a");
    const struct stat linkBefore = statusOf("/media/sdcard/a/l");
    const LogCapture log;
    QVERIFY(config.applyConfigLayout());
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(statusOf("/media/sdcard/a").st_ctim.tv_nsec, dirBefore.st_ctim.tv_nsec);
    QCOMPARE(statusOf("/media/sdcard/a/l").st_ino, linkBefore.st_ino);
}

void ConfigLayoutTest::a_failed_step_does_not_stop_the_others()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1'>missing/a</dir><dir size='1'>b</dir>"
        "<symlink target='t'>missing/l</symlink><symlink target='t'>l</symlink>");
    QVERIFY(!config.applyConfigLayout());
    QVERIFY(QFileInfo("/media/sdcard/b").isDir());
    QCOMPARE(contentOf("/media/sdcard/l"), QByteArray("t"));
}

TEST_DEVICE_MAIN(ConfigLayoutTest)
#include "ConfigLayoutTest.moc"
