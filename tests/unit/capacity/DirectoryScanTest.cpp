#include <algorithm>
#include <limits>

#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "DirectoryScan.h"
#include "LogCapture.h"
#include "ScannedTree.h"
#include "TestDevice.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::sizeOf;

namespace {

constexpr qint64 kCardSize = 64 * 1048576LL;
const QByteArray kRoot = "/media/sdcard/w";

qint64 scanSize(const QByteArray& path, DirectoryScan::Extent extent)
{
    const CancellationSource runs;
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), runs.token());
    scan.run(path, extent, DirectoryScan::Keep::SizesOnly);
    return scan.totalSize();
}

qint64 treeSize(const QByteArray& path = kRoot)
{
    return scanSize(path, DirectoryScan::Extent::WholeTree);
}

qint64 flatSize(const QByteArray& path = kRoot)
{
    return scanSize(path, DirectoryScan::Extent::OneLevel);
}

/// "size change-time path" of each file.
QList<QByteArray> scannedFiles(const QByteArray& path = kRoot)
{
    const CancellationSource runs;
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), runs.token());
    scan.run(path, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    QList<QByteArray> files;
    for (const DirectoryScan::File& file : scan.files()) {
        files.append(QByteArray::number(file.size) + " " + QByteArray::number(file.changeTime) +
                     " " + scan.path(file.directory) + "/" + file.name);
    }
    std::sort(files.begin(), files.end());
    return files;
}

QList<QByteArray> listedFiles(const QByteArray& path = kRoot)
{
    QList<QByteArray> files;
    for (const ScannedTree::Entry& entry : ScannedTree::list(path)) {
        if (!entry.isDirectory) {
            files.append(QByteArray::number(entry.size) + " " +
                         QByteArray::number(entry.changeTime) + " " + entry.path);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// One of everything that a directory can hold.
void fillWithAllKinds(const QByteArray& dir)
{
    createFile(dir + "/file", 1234);
    createFile(dir + "/.hidden", 7);
    createFile(dir + "/hole", qint64{1} << 33);
    QCOMPARE(::link((dir + "/file").constData(), (dir + "/hard link").constData()), 0);
    QCOMPARE(::symlink("file", (dir + "/link").constData()), 0);
    QCOMPARE(::symlink("/etc", (dir + "/link to a directory").constData()), 0);
    QCOMPARE(::symlink("nowhere", (dir + "/dangling").constData()), 0);
    QCOMPARE(::symlink("..", (dir + "/up").constData()), 0);
    QCOMPARE(::mknod((dir + "/pipe").constData(), S_IFIFO | 0600, 0), 0);
    QCOMPARE(::mknod((dir + "/socket").constData(), S_IFSOCK | 0600, 0), 0);
    QCOMPARE(::mknod((dir + "/device").constData(), S_IFCHR | 0600, makedev(1, 3)), 0);
    createFile(dir + "/-\xff\xc3\n%s" + QByteArray(240, '\x80'), 5);
    createFile(dir + "/...", 3);
    createFile(dir + "/unreadable", 99);
    QCOMPARE(::chmod((dir + "/unreadable").constData(), 0), 0);
}

} // namespace

class DirectoryScanTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void one_level_counts_the_directory_and_what_is_no_directory_in_it();
    void links_are_counted_as_themselves_and_never_followed();
    void files_are_listed_with_what_another_program_sees();
    void a_root_that_cannot_be_measured_is_reported_data();
    void a_root_that_cannot_be_measured_is_reported();
    void a_directory_that_may_not_be_read_counts_as_itself();
    void a_cancelled_scan_ends();
    void sizes_beyond_64_bits_are_the_largest_number();
};

void DirectoryScanTest::init()
{
    QVERIFY(TestDevice::mountTmpfs("/media/sdcard", kCardSize));
    createDirectory(kRoot);
}

void DirectoryScanTest::cleanup()
{
    TestDevice::unmountAll("/media/sdcard");
}

void DirectoryScanTest::one_level_counts_the_directory_and_what_is_no_directory_in_it()
{
    createFile(kRoot + "/a", 1000);
    createFile(kRoot + "/.b", 200);
    QCOMPARE(::symlink("/etc", (kRoot + "/c").constData()), 0);
    createDirectory(kRoot + "/sub");
    createFile(kRoot + "/sub/d", 30);
    QCOMPARE(flatSize(), sizeOf(kRoot) + 1204);
}

void DirectoryScanTest::links_are_counted_as_themselves_and_never_followed()
{
    createDirectory("/media/sdcard/outside");
    createFile("/media/sdcard/outside/large", 1'000'000);
    QCOMPARE(::symlink("/media/sdcard/outside", (kRoot + "/away").constData()), 0);
    QCOMPARE(::symlink(".", (kRoot + "/self").constData()), 0);
    QCOMPARE(::symlink("../outside/large", (kRoot + "/file").constData()), 0);
    QCOMPARE(treeSize(), sizeOf(kRoot) + 21 + 1 + 16);
    QCOMPARE(scannedFiles(), listedFiles());
}

void DirectoryScanTest::files_are_listed_with_what_another_program_sees()
{
    fillWithAllKinds(kRoot);
    createDirectory(kRoot + "/.sub");
    createDirectory(kRoot + "/.sub/\xfe");
    fillWithAllKinds(kRoot + "/.sub/\xfe");
    QCOMPARE(scannedFiles().size(), 28);
    QCOMPARE(scannedFiles(), listedFiles());
    QCOMPARE(treeSize(), sizeOf(ScannedTree::list(kRoot)));
}

void DirectoryScanTest::a_root_that_cannot_be_measured_is_reported_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QString>("message");
    QTest::newRow("missing") << QByteArray("/media/sdcard/w/missing")
                             << "fstatat() failed for /media/sdcard/w/missing: "
                                "No such file or directory";
    QTest::newRow("below a file") << QByteArray("/media/sdcard/w/file/x")
                                  << "fstatat() failed for /media/sdcard/w/file/x: Not a directory";
    QTest::newRow("file") << QByteArray("/media/sdcard/w/file")
                          << "It is not a directory: /media/sdcard/w/file";
    QTest::newRow("link to a directory")
        << QByteArray("/media/sdcard/w/link") << "It is not a directory: /media/sdcard/w/link";
    QTest::newRow("dangling link") << QByteArray("/media/sdcard/w/dangling")
                                   << "It is not a directory: /media/sdcard/w/dangling";
}

