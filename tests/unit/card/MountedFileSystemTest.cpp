#include <optional>

#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "MountedFileSystem.h"
#include "TestDevice.h"

namespace {

const QString kMountPoint = QStringLiteral("/media/sdcard");
constexpr qint64 kMegabyte = 1048576;
constexpr qint64 kSize = 8 * kMegabyte;

} // namespace

class MountedFileSystemTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void only_the_exact_mount_point_counts_data();
    void only_the_exact_mount_point_counts();
    void a_device_that_is_named_like_the_mount_point_does_not_count();
    void sizes_come_from_the_mounted_file_system();
    void there_is_no_size_without_a_mount();
    void the_device_is_that_of_the_mounted_file_system();
    void there_is_no_device_without_a_mount();
    void a_mount_point_is_removed_with_its_content();
    void a_missing_mount_point_counts_as_removed();
    void nothing_is_removed_as_long_as_a_file_system_is_mounted_data();
    void nothing_is_removed_as_long_as_a_file_system_is_mounted();
    void nothing_is_removed_if_the_mount_table_cannot_be_read();
};

void MountedFileSystemTest::init()
{
    QDir().mkpath(kMountPoint);
}

void MountedFileSystemTest::cleanup()
{
    TestDevice::unmountAll(kMountPoint);
    TestDevice::remove("/media");
}

void MountedFileSystemTest::only_the_exact_mount_point_counts_data()
{
    QTest::addColumn<QString>("asked");
    QTest::addColumn<QString>("mounted");
    const auto same = [](const char* name, const QString& path) {
        QTest::newRow(name) << path << path;
    };
    same("the mount point", kMountPoint);
    same("space", "/media/sd card");
    same("tab", "/media/sd\tcard");
    same("newline", "/media/sd\ncard");
    same("backslash", "/media/sd\\card");
    same("what looks like an escape", "/media/sd\\040card");
    same("hash", "/media/#sdcard");
    same("not ASCII", QString::fromUtf8("/media/sd-k\xc3\xa4rtchen"));
    same("long", "/media/" + QString(255, '\\') + "/" + QString(255, ' '));
    QTest::newRow("longer name") << kMountPoint << "/media/sdcard2";
    QTest::newRow("shorter name") << kMountPoint << "/media/sdcar";
    QTest::newRow("below") << kMountPoint << "/media/sdcard/inner";
    QTest::newRow("above") << kMountPoint << "/media";
    QTest::newRow("elsewhere") << kMountPoint << "/mnt/media/sdcard";
}

void MountedFileSystemTest::only_the_exact_mount_point_counts()
{
    QFETCH(const QString, asked);
    QFETCH(const QString, mounted);
    const MountedFileSystem card(asked);
    QVERIFY(!card.isMounted());
    QVERIFY(TestDevice::mountTmpfs(mounted, kSize));
    const bool isMounted = card.isMounted();
    TestDevice::unmountAll(mounted);
    QCOMPARE(isMounted, asked == mounted);
    QVERIFY(!card.isMounted());
}

void MountedFileSystemTest::a_device_that_is_named_like_the_mount_point_does_not_count()
{
    QDir().mkpath("/media/other");
    QCOMPARE(::mount("/media/sdcard", "/media/other", "tmpfs", 0, "size=1m"), 0);
    const bool isMounted = MountedFileSystem(kMountPoint).isMounted();
    TestDevice::unmountAll("/media/other");
    QVERIFY(!isMounted);
}

void MountedFileSystemTest::sizes_come_from_the_mounted_file_system()
{
    QVERIFY(TestDevice::mountTmpfs(kMountPoint, kSize));
    TestDevice::writeFile(kMountPoint + "/file", QByteArray(kMegabyte, 'x'));
    const std::optional<FileSystemSize> size = MountedFileSystem(kMountPoint).size();
    QVERIFY(size);
    QCOMPARE(size->total, quint64{kSize});
    QCOMPARE(size->free, quint64{kSize - kMegabyte});
}

void MountedFileSystemTest::there_is_no_size_without_a_mount()
{
    QVERIFY(!MountedFileSystem(kMountPoint).size());
}

void MountedFileSystemTest::the_device_is_that_of_the_mounted_file_system()
{
    const MountedFileSystem card(kMountPoint);
    struct stat status = {};
    for (int round = 0; round < 2; ++round) {
        // A second mount on top of the first.
        QVERIFY(TestDevice::mountTmpfs(kMountPoint, kSize));
        QCOMPARE(::stat(kMountPoint.toUtf8(), &status), 0);
        QCOMPARE(card.device(), status.st_dev);
    }
}

void MountedFileSystemTest::there_is_no_device_without_a_mount()
{
    QVERIFY(TestDevice::mountTmpfs(kMountPoint + "/inner", kSize));
    const dev_t device = MountedFileSystem(kMountPoint).device();
    TestDevice::unmountAll(kMountPoint + "/inner");
    QCOMPARE(device, dev_t{0});
}

void MountedFileSystemTest::a_mount_point_is_removed_with_its_content()
{
    TestDevice::writeFile(kMountPoint + "/dir/file", "below");
    QVERIFY(removeMountPoint(kMountPoint));
    QVERIFY(!QFile::exists(kMountPoint));
}

void MountedFileSystemTest::a_missing_mount_point_counts_as_removed()
{
    QVERIFY(removeMountPoint("/media/missing"));
}

void MountedFileSystemTest::nothing_is_removed_as_long_as_a_file_system_is_mounted_data()
{
    QTest::addColumn<QString>("mounted");
    QTest::addColumn<QString>("removed");
    QTest::newRow("there") << "/media/sdcard"
                           << "/media/sdcard";
    QTest::newRow("there, with a slash at its end") << "/media/sdcard"
                                                    << "/media/sdcard/";
    QTest::newRow("there, with two slashes in it") << "/media/sdcard"
                                                   << "/media//sdcard";
    QTest::newRow("there, by way of a link") << "/media/sdcard"
                                             << "/link/sdcard";
    QTest::newRow("there, with a blank") << "/media/sd card"
                                         << "/media/sd card";
    QTest::newRow("below") << "/media/sdcard/inner"
                           << "/media/sdcard";
}

void MountedFileSystemTest::nothing_is_removed_as_long_as_a_file_system_is_mounted()
{
    QFETCH(const QString, mounted);
    QFETCH(const QString, removed);
    QVERIFY(TestDevice::mountTmpfs(mounted, kSize));
    TestDevice::writeFile(mounted + "/kept", "kept");
    QCOMPARE(::symlink("/media", "/link"), 0);
    const bool isGone = removeMountPoint(removed);
    const QByteArray content = TestDevice::readFile(mounted + "/kept");
    TestDevice::remove("/link");
    TestDevice::unmountAll(mounted);
    QVERIFY(!isGone);
    QCOMPARE(content, QByteArray("kept"));
}

void MountedFileSystemTest::nothing_is_removed_if_the_mount_table_cannot_be_read()
{
    TestDevice::writeFile(kMountPoint + "/kept", "kept");
    QVERIFY(TestDevice::mountTmpfs("/proc", kMegabyte));
    const bool isGone = removeMountPoint(kMountPoint);
    // Only this one: the test still needs the other one below it.
    QCOMPARE(::umount("/proc"), 0);
    QVERIFY(!isGone);
    QCOMPARE(TestDevice::readFile(kMountPoint + "/kept"), QByteArray("kept"));
}

TEST_DEVICE_MAIN(MountedFileSystemTest)
#include "MountedFileSystemTest.moc"
