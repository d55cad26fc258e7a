#include <array>
#include <cerrno>

#include <QDir>
#include <QSignalSpy>
#include <QTest>

#include "CardImage.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "MountingHarness.h"
#include "StateMounting.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

using SystemCalls::Call;

namespace {

const QString kCard = QStringLiteral("/media/sdcard");
const QString kInfo = QStringLiteral("INFO St:Mounting StateMounting: ");
const QString kError = QStringLiteral("ERROR St:Mounting StateMounting: ");
const QString kFormatting = QStringLiteral("INFO St:Mounting sdcard: "
                                           "Executing '/opt/tavo/bin/tavo-create-sdcardFS.sh'...");
const QString kFormatCall = QStringLiteral("tavo-create-sdcardFS.sh");
const QString kCheckCall = QStringLiteral("e2fsck -p /card/mmcblk0p1");

// From here on every mount seems to succeed.
void pretendMounts()
{
    SystemCalls::reset();
    SystemCalls::fail(Call::Mount, 0, 100);
}

QStringList mountCalls()
{
    return SystemCalls::takeCalls().filter("mount ");
}

} // namespace

/// What the worker finds out about the card, and what the state then emits.
class StateMountingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void the_worker_is_named_after_the_state();
    void each_result_has_its_signal_data();
    void each_result_has_its_signal();
    void results_are_known_to_queued_connections();
    void a_card_that_is_mounted_already_is_left_as_it_is();
    void a_card_with_one_linux_partition_is_checked_and_mounted();
    void any_other_layout_is_formatted_data();
    void any_other_layout_is_formatted();
    void a_new_file_system_is_announced_with_its_birth();
    void a_card_that_needed_no_format_is_told_to_be_right();
    void a_format_that_fails_ends_the_mounting_data();
    void a_format_that_fails_ends_the_mounting();
    void a_card_that_cannot_be_inspected_is_not_formatted_data();
    void a_card_that_cannot_be_inspected_is_not_formatted();
    void a_card_that_cannot_be_mounted_is_corrupt();
    void a_mount_point_that_cannot_be_used_is_a_failure();
};

void StateMountingTest::initTestCase()
{
    CardImage::prepareSysfs();
    ToolStandIn::putFirst();
}

void StateMountingTest::init()
{
    CardImage::writeDisk({CardImage::kLinux});
    ToolStandIn::place(ToolStandIn::kE2fsck, "");
    ToolStandIn::place(ToolStandIn::kFormatScript, "");
    ToolStandIn::takeCalls();
    ToolStandIn::holdBack();
    pretendMounts();
}

void StateMountingTest::cleanup()
{
    ToolStandIn::letGo();
    SystemCalls::reset();
    TestDevice::unmountAll(kCard);
    TestDevice::remove("/media");
    CardImage::remove();
}

void StateMountingTest::the_worker_is_named_after_the_state()
{
    MountingHarness state;
    QCOMPARE(state.worker().objectName(), QString("St:Mounting"));
    QCOMPARE(QString::fromStdString(state.worker().logger()->getName()), QString("St:Mounting"));
}

void StateMountingTest::each_result_has_its_signal_data()
{
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("signalNames");
    QTest::newRow("IgnoreEmit") << 0 << QStringList();
    QTest::newRow("StartPrepare") << 1 << QStringList{"START_PREPARE"};
    QTest::newRow("MountSuccess") << 2 << QStringList{"MOUNT_SUCCESS"};
    QTest::newRow("MountFailed") << 3 << QStringList{"MOUNT_FAILED"};
    QTest::newRow("MountCorupt") << 4 << QStringList{"MOUNT_CORRUPT"};
}

void StateMountingTest::each_result_has_its_signal()
{
    QFETCH(const int, result);
    QFETCH(const QStringList, signalNames);
    const QMetaEnum results = QMetaEnum::fromType<StateMounting::eTransitionChangeSignalType>();
    QCOMPARE(QString(results.valueToKey(result)), QString(QTest::currentDataTag()));
    MountingHarness state;
    state.state().setTransitionChangeSignal(
        static_cast<StateMounting::eTransitionChangeSignalType>(result));
    QCOMPARE(state.signalNames(), QStringList());
    state.state().emitTransitionChangeSignal();
    QCOMPARE(state.signalNames(), signalNames);
    // It stays until the next is reported.
    state.state().emitTransitionChangeSignal();
    QCOMPARE(state.signalNames(), signalNames + signalNames);
}

void StateMountingTest::results_are_known_to_queued_connections()
{
    const MountingHarness state;
    QVERIFY(QMetaType::type("StateMounting::eTransitionChangeSignalType") !=
            QMetaType::UnknownType);
}

void StateMountingTest::a_card_that_is_mounted_already_is_left_as_it_is()
{
    SystemCalls::reset();
    QVERIFY(TestDevice::mountTmpfs(kCard, 1 << 20));
    pretendMounts();
    CardImage::remove();
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), QStringList{"MOUNT_SUCCESS"});
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QCOMPARE(mountCalls(), QStringList());
}

void StateMountingTest::a_card_with_one_linux_partition_is_checked_and_mounted()
{
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "START_PREPARE"}));
    QVERIFY(state.isInMainThread());
    QCOMPARE(describe(log.records()), QStringList{kInfo + "SD Card Linux Ext4 format is ok"});
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{kCheckCall});
    QCOMPARE(mountCalls(), QStringList{"mount /card/mmcblk0p1 /media/sdcard ext4 1024 "
                                       "data=journal,nodelalloc,journal_checksum"});
    QCOMPARE(log.errorCount(), 0U);
}

