#include <functional>

#include <QCoreApplication>
#include <QDir>
#include <QTest>
#include <QThread>

#include <sys/resource.h>
#include <unistd.h>

#include "DirectoryScan.h"
#include "LogCapture.h"
#include "PeakMemory.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "WatchedCard.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;

namespace {

constexpr qint64 kCardSize = 1024 * 1048576LL;
constexpr qint64 kFileSize = qint64{1} << 40;
const QByteArray kRoot = WatchedCard::kDirectory;
const QByteArray kFile = "/media/sdcard/file";

/// Creates @p levels nested directories, with a file in each.
void createDeepTree(int levels, const QByteArray& name)
{
    QCOMPARE(::chdir(kRoot.constData()), 0);
    for (int i = 0; i < levels; ++i) {
        createDirectory(name);
        QCOMPARE(::chdir(name.constData()), 0);
        createFile("file", 1000);
    }
    QCOMPARE(::chdir("/"), 0);
}

qint64 peakOfEnforcement(qint64 limit)
{
    return PeakMemory::of([limit] {
        WatchedCard::enforce(limit);
        return true;
    });
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

/// Trees of the largest size and depth on a card.
class DirectoryScanLimitsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_directory_may_contain_300000_files();
    void a_tree_deeper_than_path_max_is_emptied_data();
    void a_tree_deeper_than_path_max_is_emptied();
    void three_descriptors_and_a_small_stack_suffice_at_any_depth();
    void a_file_costs_at_most_320_bytes_data();
    void a_file_costs_at_most_320_bytes();
    void a_level_of_a_deep_tree_costs_as_little_as_a_file();
};

void DirectoryScanLimitsTest::init()
{
    QVERIFY(WatchedCard::insert(kCardSize));
    createFile(kFile, kFileSize);
}

void DirectoryScanLimitsTest::cleanup()
{
    QCOMPARE(::chdir("/"), 0);
    WatchedCard::remove();
}

void DirectoryScanLimitsTest::a_directory_may_contain_300000_files()
{
    constexpr int kFiles = 300'000;
    ScannedTree::createNames(kFile, kRoot, kFiles, 10);
    const LogCapture log;
    const CancellationSource runs;
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), runs.token());
    scan.run(kRoot, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    QCOMPARE(scan.files().size(), std::size_t{kFiles});
    QCOMPARE(scan.totalSize(), ScannedTree::sizeOf(kRoot) + kFiles * kFileSize);
    QCOMPARE(log.messages(), QStringList());
}

void DirectoryScanLimitsTest::a_tree_deeper_than_path_max_is_emptied_data()
{
    QTest::addColumn<int>("levels");
    QTest::addColumn<int>("nameLength");
    QTest::newRow("2000 short names") << 2000 << 3;
    QTest::newRow("40 long names") << 40 << 250;
    QTest::newRow("200 long names") << 200 << 255;
}

void DirectoryScanLimitsTest::a_tree_deeper_than_path_max_is_emptied()
{
    QFETCH(const int, levels);
    QFETCH(const int, nameLength);
    createDeepTree(levels, QByteArray(nameLength, 'x'));
    const LogCapture log;
    WatchedCard::enforce(levels * 1000);
    // The directories' own sizes exceeded the limit.
    QVERIFY(WatchedCard::entries().size() < 2 * levels);
    WatchedCard::enforce(0);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    for (const QString& message : log.messages()) {
        QVERIFY2(message.endsWith(": No such file or directory"), qPrintable(message));
    }
}

void DirectoryScanLimitsTest::three_descriptors_and_a_small_stack_suffice_at_any_depth()
{
    createDeepTree(200, QByteArray(250, 'x'));
    const LogCapture log(LogLevel::Off);
    bool isLimited = false;
    ThreadOfSize thread(128 * 1024, [&isLimited] {
        const int next = ::dup(STDERR_FILENO);
        ::close(next);
        rlimit unlimited{};
        ::getrlimit(RLIMIT_NOFILE, &unlimited);
        // The directory of the removed files, and two on the way to one with a long path.
        const rlimit three{static_cast<rlim_t>(next) + 3, unlimited.rlim_max};
        isLimited = ::setrlimit(RLIMIT_NOFILE, &three) == 0;
        WatchedCard::enforce(0);
        ::setrlimit(RLIMIT_NOFILE, &unlimited);
    });
    thread.wait();
    QVERIFY(isLimited);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
}

void DirectoryScanLimitsTest::a_file_costs_at_most_320_bytes_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<int>("directories");
    QTest::addColumn<int>("removed");
    QTest::newRow("few of one huge directory") << 20'000 << 1 << 300;
    QTest::newRow("most of one directory") << 10'000 << 1 << 9'000;
    QTest::newRow("all of many directories") << 10'000 << 1'000 << 10'000;
    QTest::newRow("one file in each directory") << 6'000 << 6'000 << 6'000;
}

void DirectoryScanLimitsTest::a_file_costs_at_most_320_bytes()
{
    if (!PeakMemory::kIsMeasurable) {
        QSKIP("a sanitizer's own memory is in the figure");
    }
    QFETCH(const int, files);
    QFETCH(const int, directories);
    QFETCH(const int, removed);
    const LogCapture log;
    createFile(kRoot + "/single");
    const qint64 peakOfSingle = peakOfEnforcement(0);
    constexpr int kPathLength = 40;
    for (int i = 0; i < directories; ++i) {
        const QByteArray dir = kRoot + "/" + QByteArray::number(i).rightJustified(8, '0');
        createDirectory(dir);
        ScannedTree::createNames(kFile, dir, files / directories, kPathLength - dir.size() - 1);
    }
    // The directories' own sizes are smaller than a file.
    const qint64 peak = peakOfEnforcement((files - removed + 1) * kFileSize) - peakOfSingle;
    QVERIFY(peak > 0);
    qInfo("%.1f bytes a file", static_cast<double>(peak) / files);
    QVERIFY2(peak <= qint64{320} * files, qPrintable(QString::number(peak / files)));
    QCOMPARE(WatchedCard::files().size(), files - removed);
}

void DirectoryScanLimitsTest::a_level_of_a_deep_tree_costs_as_little_as_a_file()
{
    if (!PeakMemory::kIsMeasurable) {
        QSKIP("a sanitizer's own memory is in the figure");
    }
    const LogCapture log;
    createFile(kRoot + "/single");
    const qint64 peakOfSingle = peakOfEnforcement(0);
    constexpr int kLevels = 2000;
    QCOMPARE(::chdir(kRoot.constData()), 0);
    for (int i = 0; i < kLevels; ++i) {
        // A waiting sibling at each level.
        createDirectory("later");
        createDirectory("x");
        QCOMPARE(::chdir("x"), 0);
    }
    createFile("file", 10);
    QCOMPARE(::chdir("/"), 0);
    const qint64 peak = peakOfEnforcement(0) - peakOfSingle;
    QVERIFY(peak > 0);
    constexpr qint64 kLongestPath = 1048576;
    QVERIFY2(peak <= qint64{320} * 2 * kLevels + kLongestPath, qPrintable(QString::number(peak)));
}

TEST_DEVICE_MAIN(DirectoryScanLimitsTest)
#include "DirectoryScanLimitsTest.moc"
