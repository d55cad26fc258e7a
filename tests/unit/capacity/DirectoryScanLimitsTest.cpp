#include <functional>
#include <thread>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>
#include <QThread>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DirectoryScan.h"
#include "LogCapture.h"
#include "PeakMemory.h"
#include "ScannedTree.h"
#include "TestDevice.h"

using ScannedTree::createDirectory;

namespace {

constexpr qint64 kCardSize = 1024 * 1048576LL;
const QByteArray kRoot = "/media/sdcard/w";

struct Outcome
{
    qint64 size = 0;
    std::size_t files = 0;
};

Outcome scanTree()
{
    const CancellationSource runs;
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), runs.token());
    scan.run(kRoot, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    return {scan.totalSize(), scan.files().size()};
}

/// Runs @p work on a thread with a stack of this many bytes.
class ThreadOfSize : public QThread
{
public:
    ThreadOfSize(uint stackBytes, std::function<void()> work) : mWork(std::move(work))
    {
        setStackSize(stackBytes);
        start();
    }

protected:
    void run() override { mWork(); }

private:
    std::function<void()> mWork;
};

} // namespace

/// Scans of what only real cards hold.
class DirectoryScanLimitsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_directory_may_hold_300000_files();
    void a_tree_may_be_deeper_than_a_path_is_long_data();
    void a_tree_may_be_deeper_than_a_path_is_long();
    void a_scan_needs_two_descriptors_and_a_small_stack_however_deep_the_tree_is();
    void no_descriptor_stays_open();
    void a_file_costs_at_most_320_bytes_data();
    void a_file_costs_at_most_320_bytes();
    void a_level_of_a_deep_tree_costs_as_little_as_a_file();
};

void DirectoryScanLimitsTest::init()
{
    QVERIFY(TestDevice::mountTmpfs("/media/sdcard", kCardSize));
    createDirectory(kRoot);
    ScannedTree::createFile("/media/sdcard/file", 100);
}

void DirectoryScanLimitsTest::cleanup()
{
    QCOMPARE(::chdir("/"), 0);
    TestDevice::unmountAll("/media/sdcard");
}

void DirectoryScanLimitsTest::a_directory_may_hold_300000_files()
{
    constexpr int kFiles = 300'000;
    ScannedTree::createNames("/media/sdcard/file", kRoot, kFiles, 10);
    struct stat status = {};
    QCOMPARE(::lstat(kRoot.constData(), &status), 0);
    const LogCapture log;
    const Outcome outcome = scanTree();
    QCOMPARE(outcome.files, std::size_t{kFiles});
    QCOMPARE(outcome.size, status.st_size + qint64{kFiles} * 100);
    QCOMPARE(log.messages(), QStringList());
}

void DirectoryScanLimitsTest::a_tree_may_be_deeper_than_a_path_is_long_data()
{
    QTest::addColumn<int>("levels");
    QTest::addColumn<int>("nameLength");
    QTest::newRow("200 short names") << 200 << 3;
    QTest::newRow("200 long names") << 200 << 250;
    QTest::newRow("2000 short names") << 2000 << 3;
}

void DirectoryScanLimitsTest::a_tree_may_be_deeper_than_a_path_is_long()
{
    QFETCH(const int, levels);
    QFETCH(const int, nameLength);
    QCOMPARE(::chdir(kRoot.constData()), 0);
    struct stat status = {};
    QCOMPARE(::stat(".", &status), 0);
    qint64 expected = status.st_size;
    for (int i = 0; i < levels; ++i) {
        const QByteArray name(nameLength, 'x');
        ScannedTree::createFile("file", 7);
        createDirectory(name);
        QCOMPARE(::stat(".", &status), 0);
        QCOMPARE(::chdir(name.constData()), 0);
        expected += status.st_size + 7;
    }
    QCOMPARE(::chdir("/"), 0);
    // The root was empty when it was measured, and the last directory is.
    const LogCapture log;
    const Outcome outcome = scanTree();
    QCOMPARE(outcome.files, static_cast<std::size_t>(levels));
    QCOMPARE(outcome.size, expected);
    QCOMPARE(log.messages(), QStringList());
}

