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
    void a_directory_without_a_mount_is_not_mounted();
    void a_mount_is_seen_when_it_comes_and_when_it_goes();
    void a_mount_point_with_special_characters_is_found_data();
    void a_mount_point_with_special_characters_is_found();
    void only_the_exact_mount_point_counts_data();
    void only_the_exact_mount_point_counts();
    void a_device_that_is_named_like_the_mount_point_does_not_count();
    void sizes_are_those_of_the_mounted_file_system();
    void there_is_no_size_without_a_mount();
    void the_device_is_that_of_what_is_mounted();
    void there_is_no_device_without_a_mount();
    void a_mount_point_is_removed_with_what_lies_in_it();
    void a_mount_point_that_is_gone_need_not_be_removed();
    void nothing_is_removed_as_long_as_a_file_system_is_mounted_data();
    void nothing_is_removed_as_long_as_a_file_system_is_mounted();
    void nothing_is_removed_where_the_mount_table_cannot_be_read();
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

void MountedFileSystemTest::a_directory_without_a_mount_is_not_mounted()
{
    QVERIFY(!MountedFileSystem(kMountPoint).isMounted());
}

void MountedFileSystemTest::a_mount_is_seen_when_it_comes_and_when_it_goes()
{
    const MountedFileSystem card(kMountPoint);
    QVERIFY(TestDevice::mountTmpfs(kMountPoint, kSize));
    QVERIFY(card.isMounted());
    TestDevice::unmountAll(kMountPoint);
    QVERIFY(!card.isMounted());
}

void MountedFileSystemTest::a_mount_point_with_special_characters_is_found_data()
{
    QTest::addColumn<QString>("mountPoint");
    QTest::newRow("space") << "/media/sd card";
    QTest::newRow("tab") << "/media/sd\tcard";
    QTest::newRow("newline") << "/media/sd\ncard";
    QTest::newRow("backslash") << "/media/sd\\card";
    QTest::newRow("what looks like an escape") << "/media/sd\\040card";
    QTest::newRow("hash") << "/media/#sdcard";
    QTest::newRow("not ASCII") << QString::fromUtf8("/media/sd-k\xc3\xa4rtchen");
    QTest::newRow("long") << "/media/" + QString(255, '\\') + "/" + QString(255, ' ');
}

void MountedFileSystemTest::a_mount_point_with_special_characters_is_found()
{
    QFETCH(const QString, mountPoint);
    QVERIFY(!MountedFileSystem(mountPoint).isMounted());
    QVERIFY(TestDevice::mountTmpfs(mountPoint, kSize));
    const bool isMounted = MountedFileSystem(mountPoint).isMounted();
    TestDevice::unmountAll(mountPoint);
    QVERIFY(isMounted);
}

void MountedFileSystemTest::only_the_exact_mount_point_counts_data()
{
    QTest::addColumn<QString>("other");
    QTest::newRow("longer name") << "/media/sdcard2";
    QTest::newRow("shorter name") << "/media/sdcar";
    QTest::newRow("below") << "/media/sdcard/inner";
    QTest::newRow("above") << "/media";
    QTest::newRow("elsewhere") << "/mnt/media/sdcard";
}

void MountedFileSystemTest::only_the_exact_mount_point_counts()
{
    QFETCH(const QString, other);
    QVERIFY(TestDevice::mountTmpfs(other, kSize));
    const bool isMounted = MountedFileSystem(kMountPoint).isMounted();
    TestDevice::unmountAll(other);
    QVERIFY(!isMounted);
}

void MountedFileSystemTest::a_device_that_is_named_like_the_mount_point_does_not_count()
{
    QDir().mkpath("/media/other");
    QCOMPARE(::mount("/media/sdcard", "/media/other", "tmpfs", 0, "size=1m"), 0);
    const bool isMounted = MountedFileSystem(kMountPoint).isMounted();
    TestDevice::unmountAll("/media/other");
    QVERIFY(!isMounted);
}

void MountedFileSystemTest::sizes_are_those_of_the_mounted_file_system()
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

void MountedFileSystemTest::the_device_is_that_of_what_is_mounted()
{
    const MountedFileSystem card(kMountPoint);
    struct stat status = {};
    for (int round = 0; round < 2; ++round) {
        // The second time over the first.
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

void MountedFileSystemTest::a_mount_point_is_removed_with_what_lies_in_it()
{
    TestDevice::writeFile(kMountPoint + "/dir/file", "below");
    QVERIFY(removeMountPoint(kMountPoint));
    QVERIFY(!QFile::exists(kMountPoint));
}

void MountedFileSystemTest::a_mount_point_that_is_gone_need_not_be_removed()
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

void MountedFileSystemTest::nothing_is_removed_where_the_mount_table_cannot_be_read()
{
    TestDevice::writeFile(kMountPoint + "/kept", "kept");
    QVERIFY(TestDevice::mountTmpfs("/proc", kMegabyte));
    const bool isGone = removeMountPoint(kMountPoint);
    // Only this one: the other below it is needed.
    QCOMPARE(::umount("/proc"), 0);
    QVERIFY(!isGone);
    QCOMPARE(TestDevice::readFile(kMountPoint + "/kept"), QByteArray("kept"));
}

TEST_DEVICE_MAIN(MountedFileSystemTest)
#include "MountedFileSystemTest.moc"
