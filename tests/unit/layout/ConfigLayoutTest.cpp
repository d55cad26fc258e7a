#include <functional>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTest>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CardConfig.h"
#include "CardRoot.h"
#include "LogCapture.h"
#include "PeakMemory.h"
#include "TestDevice.h"
#include "config.h"

namespace {

// The action of another process right before the service creates a directory.
std::function<void()> meanwhile; // NOLINT(cert-err58-cpp)

} // namespace

// Names that the linker prescribes.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" int __real_mkdirat(int directory, const char* path, mode_t mode);
extern "C" int __wrap_mkdirat(int directory, const char* path, mode_t mode)
{
    if (meanwhile) {
        meanwhile();
    }
    return __real_mkdirat(directory, path, mode);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)

namespace {

constexpr qint64 kCardSize = 1048576;
constexpr mode_t kPermissions = 07777;

LogRecord record(LogLevel level, const QString& message)
{
    return {level, "config", "config", "bool ConfigHandler::applyConfigLayout() const", message};
}

unsigned modeOf(const char* path)
{
    struct stat status = {};
    ::lstat(path, &status);
    return status.st_mode & kPermissions;
}

} // namespace

/// Faults that no board can produce.
class ConfigLayoutTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_missing_mount_point_fails_every_step();
    void each_failure_on_a_read_only_card_is_reported_data();
    void each_failure_on_a_read_only_card_is_reported();
    void a_mode_above_0777_is_set_and_reported_at_every_run();
    void a_large_file_in_the_place_of_a_link_takes_no_memory();
    void the_parent_link_of_a_name_with_dots_is_followed();
    void other_file_systems_are_left_alone();
    void a_link_that_takes_the_place_of_a_new_directory_is_not_followed_off_the_card();
    void a_mount_point_that_is_not_mounted_counts_as_the_card();
    void a_mount_over_an_opened_card_is_not_reached();
};

void ConfigLayoutTest::init()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
}

