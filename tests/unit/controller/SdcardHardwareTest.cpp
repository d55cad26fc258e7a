#include <QDateTime>
#include <QTest>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardHardwareTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void without_a_listed_card_nothing_is_inspected();
    void a_card_with_its_partition_is_not_inspected();
    void a_card_without_a_usable_partition_is_inspected_data();
    void a_card_without_a_usable_partition_is_inspected();
    void a_card_whose_table_cannot_be_read_is_left();
    void a_card_whose_disk_is_unknown_is_left();
    void the_format_command_decides_what_is_told_data();
    void the_format_command_decides_what_is_told();
    void the_output_of_the_format_command_is_logged();

    void going_from_busy_to_mounted_leaves_the_delays();
    void going_from_busy_to_unmounted_writes_brightness_alone();
    void a_device_without_leds_is_handled_all_the_same();

private:
    TestBus mBus;
};

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QStringList kCheck{kInfo + "Checking hardware..."};
const QStringList kInspection =
    kCheck + QStringList{kInfo + "SD Card is available but not initialized, check it..."};
const QStringList kFormat{kInfo + "New SD Card detected",
                          kInfo + "Executing '/opt/tavo/bin/tavo-create-sdcardFS.sh'..."};

} // namespace

void SdcardHardwareTest::without_a_listed_card_nothing_is_inspected()
{
    ControllerDevice device(mBus);
    CardImage::writeDisk({CardImage::kFat});
    device.construct();
    QCOMPARE(device.effects().takeParts().logRecords, kCheck);
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
}

void SdcardHardwareTest::a_card_with_its_partition_is_not_inspected()
{
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeDisk({CardImage::kFat});
    TestDevice::writeFile(CardImage::kPartition, {});
    device.construct();
    QCOMPARE(device.effects().takeParts().logRecords, kCheck);
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
}

void SdcardHardwareTest::a_card_without_a_usable_partition_is_inspected_data()
{
    using Types = std::vector<unsigned char>;
    QTest::addColumn<Types>("types");
    QTest::addColumn<bool>("isFormatted");
    QTest::newRow("one Linux partition") << Types{CardImage::kLinux} << false;
    QTest::newRow("one other partition") << Types{CardImage::kFat} << true;
    QTest::newRow("two Linux partitions") << Types{CardImage::kLinux, CardImage::kLinux} << true;
    QTest::newRow("one of each") << Types{CardImage::kLinux, CardImage::kFat} << true;
    QTest::newRow("none") << Types{} << true;
}

void SdcardHardwareTest::a_card_without_a_usable_partition_is_inspected()
{
    QFETCH(const std::vector<unsigned char>, types);
    QFETCH(const bool, isFormatted);
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeDisk(types);
    device.construct();
    const QStringList ok{kInfo + "SD Card Linux Ext4 format is ok"};
    QCOMPARE(device.effects().takeParts().logRecords,
             isFormatted ? kInspection + kFormat + ok : kInspection + ok);
    QCOMPARE(ToolStandIn::takeCalls(),
             isFormatted ? QStringList{"tavo-create-sdcardFS.sh"} : QStringList());
}

void SdcardHardwareTest::a_card_whose_table_cannot_be_read_is_left()
{
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeBlankDisk();
    device.construct();
    QCOMPARE(device.effects().takeParts().logRecords,
             kInspection + QStringList{"ERROR sdcard fdisk: FDisk: Failed to read partition table "
                                       "of device '/card/mmcblk0'"});
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
}

void SdcardHardwareTest::a_card_whose_disk_is_unknown_is_left()
{
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    device.configure({}, "/card/mmcblk7p1");
    device.construct();
    QCOMPARE(device.effects().takeParts().logRecords,
             kInspection + QStringList{"ERROR sdcard fdisk: FDisk: Unable to get device path "
                                       "'/card/mmcblk7p1'"});
    ControllerDevice::settle();
    QCOMPARE(device.machineState(), QString("noSdCard"));
}

void SdcardHardwareTest::the_format_command_decides_what_is_told_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QStringList>("records");
    QTest::addColumn<bool>("hasBirthTime");
    QTest::newRow("not needed") << QByteArray("exit 0")
                                << QStringList{kInfo + "SD Card Linux Ext4 format is ok"} << false;
    QTest::newRow("formatted") << QByteArray("exit 99")
                               << QStringList{kInfo +
                                              "SD Card Linux Ext4 format was new initialized"}
                               << true;
    QTest::newRow("failed") << QByteArray("exit 1") << QStringList() << false;
    QTest::newRow("crashed") << QByteArray("kill -9 $$")
                             << QStringList{"ERROR sdcard sdcard: QProcess::CrashExit: Process "
                                            "crashed"}
                             << false;
}

void SdcardHardwareTest::the_format_command_decides_what_is_told()
{
    QFETCH(const QByteArray, script);
    QFETCH(const QStringList, records);
    QFETCH(const bool, hasBirthTime);
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, script);
    Sdcard& controller = device.construct();
    QCOMPARE(device.effects().takeParts().logRecords, kInspection + kFormat + records);
    ControllerDevice::settle();
    QCOMPARE(device.machineState(), QString("noSdCard"));
    QTest::qWait(2);
    controller.removeBlockDevice();
    QCOMPARE(device.service().transition(), hasBirthTime ? 0 : 2);
}

void SdcardHardwareTest::the_output_of_the_format_command_is_logged()
{
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, "echo made; echo careful >&2; exit 1");
    device.construct();
    QCOMPARE(device.effects().takeParts().logRecords,
             (kInspection + kFormat + QStringList{kInfo + "made", "ERROR sdcard sdcard: careful"}));
}

void SdcardHardwareTest::going_from_busy_to_mounted_leaves_the_delays()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    controller.setMountingState();
    controller.mounted();
    QCOMPARE(device.effects().takeParts().ledWrites, LedWrites::kBusy + LedWrites::kMounted);
}

void SdcardHardwareTest::going_from_busy_to_unmounted_writes_brightness_alone()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    QVERIFY(ControllerDevice::mountCard());
    controller.unmounting();
    QCOMPARE(device.effects().takeParts().ledWrites, LedWrites::kBusy + LedWrites::kUnmounted);
}

void SdcardHardwareTest::a_device_without_leds_is_handled_all_the_same()
{
    ControllerDevice device(mBus);
    device.leds().remove();
    device.startIn("mounted");
    QCOMPARE(device.service().state(), 3);
    Q_EMIT device.controller().SD_EJECT();
    QVERIFY(device.waitForState("unmounting"));
    QCOMPARE(device.effects().takeParts().logRecords.filter("ERROR"), QStringList());
    QVERIFY(!QFile::exists("/opt/tavo/tavodev/mmc1_leds"));
}

TEST_DEVICE_MAIN(SdcardHardwareTest)
#include "SdcardHardwareTest.moc"
