#include <QTest>
#include <QTimer>

#include <sys/statvfs.h>
#include <unistd.h>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "MemoryGauge.h"
#include "MountTableText.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardMemoryTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();

    void the_used_share_is_rounded_up_data();
    void the_used_share_is_rounded_up();
    void free_blocks_of_the_superuser_are_free();
    void what_is_not_mounted_has_no_used_share();
    void a_mount_of_another_name_has_no_used_share();
    void a_mount_that_cannot_be_asked_has_no_used_share();
    void each_bound_belongs_to_the_class_below_data();
    void each_bound_belongs_to_the_class_below();
    void the_state_is_announced_before_the_level();
    void an_unchanged_card_is_not_announced_again();
    void the_timer_refreshes();
    void a_refresh_depends_on_the_state_data();
    void a_refresh_depends_on_the_state();

private:
    TestBus mBus;
};

namespace {

const QString kMountPoint = QStringLiteral("/media/sdcard");

/// Mounts a card of a number of pages, of which some are used.
bool mountPages(int pages, int used)
{
    const auto pageSize = ::sysconf(_SC_PAGESIZE);
    TestDevice::unmountAll(kMountPoint);
    if (!TestDevice::mountTmpfs(kMountPoint, qint64{pages} * pageSize)) {
        return false;
    }
    if (used > 0) {
        TestDevice::writeFile(kMountPoint + "/filling",
                              QByteArray(static_cast<int>(used * pageSize), 'x'));
    }
    struct statvfs status = {};
    return ::statvfs("/media/sdcard", &status) == 0 &&
           status.f_blocks == static_cast<fsblkcnt_t>(pages) &&
           status.f_blocks - status.f_bfree == static_cast<fsblkcnt_t>(used);
}

} // namespace

void SdcardMemoryTest::cleanup()
{
    TestDevice::unmountAll(kMountPoint);
}

void SdcardMemoryTest::the_used_share_is_rounded_up_data()
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
    QTest::newRow("a third") << 300 << 100 << 34;
}

void SdcardMemoryTest::the_used_share_is_rounded_up()
{
    QFETCH(const int, pages);
    QFETCH(const int, used);
    QFETCH(const int, percent);
    QVERIFY(mountPages(pages, used));
    QCOMPARE(MemoryGauge::usedPercentage(kMountPoint), percent);
}

void SdcardMemoryTest::free_blocks_of_the_superuser_are_free()
{
    const ControllerDevice device(mBus);
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
}

void SdcardMemoryTest::what_is_not_mounted_has_no_used_share()
{
    QCOMPARE(MemoryGauge::usedPercentage(kMountPoint), 0);
    QCOMPARE(MemoryGauge::usedPercentage("/nowhere"), 0);
}

void SdcardMemoryTest::a_mount_of_another_name_has_no_used_share()
{
    QVERIFY(TestDevice::mountTmpfs("/media/sdcard2", 1 << 20));
    TestDevice::writeFile("/media/sdcard2/x", "x");
    QVERIFY(QDir().mkpath(kMountPoint));
    QCOMPARE(MemoryGauge::usedPercentage(kMountPoint), 0);
    QVERIFY(MemoryGauge::usedPercentage("/media/sdcard2") > 0);
    TestDevice::unmountAll("/media/sdcard2");
}

void SdcardMemoryTest::a_mount_that_cannot_be_asked_has_no_used_share()
{
    const MountTable table("a /media/gone ext4 rw 0 0\n");
    QCOMPARE(MemoryGauge::usedPercentage("/media/gone"), 0);
}

void SdcardMemoryTest::each_bound_belongs_to_the_class_below_data()
{
    QTest::addColumn<int>("used");
    QTest::addColumn<int>("memState");
    QTest::addColumn<int>("memLevel");
    QTest::newRow("empty") << 0 << 3 << 0;
    QTest::newRow("20 %") << 200 << 3 << 20;
    QTest::newRow("20.1 %") << 201 << 4 << 21;
    QTest::newRow("40 %") << 400 << 4 << 40;
    QTest::newRow("40.1 %") << 401 << 5 << 41;
    QTest::newRow("60 %") << 600 << 5 << 60;
    QTest::newRow("60.1 %") << 601 << 6 << 61;
    QTest::newRow("80 %") << 800 << 6 << 80;
    QTest::newRow("80.1 %") << 801 << 7 << 81;
    QTest::newRow("full") << 1000 << 7 << 100;
}

void SdcardMemoryTest::each_bound_belongs_to_the_class_below()
{
    QFETCH(const int, used);
    QFETCH(const int, memState);
    QFETCH(const int, memLevel);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QVERIFY(mountPages(1000, used));
    controller.checkMemState();
    QCOMPARE(device.service().memState(), memState);
    QCOMPARE(device.service().memLevel(), memLevel);
}

void SdcardMemoryTest::the_state_is_announced_before_the_level()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QVERIFY(mountPages(100, 50));
    controller.checkMemState();
    QCOMPARE(device.effects().take(), (QStringList{"MemStateChanged 5", "MemLevelChanged 50"}));
    QVERIFY(mountPages(100, 51));
    controller.checkMemState();
    QCOMPARE(device.effects().take(), QStringList{"MemLevelChanged 51"});
}

void SdcardMemoryTest::an_unchanged_card_is_not_announced_again()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    controller.checkMemState();
    controller.checkMemState();
    QCOMPARE(device.effects().take(), QStringList());
}

void SdcardMemoryTest::the_timer_refreshes()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QVERIFY(mountPages(100, 90));
    ControllerDevice::timer(controller, "memory timer").setInterval(1);
    QTRY_COMPARE(device.service().memLevel(), 90);
    QVERIFY(mountPages(100, 10));
    QTRY_COMPARE(device.service().memLevel(), 10);
}

void SdcardMemoryTest::a_refresh_depends_on_the_state_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<int>("memState"); // 6 is what it was before
    QTest::addColumn<int>("memLevel"); // 77 is what it was before
    const auto row = [](const char* state, int memState, int memLevel) {
        QTest::newRow(state) << QString(state) << memState << memLevel;
    };
    row("noSdCard", 1, 0);
    row("mounting", 6, 77);
    row("preparing", 6, 77);
    row("mounted", 4, 30);
    row("notMoutable", 2, 0);
    row("closingFiles", 6, 77);
    row("closingFilesForTermination", 6, 77);
    row("unmounting", 1, 0);
    row("unmountingForTermination", 1, 0);
    row("forced_unmounting", 6, 77);
    row("corrupted", 2, 0);
    row("terminating", 6, 77);
}

void SdcardMemoryTest::a_refresh_depends_on_the_state()
{
    QFETCH(const QString, state);
    QFETCH(const int, memState);
    QFETCH(const int, memLevel);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn(state);
    device.service().setMemState(6);
    device.service().setMemLevel(77);
    device.effects().take();
    controller.checkMemState();
    QCOMPARE(device.service().memState(), memState);
    QCOMPARE(device.service().memLevel(), memLevel);
    const QStringList announced{"MemStateChanged " + QString::number(memState),
                                "MemLevelChanged " + QString::number(memLevel)};
    QCOMPARE(device.effects().take(), memLevel == 77 ? QStringList() : announced);
}

TEST_DEVICE_MAIN(SdcardMemoryTest)
#include "SdcardMemoryTest.moc"