void DirectoryScanTest::a_root_that_cannot_be_measured_is_reported()
{
    QFETCH(const QByteArray, path);
    QFETCH(const QString, message);
    createFile(kRoot + "/file", 10);
    QCOMPARE(::symlink("/etc", (kRoot + "/link").constData()), 0);
    QCOMPARE(::symlink("nowhere", (kRoot + "/dangling").constData()), 0);
    for (const auto extent : {DirectoryScan::Extent::OneLevel, DirectoryScan::Extent::WholeTree}) {
        const LogCapture log;
        QCOMPARE(scanSize(path, extent), qint64{0});
        QCOMPARE(log.messages(LogLevel::Error), QStringList{message});
        QCOMPARE(log.records().at(0).channel, QString("scan"));
        QCOMPARE(log.errorCount(), 1U);
    }
}

void DirectoryScanTest::a_directory_that_may_not_be_read_counts_as_itself()
{
    createFile(kRoot + "/a", 1000);
    createDirectory(kRoot + "/closed");
    createFile(kRoot + "/closed/b", 200);
    QCOMPARE(::chmod((kRoot + "/closed").constData(), 0), 0);
    constexpr uid_t kNobody = 65534;
    const LogCapture log;
    QCOMPARE(::seteuid(kNobody), 0);
    const qint64 size = treeSize();
    QCOMPARE(::seteuid(0), 0);
    QCOMPARE(size, sizeOf(kRoot) + sizeOf(kRoot + "/closed") + 1000);
    QCOMPARE(log.messages(), QStringList());
}

void DirectoryScanTest::a_cancelled_scan_ends()
{
    createFile(kRoot + "/a", 1000);
    CancellationSource runs;
    const CancellationToken token = runs.token();
    runs.cancelAll();
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), token);
    scan.run(kRoot, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    QCOMPARE(scan.totalSize(), qint64{0});
    QVERIFY(scan.files().empty());
}

void DirectoryScanTest::sizes_beyond_64_bits_are_the_largest_number()
{
    QVERIFY(TestDevice::mountTmpfs(kRoot, 1048576));
    const qint64 large = std::numeric_limits<qint64>::max() - 4095;
    createFile(kRoot + "/a", large);
    createFile(kRoot + "/b", large);
    const qint64 size = treeSize();
    TestDevice::unmountAll(kRoot);
    QCOMPARE(size, std::numeric_limits<qint64>::max());
}

TEST_DEVICE_MAIN(DirectoryScanTest)
#include "DirectoryScanTest.moc"
