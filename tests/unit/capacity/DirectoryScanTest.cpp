#include <climits>
#include <limits>

#include <QCoreApplication>
#include <QTest>

#include <sys/stat.h>
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

qint64 flatSize(const QByteArray& path)
{
    return scanSize(path, DirectoryScan::Extent::OneLevel);
}

/// Creates @p levels directories below the scanned one and enters the last; returns its path.
QByteArray descend(int levels)
{
    const QByteArray name(250, 'x');
    for (int i = 0; i < levels; ++i) {
        createDirectory(name);
        if (::chdir(name.constData()) != 0) {
            qFatal("cannot descend");
        }
    }
    return kRoot + ("/" + name).repeated(levels);
}

} // namespace

class DirectoryScanTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void links_are_counted_as_themselves_and_never_followed();
    void a_root_that_cannot_be_measured_is_reported_data();
    void a_root_that_cannot_be_measured_is_reported();
    void a_path_longer_than_path_max_is_opened_in_parts_without_links();
    void a_directory_that_may_not_be_read_counts_as_itself();
    void a_cancelled_scan_ends();
    void sizes_beyond_64_bits_saturate();
};

void DirectoryScanTest::init()
{
    QVERIFY(TestDevice::mountTmpfs("/media/sdcard", kCardSize));
    createDirectory(kRoot);
    QCOMPARE(::chdir(kRoot.constData()), 0);
}

void DirectoryScanTest::cleanup()
{
    QCOMPARE(::chdir("/"), 0);
    TestDevice::unmountAll("/media/sdcard");
}

void DirectoryScanTest::links_are_counted_as_themselves_and_never_followed()
{
    createDirectory("/media/sdcard/outside");
    createFile("/media/sdcard/outside/large", 1'000'000);
    QCOMPARE(::symlink("/media/sdcard/outside", (kRoot + "/away").constData()), 0);
    QCOMPARE(::symlink(".", (kRoot + "/self").constData()), 0);
    QCOMPARE(::symlink("../outside/large", (kRoot + "/file").constData()), 0);
    QCOMPARE(treeSize(), sizeOf(kRoot) + 21 + 1 + 16);
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
        const LogRecord record = log.records().at(0);
        QCOMPARE(record.channel, QString("scan"));
        QCOMPARE(record.source, QString("StorageCapacityWatcher"));
        QCOMPARE(record.function,
                 QString("qint64 StorageCapacityWatcher::dirSizeFlat(const QByteArray&) const"));
        QCOMPARE(log.errorCount(), 1U);
    }
}

void DirectoryScanTest::a_path_longer_than_path_max_is_opened_in_parts_without_links()
{
    // The first part ends with the 16th name.
    const QByteArray before = descend(15);
    const QByteArray name(250, 'x');
    createDirectory("real");
    createDirectory("real/" + name);
    QCOMPARE(::rename("real", name), 0);
    const QByteArray path = before + ("/" + name).repeated(2);
    const LogCapture log;
    QVERIFY(flatSize(path) > 0);
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(::rename(name, "real"), 0);
    QCOMPARE(::symlink("real", name), 0);
    for (const QByteArray& missing :
         {path, path + "/missing", kRoot + "/" + QByteArray(PATH_MAX, 'x')}) {
        QCOMPARE(flatSize(missing), qint64{0});
        QCOMPARE(log.messages().last(), "fstatat() failed for " + missing + ": File name too long");
    }
    QCOMPARE(log.errorCount(), 3U);
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

void DirectoryScanTest::sizes_beyond_64_bits_saturate()
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
