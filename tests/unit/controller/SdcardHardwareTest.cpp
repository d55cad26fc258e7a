#include <QTest>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

using Types = std::vector<unsigned char>;

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QString kError = QStringLiteral("ERROR sdcard sdcard: ");
const QStringList kCheck{kInfo + "Checking hardware..."};
const QStringList kInspection =
    kCheck + QStringList{kInfo + "SD Card is available but not initialized, check it..."};

} // namespace

class SdcardHardwareTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_card_without_a_usable_partition_is_formatted_data()
    {
        QTest::addColumn<bool>("isListed");
        QTest::addColumn<bool>("hasPartitionNode");
        QTest::addColumn<Types>("types");
        QTest::addColumn<QByteArray>("script"); // null if it does not run
        QTest::addColumn<QStringList>("records");
        const Types fat{CardImage::kFat};
        const QByteArray notRun;
        const QByteArray notNeeded("exit 0");
        const QStringList format =
            kInspection + QStringList{kInfo + "New SD Card detected",
                                      kInfo + "Executing '" + ToolStandIn::kFormatScript + "'..."};
        const QStringList ok{kInfo + "SD Card Linux Ext4 format is ok"};
        QTest::newRow("no card") << false << false << fat << notRun << kCheck;
        QTest::newRow("a partition's node") << true << true << fat << notRun << kCheck;
        QTest::newRow("one Linux partition")
            << true << false << Types{CardImage::kLinux} << notRun << kInspection + ok;
        QTest::newRow("one other partition") << true << false << fat << notNeeded << format + ok;
        QTest::newRow("two Linux partitions")
            << true << false << Types{CardImage::kLinux, CardImage::kLinux} << notNeeded
            << format + ok;
        QTest::newRow("one of each") << true << false << Types{CardImage::kLinux, CardImage::kFat}
                                     << notNeeded << format + ok;
        QTest::newRow("none") << true << false << Types{} << notNeeded << format + ok;
        QTest::newRow("formatted")
            << true << false << fat << QByteArray("exit 99")
            << format + QStringList{kInfo + "SD Card Linux Ext4 format was new "
                                            "initialized"};
        QTest::newRow("failed") << true << false << fat
                                << QByteArray("echo made; echo careful >&2; exit 1")
                                << format + QStringList{kInfo + "made", kError + "careful"};
        QTest::newRow("crashed") << true << false << fat << QByteArray("kill -9 $$")
                                 << format + QStringList{kError +
                                                         "QProcess::CrashExit: Process crashed"};
    }

    void a_card_without_a_usable_partition_is_formatted()
    {
        QFETCH(const bool, isListed);
        QFETCH(const bool, hasPartitionNode);
        QFETCH(const Types, types);
        QFETCH(const QByteArray, script);
        ControllerDevice device(mBus);
        if (isListed) {
            CardImage::listMmcCard();
        }
        CardImage::writeDisk(types);
        if (hasPartitionNode) {
            TestDevice::writeFile(CardImage::kPartition, {});
        }
        ToolStandIn::place(ToolStandIn::kFormatScript, script);
        device.construct();
        QTEST(device.effects().takeParts().logRecords, "records");
        QCOMPARE(ToolStandIn::takeCalls(),
                 script.isNull() ? QStringList() : QStringList{"tavo-create-sdcardFS.sh"});
        if (!hasPartitionNode) {
            ControllerDevice::settle();
            QCOMPARE(device.machineState(), QString("noSdCard"));
            QTest::qWait(2);
            device.removeCard();
            QCOMPARE(device.service().transition(), script == "exit 99" ? 0 : 2);
        }
    }

    void a_card_with_an_unreadable_table_is_left_alone()
    {
        ControllerDevice device(mBus);
        CardImage::listMmcCard();
        CardImage::writeBlankDisk();
        device.construct();
        QCOMPARE(device.effects().takeParts().logRecords,
                 kInspection +
                     QStringList{"ERROR sdcard fdisk: FDisk: Failed to read partition table "
                                 "of device '/card/mmcblk0'"});
        QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardHardwareTest)
#include "SdcardHardwareTest.moc"
