#include <algorithm>
#include <random>
#include <thread>

#include <QCoreApplication>
#include <QSet>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include "LogCapture.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "WatchedCard.h"

using ScannedTree::Entry;

namespace {

const QByteArray kRoot = WatchedCard::kDirectory;

QByteArray parentOf(const QByteArray& path)
{
    return path.left(path.lastIndexOf('/'));
}

class RandomTree
{
public:
    explicit RandomTree(unsigned seed) : mRandom(seed) {}

    void create(int directories, int files)
    {
        for (int i = 0; i < directories; ++i) {
            mDirectories.append(anyDirectory() + "/d" + QByteArray::number(i));
            ScannedTree::createDirectory(mDirectories.last());
        }
        for (int i = 0; i < files; ++i) {
            createEntry(anyDirectory() + "/f" + QByteArray::number(i));
            if (below(3) == 0) {
                ScannedTree::awaitNextChangeTime();
            }
        }
    }

    int below(int limit) { return static_cast<int>(mRandom() % static_cast<unsigned>(limit)); }

private:
    QByteArray anyDirectory() { return mDirectories[below(mDirectories.size())]; }

    void createEntry(const QByteArray& path)
    {
        int result = 0;
        switch (below(10)) {
        case 0:
            result = ::symlink(anyDirectory().constData(), path.constData());
            break;
        case 1:
            result = ::mknod(path.constData(), S_IFIFO | 0600, 0);
            break;
        case 2:
            if (!mLastFile.isEmpty()) {
                result = ::link(mLastFile.constData(), path.constData());
                break;
            }
            [[fallthrough]];
        default:
            ScannedTree::createFile(path, below(4) == 0 ? below(1'000'000) : below(1'000));
            mLastFile = path;
        }
        QCOMPARE(result, 0);
    }

    std::mt19937 mRandom;
    QList<QByteArray> mDirectories{kRoot};
    QByteArray mLastFile;
};

/// What the rules demand, told in the simplest way from what find(1) saw before and after.
struct Verdict
{
    QList<Entry> before;
    QSet<QByteArray> after;
    qint64 limit = 0;

    QList<Entry> files(bool areRemoved) const
    {
        QList<Entry> found;
        for (const Entry& entry : before) {
            if (!entry.isDirectory && after.contains(entry.path) != areRemoved) {
                found.append(entry);
            }
        }
        std::sort(found.begin(), found.end(),
                  [](const Entry& a, const Entry& b) { return a.changeTime < b.changeTime; });
        return found;
    }

    bool oldestWentFirst() const
    {
        const QList<Entry> removed = files(true);
        const QList<Entry> kept = files(false);
        return removed.isEmpty() || kept.isEmpty() ||
               removed.last().changeTime <= kept.first().changeTime;
    }

    bool enoughWent() const
    {
        const qint64 used = ScannedTree::sizeOf(before);
        return used <= limit || files(false).isEmpty() ||
               used - ScannedTree::sizeOf(files(true)) < limit;
    }

    // Without the last of them it would not have been enough. Of files with equal times any may be
    // the last.
    bool noneWentInVain() const
    {
        const QList<Entry> removed = files(true);
        const qint64 used = ScannedTree::sizeOf(before);
        if (removed.isEmpty()) {
            return true;
        }
        const qint64 rest = used - ScannedTree::sizeOf(removed);
        return used > limit && std::any_of(removed.begin(), removed.end(), [&](const Entry& entry) {
                   return entry.changeTime == removed.last().changeTime &&
                          rest + entry.size >= limit;
               });
    }

    QSet<QByteArray> expectedDirectories() const
    {
        QSet<QByteArray> holding;
        QSet<QByteArray> touched;
        for (const Entry& entry : files(false)) {
            holding.insert(parentOf(entry.path));
        }
        for (const Entry& entry : files(true)) {
            touched.insert(parentOf(entry.path));
        }
        QSet<QByteArray> expected;
        // The children of a directory come before it.
        QList<Entry> sorted = before;
        std::sort(sorted.begin(), sorted.end(),
                  [](const Entry& a, const Entry& b) { return a.path > b.path; });
        for (const Entry& entry : sorted) {
            if (!entry.isDirectory) {
                continue;
            }
            const bool goes = entry.path != kRoot && !holding.contains(entry.path) &&
                              touched.contains(entry.path);
            if (goes) {
                touched.insert(parentOf(entry.path));
            } else {
                expected.insert(entry.path);
                holding.insert(parentOf(entry.path));
            }
        }
        return expected;
    }

    QSet<QByteArray> directories() const
    {
        QSet<QByteArray> found;
        for (const Entry& entry : before) {
            if (entry.isDirectory && after.contains(entry.path)) {
                found.insert(entry.path);
            }
        }
        return found;
    }
};

QSet<QByteArray> pathsBelowRoot()
{
    QSet<QByteArray> paths;
    for (const Entry& entry : ScannedTree::list(kRoot)) {
        paths.insert(entry.path);
    }
    return paths;
}

} // namespace

/// Random trees, and several enforcements of one directory at once.
class CapacityRandomTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void what_goes_is_what_a_plain_computation_demands_data();
    void what_goes_is_what_a_plain_computation_demands();
    void two_at_once_remove_what_one_would();
};

void CapacityRandomTest::init()
{
    QVERIFY(WatchedCard::insert());
}

void CapacityRandomTest::cleanup()
{
    WatchedCard::remove();
}

void CapacityRandomTest::what_goes_is_what_a_plain_computation_demands_data()
{
    QTest::addColumn<unsigned>("seed");
    QTest::addColumn<int>("sharePercent");
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const int percent = std::array{0, 10, 50, 90, 99, 101}.at(seed % 6);
        QTest::addRow("seed %u, %d %%", seed, percent) << seed << percent;
    }
}

