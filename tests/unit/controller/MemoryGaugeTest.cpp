#include "MemoryGauge.h"

#include <QDir>
#include <QTest>

#include <sys/statvfs.h>
#include <unistd.h>

#include "CardImage.h"
#include "MountTableText.h"
#include "TestDevice.h"

class MemoryGaugeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { TestDevice::unmountAll(kMountPoint); }

    void the_used_share_is_rounded_up_data()
    {
        QTest::addColumn<int>("pages");
        QTest::addColumn<int>("used");
        QTest::addColumn<int>("percent");
        QTest::newRow("nothing") << 1000 << 0 << 0;
        QTest::newRow("a single block") << 10000 << 1 << 1;
        QTest::newRow("exactly 1 %") << 100 << 1 << 1;
        QTest::newRow("exactly 20 %") << 10000 << 2000 << 20;
        QTest::newRow("20.01 %") << 10000 << 2001 << 21;
        QTest::newRow("99.99 %") << 10000 << 9999 << 100;
        QTest::newRow("all") << 100 << 100 << 100;
        // In 32 bits, a size of 8 GiB is 0.
        QTest::newRow("8 GiB") << 8 * 1024 * 256 << 1 << 1;
    }

    void the_used_share_is_rounded_up()
    {
        QFETCH(const int, pages);
        QFETCH(const int, used);
        const qint64 pageSize = ::sysconf(_SC_PAGESIZE);
        QVERIFY(TestDevice::mountTmpfs(kMountPoint, pages * pageSize));
        if (used > 0) {
            TestDevice::writeFile(kMountPoint + "/filling",
                                  QByteArray(static_cast<int>(used * pageSize), 'x'));
        }
        QTEST(MemoryGauge::usedPercentage(kMountPoint), "percent");
    }

    void free_blocks_of_the_superuser_are_free()
    {
        QVERIFY(CardImage::createPartition());
        QVERIFY(CardImage::mountPartition(kMountPoint));
        struct statvfs status = {};
        QCOMPARE(::statvfs("/media/sdcard", &status), 0);
        const auto shareWithout = [&status](fsblkcnt_t free) {
            return static_cast<int>((100 * (status.f_blocks - free) + status.f_blocks - 1) /
                                    status.f_blocks);
        };
        QVERIFY(shareWithout(status.f_bfree) < shareWithout(status.f_bavail));
        QCOMPARE(MemoryGauge::usedPercentage(kMountPoint), shareWithout(status.f_bfree));
        TestDevice::unmountAll(kMountPoint);
        CardImage::remove();
    }

    void an_unmounted_card_has_no_used_share()
    {
        QCOMPARE(MemoryGauge::usedPercentage("/nowhere"), 0);

        QVERIFY(TestDevice::mountTmpfs("/media/sdcard2", 1 << 20));
        TestDevice::writeFile("/media/sdcard2/x", "x");
        QVERIFY(QDir().mkpath(kMountPoint));
        QCOMPARE(MemoryGauge::usedPercentage(kMountPoint), 0);
        QVERIFY(MemoryGauge::usedPercentage("/media/sdcard2") > 0);
        TestDevice::unmountAll("/media/sdcard2");

        // Mounted, but statvfs(2) fails.
        const MountTable table("a /media/gone ext4 rw 0 0\n");
        QCOMPARE(MemoryGauge::usedPercentage("/media/gone"), 0);
    }

    void each_bound_belongs_to_the_class_below_data()
    {
        QTest::addColumn<int>("percent");
        QTest::addColumn<int>("memState");
        const std::vector<std::pair<int, int>> rows{{0, 3},  {20, 3}, {21, 4}, {40, 4}, {41, 5},
                                                    {60, 5}, {61, 6}, {80, 6}, {81, 7}, {100, 7}};
        for (const auto& [percent, memState] : rows) {
            QTest::addRow("%d %%", percent) << percent << memState;
        }
    }

    void each_bound_belongs_to_the_class_below()
    {
        QFETCH(const int, percent);
        QTEST(static_cast<int>(MemoryGauge::memStateOf(percent)), "memState");
    }

private:
    const QString kMountPoint{"/media/sdcard"};
};

TEST_DEVICE_MAIN(MemoryGaugeTest)
#include "MemoryGaugeTest.moc"
