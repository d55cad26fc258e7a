#include <QCoreApplication>
#include <QTest>

#include <unistd.h>

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

// Makes @p levels directories, each in the one before, and enters the last.
void descend(int levels, const QByteArray& name)
{
    QCOMPARE(::chdir(kRoot.constData()), 0);
    for (int i = 0; i < levels; ++i) {
        createDirectory(name);
        QCOMPARE(::chdir(name.constData()), 0);
    }
}

} // namespace

/// Cards as full as only real ones are.
class CapacityLimitsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_file_costs_at_most_320_bytes_data();
    void a_file_costs_at_most_320_bytes();
    void a_tree_deeper_than_a_path_is_long_is_emptied_data();
    void a_tree_deeper_than_a_path_is_long_is_emptied();
};

void CapacityLimitsTest::init()
{
    QVERIFY(WatchedCard::insert(kCardSize));
    createFile(kFile, kFileSize);
}

void CapacityLimitsTest::cleanup()
{
    QCOMPARE(::chdir("/"), 0);
    WatchedCard::remove();
}

void CapacityLimitsTest::a_file_costs_at_most_320_bytes_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<int>("directories");
    QTest::addColumn<int>("removed");
    QTest::newRow("few of one huge directory") << 20'000 << 1 << 300;
    QTest::newRow("most of one directory") << 10'000 << 1 << 9'000;
    QTest::newRow("all of many directories") << 10'000 << 1'000 << 10'000;
    QTest::newRow("one file in each directory") << 6'000 << 6'000 << 6'000;
}

void CapacityLimitsTest::a_file_costs_at_most_320_bytes()
{
    if (!PeakMemory::kIsMeasurable) {
        QSKIP("a sanitizer's own memory is in the figure");
    }
    QFETCH(const int, files);
    QFETCH(const int, directories);
    QFETCH(const int, removed);
    const LogCapture log;
    const auto peakOf = [](qint64 limit) {
        return PeakMemory::of([limit] {
            WatchedCard::enforce(limit);
            return true;
        });
    };
    createFile(kRoot + "/single");
    const qint64 peakOfSingle = peakOf(0);
    constexpr int kPathLength = 40;
    for (int i = 0; i < directories; ++i) {
        const QByteArray dir = kRoot + "/" + QByteArray::number(i).rightJustified(8, '0');
        createDirectory(dir);
        ScannedTree::createNames(kFile, dir, files / directories, kPathLength - dir.size() - 1);
    }
    // The directories' own sizes are less than that of a file.
    const qint64 limit = (files - removed + 1) * kFileSize;
    const qint64 peak = peakOf(limit) - peakOfSingle;
    QVERIFY(peak > 0);
    qInfo("%.1f bytes a file", static_cast<double>(peak) / files);
    QVERIFY2(peak <= qint64{320} * files, qPrintable(QString::number(peak / files)));
    QCOMPARE(WatchedCard::files().size(), files - removed);
}

void CapacityLimitsTest::a_tree_deeper_than_a_path_is_long_is_emptied_data()
{
    QTest::addColumn<int>("levels");
    QTest::addColumn<int>("nameLength");
    QTest::newRow("200 short names") << 200 << 3;
    QTest::newRow("40 long names") << 40 << 250;
    QTest::newRow("200 long names") << 200 << 255;
}

void CapacityLimitsTest::a_tree_deeper_than_a_path_is_long_is_emptied()
{
    QFETCH(const int, levels);
    QFETCH(const int, nameLength);
    descend(levels, QByteArray(nameLength, 'x'));
    createFile("file", kFileSize);
    QCOMPARE(::chdir("/"), 0);
    const LogCapture log;
    WatchedCard::enforce(0);
    QCOMPARE(WatchedCard::entries(), QList<QByteArray>());
    QCOMPARE(log.messages(), QStringList());
}

TEST_DEVICE_MAIN(CapacityLimitsTest)
#include "CapacityLimitsTest.moc"