void CapacityRandomTest::what_goes_is_what_a_plain_computation_demands()
{
    QFETCH(const unsigned, seed);
    QFETCH(const int, sharePercent);
    RandomTree tree(seed);
    tree.create(30, 150);
    Verdict verdict;
    verdict.before = ScannedTree::list(kRoot);
    verdict.limit = ScannedTree::sizeOf(verdict.before) * sharePercent / 100;
    const LogCapture log;
    WatchedCard::enforce(verdict.limit);
    verdict.after = pathsBelowRoot();
    QCOMPARE(verdict.files(true).isEmpty(), sharePercent > 100);
    QCOMPARE(verdict.files(false).isEmpty(), sharePercent == 0);
    QVERIFY(verdict.oldestWentFirst());
    QVERIFY(verdict.enoughWent());
    QVERIFY(verdict.noneWentInVain());
    QCOMPARE(verdict.directories(), verdict.expectedDirectories());
    // A directory may have gone with one below it before its own turn.
    for (const QString& message : log.messages()) {
        QVERIFY2(message.startsWith("Cannot remove empty directory ") &&
                     message.endsWith(": No such file or directory"),
                 qPrintable(message));
    }
}

void CapacityRandomTest::two_at_once_remove_what_one_would()
{
    constexpr int kFiles = 3000;
    QList<QByteArray> files;
    for (int i = 0; i < kFiles; ++i) {
        if (i % 100 == 0) {
            ScannedTree::createDirectory(kRoot + "/" + QByteArray::number(i / 100));
        }
        files.append(kRoot + "/" + QByteArray::number(i / 100) + "/" + QByteArray::number(i));
        ScannedTree::createFile(files.last(), 10'000);
        if (i == kFiles / 2) {
            ScannedTree::awaitNextChangeTime();
        }
    }
    const qint64 limit = WatchedCard::used() - qint64{kFiles} / 2 * 10'000;
    const LogCapture log;
    std::thread other([limit] { WatchedCard::enforce(limit); });
    WatchedCard::enforce(limit);
    other.join();
    for (int i = 0; i < kFiles; ++i) {
        QCOMPARE(ScannedTree::exists(files[i]), i > kFiles / 2);
    }
    for (const LogRecord& record : log.records()) {
        QVERIFY2(record.message.endsWith(": No such file or directory") ||
                     record.message.endsWith(": Stale file handle"),
                 qPrintable(record.message));
    }
}

TEST_DEVICE_MAIN(CapacityRandomTest)
#include "CapacityRandomTest.moc"