void ConfigLayoutTest::cleanup()
{
    TestDevice::unmountAll(CardConfig::kMountPoint + "/a");
    TestDevice::unmountAll(CardConfig::kMountPoint);
    TestDevice::remove("/media");
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

void ConfigLayoutTest::each_failure_on_a_read_only_card_is_reported_data()
{
    QTest::addColumn<QByteArray>("children");
    QTest::addColumn<QStringList>("messages");
    const QString reason = " (Read-only file system)";
    QTest::newRow("mode") << QByteArray("<dir size='1' mode='0700'>a</dir>")
                          << QStringList{"Can't set directory mode '0700' for '/media/sdcard/a'" +
                                         reason};
    QTest::newRow("owner")
        << QByteArray("<dir size='1' owner='daemon'>a</dir>")
        << QStringList{"Can't set directory owner 'daemon' for '/media/sdcard/a'" + reason};
    QTest::newRow("directory")
        << QByteArray("<dir size='1'>new</dir>")
        << QStringList{
               "Can't create directory for '/media/sdcard/new'" + reason,
               "Can't set directory owner for '/media/sdcard/new' (No such file or directory)"};
    QTest::newRow("other link")
        << QByteArray("<symlink target='t'>wrong</symlink>")
        << QStringList{"Cannot unlink existing symlink '/media/sdcard/wrong'" + reason};
    QTest::newRow("new link") << QByteArray("<symlink target='t'>missing</symlink>")
                              << QStringList{"Cannot create symlink '/media/sdcard/missing'" +
                                             reason};
}

void ConfigLayoutTest::each_failure_on_a_read_only_card_is_reported()
{
    QFETCH(const QByteArray, children);
    QFETCH(const QStringList, messages);
    const ConfigHandler config =
        CardConfig::withChildren(children + "<symlink target='x'>right</symlink>");
    QCOMPARE(::mkdir("/media/sdcard/a", 0755), 0);
    QCOMPARE(::symlink("other", "/media/sdcard/wrong"), 0);
    QCOMPARE(::symlink("x", "/media/sdcard/right"), 0);
    QCOMPARE(::mount(nullptr, "/media/sdcard", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    QVector<LogRecord> expected;
    for (const QString& message : messages) {
        expected.append(record(LogLevel::Error, message));
    }
    QCOMPARE(log.records(), expected);
    QCOMPARE(log.errorCount(), static_cast<unsigned>(messages.size()));
}

void ConfigLayoutTest::a_mode_above_0777_is_set_and_reported_at_every_run()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1' mode='1775'>a</dir>");
    QCOMPARE(::mkdir("/media/sdcard/a", 0755), 0);
    for (int run = 0; run < 2; ++run) {
        const LogCapture log;
        QVERIFY(config.applyConfigLayout());
        QCOMPARE(modeOf("/media/sdcard/a"), 01775U);
        QCOMPARE(log.records(),
                 QVector<LogRecord>{record(LogLevel::Warn,
                                           "Correct directory mode '1775' for '/media/sdcard/a'")});
    }
}

void ConfigLayoutTest::a_large_file_in_the_place_of_a_link_takes_no_memory()
{
    if (!PeakMemory::kIsMeasurable) {
        QSKIP("the sanitizer's own memory would be measured");
    }
    constexpr qint64 kFileSize = 256 * 1048576;
    const ConfigHandler config = CardConfig::withChildren("<symlink target='t'>l</symlink>");
    TestDevice::writeFile("/media/sdcard/l", "");
    QCOMPARE(::truncate("/media/sdcard/l", kFileSize), 0);
    const qint64 peak = PeakMemory::of([&config] { return !config.applyConfigLayout(); });
    QVERIFY2(peak >= 0 && peak < kFileSize / 4, qPrintable(QString::number(peak)));
}

void ConfigLayoutTest::the_parent_link_of_a_name_with_dots_is_followed()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>a/../b</dir>");
    QVERIFY(QDir().mkpath("/media/sdcard/inner/deep"));
    QCOMPARE(::symlink("inner/deep", "/media/sdcard/a"), 0);
    QVERIFY(config.applyConfigLayout());
    QVERIFY(QFileInfo("/media/sdcard/inner/b").isDir());
    QVERIFY(!QFileInfo::exists("/media/sdcard/b"));
}

void ConfigLayoutTest::other_file_systems_are_left_alone()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1'>a<dir size='1'>new</dir><symlink target='t'>wrong</symlink>"
        "<symlink target='t'>missing</symlink></dir>"
        "<dir size='1'>../beside</dir><dir size='1'>last</dir>");
    QVERIFY(TestDevice::mountTmpfs("/media/sdcard/a", kCardSize));
    QCOMPARE(::chmod("/media/sdcard/a", 0700), 0);
    QCOMPARE(::chown("/media/sdcard/a", 1, 1), 0);
    QCOMPARE(::symlink("other", "/media/sdcard/a/wrong"), 0);
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    QVector<LogRecord> expected;
    for (const char* const path : {"a", "a/new", "../beside", "a/wrong", "a/missing"}) {
        expected.append(
            record(LogLevel::Error,
                   QString("Leaving '/media/sdcard/%1' alone: it is not on the card").arg(path)));
    }
    QCOMPARE(log.records(), expected);
    QCOMPARE(log.errorCount(), 5U);
    QCOMPARE(modeOf("/media/sdcard/a"), 0700U);
    QCOMPARE(QFileInfo("/media/sdcard/a").ownerId(), 1U);
    QCOMPARE(
        QDir("/media/sdcard/a").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot),
        QStringList{"wrong"});
    QCOMPARE(QFile::symLinkTarget("/media/sdcard/a/wrong"), QString("/media/sdcard/a/other"));
    QVERIFY(!QFileInfo::exists("/media/beside"));
    QVERIFY(QFileInfo("/media/sdcard/last").isDir());
}

void ConfigLayoutTest::a_link_that_takes_the_place_of_a_new_directory_is_not_followed_off_the_card()
{
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>a</dir>");
    QVERIFY(QDir().mkpath("/media/outside"));
    QCOMPARE(::chown("/media/outside", 1, 1), 0);
    meanwhile = [] {
        QCOMPARE(::symlink("/media/outside", "/media/sdcard/a"), 0);
    };
    const auto stop = qScopeGuard([] { meanwhile = nullptr; });
    const LogCapture log;
    QVERIFY(!config.applyConfigLayout());
    QCOMPARE(log.messages(),
             (QStringList{"Can't create directory for '/media/sdcard/a' (File exists)",
                          "Leaving '/media/sdcard/a' alone: it is not on the card"}));
    QCOMPARE(QFileInfo("/media/outside").ownerId(), 1U);
}

void ConfigLayoutTest::a_mount_point_that_is_not_mounted_counts_as_the_card()
{
    TestDevice::unmountAll(CardConfig::kMountPoint);
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='1'>a<symlink target='t'>l</symlink></dir>");
    QVERIFY(config.applyConfigLayout());
    QVERIFY(QFileInfo("/media/sdcard/a/l").isSymLink());
}

void ConfigLayoutTest::a_mount_over_an_opened_card_is_not_reached()
{
    QVERIFY(QDir().mkpath("/media/sdcard/below"));
    const CardRoot card(CardConfig::kMountPoint);
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    QVERIFY(card.open("/below").isOpen());
    QVERIFY(QDir().mkpath("/media/sdcard/above"));
    QCOMPARE(card.open("/above").error(), ENOENT);
    QVERIFY(card.isElsewhere(OpenedPlace(AT_FDCWD, "/media/sdcard/above")));
}

TEST_DEVICE_MAIN(ConfigLayoutTest)
#include "ConfigLayoutTest.moc"