void StateMountingTest::any_other_layout_is_formatted_data()
{
    using Types = std::vector<unsigned char>;
    QTest::addColumn<std::vector<unsigned char>>("types");
    QTest::newRow("no partition") << Types{};
    QTest::newRow("FAT") << Types{CardImage::kFat};
    QTest::newRow("two of Linux") << Types{CardImage::kLinux, CardImage::kLinux};
    QTest::newRow("Linux and FAT") << Types{CardImage::kLinux, CardImage::kFat};
}

void StateMountingTest::any_other_layout_is_formatted()
{
    QFETCH(const std::vector<unsigned char>, types);
    CardImage::writeDisk(types);
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 99");
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "newFsBirthDate", "START_PREPARE"}));
    QCOMPARE(describe(log.records()),
             (QStringList{kInfo + "New SD Card detected", kFormatting,
                          kInfo + "SD Card Linux Ext4 format was new initialized"}));
    QCOMPARE(ToolStandIn::takeCalls(), (QStringList{kFormatCall, kCheckCall}));
}

void StateMountingTest::a_new_file_system_is_announced_with_its_birth()
{
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 99");
    MountingHarness state;
    const QSignalSpy births(&state.state(), &StateMounting::newFsBirthDate);
    const QDateTime before = QDateTime::currentDateTime();
    const LogCapture log;
    state.run();
    QCOMPARE(births.size(), 1);
    QVERIFY(births.at(0).at(0).toDateTime() >= before);
    QVERIFY(births.at(0).at(0).toDateTime() <= QDateTime::currentDateTime());
}

void StateMountingTest::a_card_that_needed_no_format_is_told_to_be_right()
{
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, "echo nothing to do");
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "START_PREPARE"}));
    QCOMPARE(describe(log.records()), (QStringList{kInfo + "New SD Card detected", kFormatting,
                                                   "INFO St:Mounting sdcard: nothing to do",
                                                   kInfo + "SD Card Linux Ext4 format is ok"}));
    QCOMPARE(ToolStandIn::takeCalls(), (QStringList{kFormatCall, kCheckCall}));
}

void StateMountingTest::a_format_that_fails_ends_the_mounting_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("code");
    QTest::addColumn<unsigned int>("errors");
    QTest::newRow("exit code") << QByteArray("exit 1") << "1" << 1U;
    QTest::newRow("largest exit code") << QByteArray("exit 255") << "255" << 1U;
    QTest::newRow("crash") << QByteArray("kill -KILL $$") << "-1" << 2U;
}

void StateMountingTest::a_format_that_fails_ends_the_mounting()
{
    QFETCH(const QByteArray, script);
    QFETCH(const QString, code);
    QFETCH(const unsigned int, errors);
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, script);
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "MOUNT_FAILED"}));
    QCOMPARE(describe(log.records()).last(),
             kError + "SD Card MMC formatting failed (exit code: " + code + ")");
    QCOMPARE(log.records().last().function, QString("virtual void ThreadMounting::run()"));
    QCOMPARE(log.errorCount(), errors);
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{kFormatCall});
    QCOMPARE(mountCalls(), QStringList());
}

void StateMountingTest::a_card_that_cannot_be_inspected_is_not_formatted_data()
{
    QTest::addColumn<bool>("hasDisk");
    QTest::addColumn<QString>("why");
    QTest::addColumn<QString>("code");
    QTest::newRow("no table") << true << "Failed to read partition table of device '/card/mmcblk0'"
                              << "-2";
    QTest::newRow("no disk") << false << "Unable to open '/card/mmcblk0'"
                             << "-1";
}

void StateMountingTest::a_card_that_cannot_be_inspected_is_not_formatted()
{
    QFETCH(const bool, hasDisk);
    QFETCH(const QString, why);
    QFETCH(const QString, code);
    CardImage::remove();
    if (hasDisk) {
        CardImage::writeBlankDisk();
    }
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "MOUNT_FAILED"}));
    QCOMPARE(describe(log.records()),
             (QStringList{"ERROR St:Mounting fdisk: FDisk: " + why,
                          kError + "SD Card MMC formatting failed (exit code: " + code + ")"}));
    QCOMPARE(log.errorCount(), 2U);
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
}

void StateMountingTest::a_card_that_cannot_be_mounted_is_corrupt()
{
    SystemCalls::fail(Call::Mount, EIO);
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "MOUNT_CORRUPT"}));
    QCOMPARE(describe(log.records()), (QStringList{kInfo + "SD Card Linux Ext4 format is ok",
                                                   kError + "Mount failed: Input/output error"}));
    QVERIFY(!QFile::exists(kCard));
}

void StateMountingTest::a_mount_point_that_cannot_be_used_is_a_failure()
{
    TestDevice::writeFile(kCard, "content");
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), (QStringList{"mountingStateActive", "MOUNT_FAILED"}));
    QCOMPARE(describe(log.records()), QStringList{kInfo + "SD Card Linux Ext4 format is ok"});
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QCOMPARE(TestDevice::readFile(kCard), QByteArray("content"));
}

TEST_DEVICE_MAIN(StateMountingTest)
#include "StateMountingTest.moc"
