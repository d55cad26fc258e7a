#include <cerrno>
#include <climits>

#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DirectoryHandle.h"
#include "TestDevice.h"

namespace {

int openDescriptors()
{
    return QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System).size();
}

ino_t inodeOf(const DirectoryHandle& handle)
{
    struct stat status = {};
    return ::fstat(handle.fd(), &status) == 0 ? status.st_ino : 0;
}

// Makes a directory of @p levels names of 250 bytes below the current one and enters it.
void descend(int levels)
{
    const QByteArray name(250, 'x');
    for (int i = 0; i < levels; ++i) {
        QCOMPARE(::mkdir(name.constData(), 0755), 0);
        QCOMPARE(::chdir(name.constData()), 0);
    }
}

QByteArray deepPath(int levels)
{
    return "/w" + ("/" + QByteArray(250, 'x')).repeated(levels);
}

} // namespace

class DirectoryHandleTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_directory_is_opened_and_closed_with_the_object();
    void a_released_descriptor_stays_open();
    void what_is_no_directory_is_not_opened_data();
    void what_is_no_directory_is_not_opened();
    void a_path_as_long_as_wanted_is_opened_data();
    void a_path_as_long_as_wanted_is_opened();
    void a_link_within_a_long_path_is_not_followed_where_it_is_split();
    void a_missing_part_of_a_long_path_is_told();
    void a_name_that_no_file_system_takes_is_told();
    void a_program_that_is_started_does_not_inherit_the_descriptor();
};

void DirectoryHandleTest::init()
{
    QVERIFY(TestDevice::mountTmpfs("/w", 1048576));
    QCOMPARE(::chdir("/w"), 0);
}

void DirectoryHandleTest::cleanup()
{
    QCOMPARE(::chdir("/"), 0);
    TestDevice::unmountAll("/w");
}

void DirectoryHandleTest::a_directory_is_opened_and_closed_with_the_object()
{
    const int before = openDescriptors();
    {
        const DirectoryHandle handle("/w");
        QVERIFY(handle.isOpen());
        struct stat status = {};
        QCOMPARE(::stat("/w", &status), 0);
        QCOMPARE(inodeOf(handle), status.st_ino);
        QCOMPARE(openDescriptors(), before + 1);
    }
    QCOMPARE(openDescriptors(), before);
}

void DirectoryHandleTest::a_released_descriptor_stays_open()
{
    int fd = -1;
    {
        DirectoryHandle handle("/w");
        fd = handle.release();
        QVERIFY(!handle.isOpen());
    }
    QVERIFY(fd >= 0);
    QCOMPARE(::close(fd), 0);
}

void DirectoryHandleTest::what_is_no_directory_is_not_opened_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<int>("error");
    QTest::newRow("missing") << QByteArray("/w/missing") << ENOENT;
    QTest::newRow("file") << QByteArray("/w/file") << ENOTDIR;
    QTest::newRow("below a file") << QByteArray("/w/file/x") << ENOTDIR;
    QTest::newRow("pipe") << QByteArray("/w/pipe") << ENOTDIR;
    QTest::newRow("link to a directory") << QByteArray("/w/link") << ENOTDIR;
    QTest::newRow("dangling link") << QByteArray("/w/dangling") << ENOTDIR;
    QTest::newRow("empty") << QByteArray("") << ENOENT;
}

void DirectoryHandleTest::what_is_no_directory_is_not_opened()
{
    QFETCH(const QByteArray, path);
    TestDevice::writeFile("/w/file", "x");
    QCOMPARE(::mkfifo("/w/pipe", 0600), 0);
    QCOMPARE(::symlink("/etc", "/w/link"), 0);
    QCOMPARE(::symlink("nowhere", "/w/dangling"), 0);
    errno = 0;
    const DirectoryHandle handle(path);
    const int error = errno;
    QVERIFY(!handle.isOpen());
    QTEST(error, "error");
}

void DirectoryHandleTest::a_path_as_long_as_wanted_is_opened_data()
{
    QTest::addColumn<int>("levels");
    QTest::newRow("shorter than the system's limit") << 16;
    QTest::newRow("longer") << 17;
    QTest::newRow("twice as long") << 33;
    QTest::newRow("200 directories deep") << 200;
}

void DirectoryHandleTest::a_path_as_long_as_wanted_is_opened()
{
    QFETCH(const int, levels);
    descend(levels);
    struct stat status = {};
    QCOMPARE(::stat(".", &status), 0);
    const int before = openDescriptors();
    {
        const DirectoryHandle handle(deepPath(levels));
        QVERIFY(handle.isOpen());
        QCOMPARE(inodeOf(handle), status.st_ino);
        QCOMPARE(openDescriptors(), before + 1);
    }
    QCOMPARE(openDescriptors(), before);
}

void DirectoryHandleTest::a_link_within_a_long_path_is_not_followed_where_it_is_split()
{
    // The first part ends with the 16th name.
    descend(15);
    QCOMPARE(::mkdir("real", 0755), 0);
    const QByteArray link(250, 'x');
    QCOMPARE(::symlink("real", link.constData()), 0);
    QCOMPARE(::chdir("real"), 0);
    descend(1);
    const DirectoryHandle handle(deepPath(17));
    QVERIFY(!handle.isOpen());
}

void DirectoryHandleTest::a_missing_part_of_a_long_path_is_told()
{
    descend(20);
    const int before = openDescriptors();
    for (const int levels : {21, 40}) {
        errno = 0;
        const DirectoryHandle handle(deepPath(levels));
        const int error = errno;
        QVERIFY(!handle.isOpen());
        QCOMPARE(error, ENOENT);
    }
    QCOMPARE(openDescriptors(), before);
}

void DirectoryHandleTest::a_name_that_no_file_system_takes_is_told()
{
    const int before = openDescriptors();
    for (const int length : {256, PATH_MAX, 3 * PATH_MAX}) {
        errno = 0;
        const DirectoryHandle handle("/w/" + QByteArray(length, 'x'));
        const int error = errno;
        QVERIFY(!handle.isOpen());
        QCOMPARE(error, ENAMETOOLONG);
    }
    QCOMPARE(openDescriptors(), before);
}

void DirectoryHandleTest::a_program_that_is_started_does_not_inherit_the_descriptor()
{
    const DirectoryHandle handle("/w");
    QCOMPARE(::fcntl(handle.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_DEVICE_MAIN(DirectoryHandleTest)
#include "DirectoryHandleTest.moc"
