#include <algorithm>
#include <array>
#include <random>

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

/// Creates a tree in which each file has a different change time.
void createTree(unsigned seed, int directories, int files)
{
    std::mt19937 random(seed);
    const auto below = [&random](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    };
    QList<QByteArray> dirs{kRoot};
    for (int i = 0; i < directories; ++i) {
        dirs.append(dirs[below(dirs.size())] + "/d" + QByteArray::number(i));
        ScannedTree::createDirectory(dirs.last());
    }
    for (int i = 0; i < files; ++i) {
        const QByteArray path = dirs[below(dirs.size())] + "/f" + QByteArray::number(i);
        ScannedTree::awaitNextChangeTime();
        switch (below(10)) {
        case 0:
            QCOMPARE(::symlink(dirs[below(dirs.size())].constData(), path.constData()), 0);
            break;
        case 1:
            QCOMPARE(::mknod(path.constData(), S_IFIFO | 0600, 0), 0);
            break;
        default:
            ScannedTree::createFile(path, below(below(4) == 0 ? 1'000'000 : 1'000));
        }
    }
}

/// The result that the rules require, computed in the simplest way from the output of find(1).
class Model
{
public:
    explicit Model(QList<Entry> entries) : mEntries(std::move(entries))
    {
        std::sort(mEntries.begin(), mEntries.end(),
                  [](const Entry& a, const Entry& b) { return a.changeTime < b.changeTime; });
        for (const Entry& entry : mEntries) {
            left.insert(entry.path);
        }
    }

    void enforce(qint64 limit)
    {
        qint64 used = ScannedTree::sizeOf(mEntries);
        if (used <= limit) {
            return;
        }
        QList<QByteArray> touched;
        for (const Entry& entry : mEntries) {
            if (!entry.isDirectory && used >= limit) {
                used -= entry.size;
                left.remove(entry.path);
                if (!touched.contains(parentOf(entry.path))) {
                    touched.append(parentOf(entry.path));
                }
            }
        }
        for (QByteArray directory : touched) {
            while (directory != kRoot && !holdsEntries(directory)) {
                if (!left.remove(directory)) {
                    messages.append("Cannot remove empty directory " + directory +
                                    ": No such file or directory");
                    break;
                }
                directory = parentOf(directory);
            }
        }
    }

    QSet<QByteArray> left;
    QStringList messages;

private:
    bool holdsEntries(const QByteArray& directory) const
    {
        return std::any_of(left.begin(), left.end(), [&directory](const QByteArray& path) {
            return path.startsWith(directory + "/");
        });
    }

    QList<Entry> mEntries;
};

} // namespace

/// Enforcements of random trees.
class CapacityRandomTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void removals_and_records_match_a_plain_computation_data();
    void removals_and_records_match_a_plain_computation();
};

void CapacityRandomTest::removals_and_records_match_a_plain_computation_data()
{
    QTest::addColumn<unsigned>("seed");
    QTest::addColumn<int>("sharePercent");
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const int percent = std::array{0, 10, 50, 90, 99, 101}.at(seed % 6);
        QTest::addRow("seed %u, %d %%", seed, percent) << seed << percent;
    }
}

void CapacityRandomTest::removals_and_records_match_a_plain_computation()
{
    QFETCH(const unsigned, seed);
    QFETCH(const int, sharePercent);
    QVERIFY(WatchedCard::insert());
    createTree(seed, 30, 80);
    const QList<Entry> before = ScannedTree::list(kRoot);
    const qint64 limit = ScannedTree::sizeOf(before) * sharePercent / 100;
    Model model(before);
    model.enforce(limit);
    const LogCapture log;
    WatchedCard::enforce(limit);
    QSet<QByteArray> left{kRoot};
    for (const QByteArray& path : WatchedCard::entries()) {
        left.insert(path);
    }
    WatchedCard::remove();
    QCOMPARE(left, model.left);
    QCOMPARE(log.messages(), model.messages);
    QCOMPARE(left.size() == before.size(), sharePercent > 100);
}

TEST_DEVICE_MAIN(CapacityRandomTest)
#include "CapacityRandomTest.moc"