void DirectoryScanLimitsTest::
    a_scan_needs_two_descriptors_and_a_small_stack_however_deep_the_tree_is()
{
    constexpr int kLevels = 200;
    QCOMPARE(::chdir(kRoot.constData()), 0);
    for (int i = 0; i < kLevels; ++i) {
        const QByteArray name(250, 'x');
        createDirectory(name);
        ScannedTree::createFile("file", 7);
        QCOMPARE(::chdir(name.constData()), 0);
    }
    QCOMPARE(::chdir("/"), 0);

    const LogCapture log;
    Outcome outcome;
    bool isLimited = false;
    ThreadOfSize thread(128 * 1024, [&outcome, &isLimited] {
        const int next = ::dup(STDERR_FILENO);
        ::close(next);
        rlimit unlimited{};
        ::getrlimit(RLIMIT_NOFILE, &unlimited);
        const rlimit two{static_cast<rlim_t>(next) + 2, unlimited.rlim_max};
        isLimited = ::setrlimit(RLIMIT_NOFILE, &two) == 0;
        outcome = scanTree();
        ::setrlimit(RLIMIT_NOFILE, &unlimited);
    });
    thread.wait();
    QVERIFY(isLimited);
    QCOMPARE(outcome.files, std::size_t{kLevels});
    QCOMPARE(log.messages(), QStringList());
}

void DirectoryScanLimitsTest::no_descriptor_stays_open()
{
    const auto openDescriptors = [] {
        return QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System).size();
    };
    for (int i = 0; i < 20; ++i) {
        createDirectory(kRoot + "/" + QByteArray::number(i));
    }
    QCOMPARE(::symlink("/etc", (kRoot + "/link").constData()), 0);
    const LogCapture log;
    const int before = openDescriptors();
    for (int i = 0; i < 5; ++i) {
        scanTree();
        const CancellationSource runs;
        DirectoryScan missing(log4cxx::Logger::getLogger("scan"), runs.token());
        missing.run(kRoot + "/missing", DirectoryScan::Extent::WholeTree,
                    DirectoryScan::Keep::Files);
        DirectoryScan link(log4cxx::Logger::getLogger("scan"), runs.token());
        link.run(kRoot + "/link", DirectoryScan::Extent::OneLevel, DirectoryScan::Keep::SizesOnly);
    }
    QCOMPARE(openDescriptors(), before);
}

void DirectoryScanLimitsTest::a_file_costs_at_most_320_bytes_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<int>("directories");
    QTest::newRow("one directory") << 20'000 << 1;
    QTest::newRow("ten files in each directory") << 10'000 << 1'000;
    QTest::newRow("one file in each directory") << 6'000 << 6'000;
}

void DirectoryScanLimitsTest::a_file_costs_at_most_320_bytes()
{
    if (!PeakMemory::kIsMeasurable) {
        QSKIP("a sanitizer's own memory is in the figure");
    }
    QFETCH(const int, files);
    QFETCH(const int, directories);
    const auto peakOf = [](int expected) {
        return PeakMemory::of(
            [expected] { return scanTree().files == static_cast<std::size_t>(expected); });
    };
    const qint64 peakOfNone = peakOf(0);
    constexpr int kPathLength = 40;
    // "/media/sdcard/w/" + 8 + "/" + name
    for (int i = 0; i < directories; ++i) {
        const QByteArray dir = kRoot + "/" + QByteArray::number(i).rightJustified(8, '0');
        createDirectory(dir);
        ScannedTree::createNames("/media/sdcard/file", dir, files / directories,
                                 kPathLength - dir.size() - 1);
    }
    const qint64 peak = peakOf(files) - peakOfNone;
    QVERIFY(peak > 0);
    qInfo("%.1f bytes a file", static_cast<double>(peak) / files);
    QVERIFY2(peak <= qint64{320} * files, qPrintable(QString::number(peak / files)));
}

void DirectoryScanLimitsTest::a_level_of_a_deep_tree_costs_as_little_as_a_file()
{
    if (!PeakMemory::kIsMeasurable) {
        QSKIP("a sanitizer's own memory is in the figure");
    }
    const auto peakOfScan = [] {
        return PeakMemory::of([] { return scanTree().size > 0; });
    };
    const qint64 peakOfNone = peakOfScan();
    constexpr int kLevels = 2000;
    QCOMPARE(::chdir(kRoot.constData()), 0);
    for (int i = 0; i < kLevels; ++i) {
        // A sibling that waits for its turn at each level.
        createDirectory("later");
        createDirectory("x");
        QCOMPARE(::chdir("x"), 0);
    }
    QCOMPARE(::chdir("/"), 0);
    const qint64 peak = peakOfScan() - peakOfNone;
    QVERIFY(peak > 0);
    constexpr qint64 kLongestPath = 1048576;
    QVERIFY2(peak <= qint64{320} * 2 * kLevels + kLongestPath, qPrintable(QString::number(peak)));
}

TEST_DEVICE_MAIN(DirectoryScanLimitsTest)
#include "DirectoryScanLimitsTest.moc"
