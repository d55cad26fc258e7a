#include <QDateTime>
#include <QTest>
#include <QTimer>

#include <sys/mount.h>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "ControllerProbe.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardEventsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_card_that_is_present_at_start_is_inserted();
    void without_a_card_at_start_nothing_is_inserted();
    void an_insertion_is_delayed_by_a_second();
    void a_second_insertion_starts_the_delay_anew();
    void a_removal_within_the_delay_drops_the_insertion();
    void a_button_held_for_24_readings_does_not_eject();
    void a_button_held_for_25_readings_ejects_once();
    void a_button_is_pressed_where_its_file_says_1_data();
    void a_button_is_pressed_where_its_file_says_1();
    void a_button_that_cannot_be_read_keeps_the_count();
    void a_held_button_brings_the_card_out();
    void the_count_starts_anew_with_each_mounting();
    void a_rebooting_system_is_told_by_its_run_level_data();
    void a_rebooting_system_is_told_by_its_run_level();
    void without_runlevel_the_system_is_not_rebooting();
    void a_removal_soon_after_a_format_is_its_echo_data();
    void a_removal_soon_after_a_format_is_its_echo();
    void the_second_removal_after_a_format_is_real();
    void the_machine_takes_its_transition_on_the_echo_too();
    void an_eject_forgets_the_format();
    void a_removed_card_that_is_mounted_writable_is_unmounted();
    void a_removed_card_that_is_mounted_read_only_is_left();
    void a_card_of_a_failed_forced_unmount_is_gone_all_the_same();

private:
    TestBus mBus;
};

static const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");

void SdcardEventsTest::a_card_that_is_present_at_start_is_inserted()
{
    ControllerDevice device(mBus);
    TestDevice::writeFile(CardImage::kPartition, {});
    ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);
    device.construct();
    QVERIFY(device.waitForState("mounting"));
    const QStringList effects = device.effects().take();
    const int at = effects.indexOf("SD_INSERT");
    QVERIFY(at > 0);
    QCOMPARE(effects.at(at - 1), kInfo + "SD Card is already present");
    QCOMPARE(device.service().transition(), 1);
    QVERIFY(!effects.contains("ADD_DEVICE"));
}

void SdcardEventsTest::without_a_card_at_start_nothing_is_inserted()
{
    ControllerDevice device(mBus);
    device.start();
    QCOMPARE(device.machineState(), QString("noSdCard"));
    QCOMPARE(device.effects().takeParts().signalNames, QStringList{"MemStateChanged 1"});
}

void SdcardEventsTest::an_insertion_is_delayed_by_a_second()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    device.service().InsertCard();
    QCOMPARE(device.effects().take(), (QStringList{"ADD_DEVICE", "CardInserted"}));
    QTimer& delay = ControllerProbe::insertDelayTimer(controller);
    QVERIFY(delay.isActive());
    QCOMPARE(delay.interval(), 1000);
    QCOMPARE(device.service().transition(), 0);

    ControllerDevice::expire(delay);
    QCOMPARE(device.effects().take().first(), QString("SD_INSERT"));
    QCOMPARE(device.service().transition(), 1);
    QCOMPARE(device.machineState(), QString("mounting"));
}

void SdcardEventsTest::a_second_insertion_starts_the_delay_anew()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    const QTimer& delay = ControllerProbe::insertDelayTimer(controller);
    controller.addBlockDevice();
    QTRY_VERIFY(delay.remainingTime() < 980);
    controller.addBlockDevice();
    QVERIFY(delay.remainingTime() > 980);
}

void SdcardEventsTest::a_removal_within_the_delay_drops_the_insertion()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    device.service().InsertCard();
    device.service().RemoveCard();
    QVERIFY(!ControllerProbe::insertDelayTimer(controller).isActive());
    QCOMPARE(device.effects().take(), (QStringList{"ADD_DEVICE", "CardInserted", "SD_REMOVE",
                                                   "REMOVE_DEVICE", "CardRemoved"}));
}

void SdcardEventsTest::a_button_held_for_24_readings_does_not_eject()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    for (int round = 0; round < 2; ++round) {
        TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
        for (int reading = 0; reading < 24; ++reading) {
            controller.readInputDevice();
        }
        TestDevice::writeFile(ControllerDevice::kEjectButton, "0\n");
        controller.readInputDevice();
        QCOMPARE(ControllerProbe::ejectPressCount(controller), 0);
    }
    QCOMPARE(device.effects().take(), QStringList());
}

void SdcardEventsTest::a_button_held_for_25_readings_ejects_once()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    for (int reading = 0; reading < 24; ++reading) {
        controller.readInputDevice();
    }
    QCOMPARE(device.effects().take(), QStringList());
    controller.readInputDevice();
    QCOMPARE(device.effects().take(),
             (QStringList{kInfo + "SD Card eject trigger received", "SD_EJECT"}));
    QCOMPARE(ControllerProbe::ejectPressCount(controller), 0);
    controller.readInputDevice();
    QCOMPARE(ControllerProbe::ejectPressCount(controller), 1);
}

void SdcardEventsTest::a_button_is_pressed_where_its_file_says_1_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("count");
    QTest::newRow("1") << QByteArray("1") << 4;
    QTest::newRow("line") << QByteArray("1\n") << 4;
    QTest::newRow("white space") << QByteArray(" \t1 \n\n") << 4;
    QTest::newRow("leading zero") << QByteArray("01\n") << 4;
    QTest::newRow("released") << QByteArray("0\n") << 0;
    QTest::newRow("other number") << QByteArray("11\n") << 0;
    QTest::newRow("negative") << QByteArray("-1\n") << 0;
    QTest::newRow("empty") << QByteArray() << 3;
    QTest::newRow("no number") << QByteArray("pressed\n") << 3;
    QTest::newRow("another base") << QByteArray("0x1\n") << 3;
}

void SdcardEventsTest::a_button_is_pressed_where_its_file_says_1()
{
    QFETCH(const QByteArray, content);
    QFETCH(const int, count);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    for (int reading = 0; reading < 3; ++reading) {
        controller.readInputDevice();
    }
    TestDevice::writeFile(ControllerDevice::kEjectButton, content);
    controller.readInputDevice();
    QCOMPARE(ControllerProbe::ejectPressCount(controller), count);
}

void SdcardEventsTest::a_button_that_cannot_be_read_keeps_the_count()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    controller.readInputDevice();
    TestDevice::remove(ControllerDevice::kEjectButton);
    controller.readInputDevice();
    QCOMPARE(ControllerProbe::ejectPressCount(controller), 1);
    QCOMPARE(device.effects().take(), QStringList());
}

void SdcardEventsTest::a_held_button_brings_the_card_out()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QTimer& poll = ControllerProbe::ejectPollTimer(controller);
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    poll.setInterval(1);
    QVERIFY(device.waitForState("unmounting"));
    QVERIFY(!poll.isActive());
    QCOMPARE(device.effects().take().filter("SD_EJECT").size(), 1);
}

void SdcardEventsTest::the_count_starts_anew_with_each_mounting()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    controller.readInputDevice();
    QVERIFY(ControllerDevice::mountCard());
    controller.mounted();
    QCOMPARE(ControllerProbe::ejectPressCount(controller), 0);
}

void SdcardEventsTest::a_rebooting_system_is_told_by_its_run_level_data()
{
    QTest::addColumn<QByteArray>("runlevel");
    QTest::addColumn<bool>("isRebooting");
    QTest::newRow("5") << QByteArray("echo N 5") << false;
    QTest::newRow("6") << QByteArray("echo 5 6") << true;
    QTest::newRow("6 before") << QByteArray("echo 6 5") << true;
    QTest::newRow("6 anywhere") << QByteArray("echo at 16:05 N 5") << true;
    QTest::newRow("6 on standard error") << QByteArray("echo N 6 >&2") << false;
    QTest::newRow("failing") << QByteArray("echo N 6; exit 1") << true;
    QTest::newRow("crashing") << QByteArray("echo N 6; kill -9 $$") << false;
    QTest::newRow("unknown") << QByteArray("echo unknown; exit 1") << false;
}

void SdcardEventsTest::a_rebooting_system_is_told_by_its_run_level()
{
    QFETCH(const QByteArray, runlevel);
    QFETCH(const bool, isRebooting);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    ToolStandIn::place(ToolStandIn::kRunlevel, runlevel);
    ToolStandIn::takeCalls();
    controller.cardInsertedTriggered();
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"runlevel"});
    const QString ignored =
        "ERROR sdcard sdcard: Ignoring SD Card insert event because of System is rebooting";
    QCOMPARE(device.service().transition(), isRebooting ? 0 : 1);
    if (isRebooting) {
        QCOMPARE(device.effects().errorCount(), 1U);
    }
    QCOMPARE(device.effects().take().contains(ignored), isRebooting);

    Q_EMIT controller.SD_INSERT();
    QVERIFY(device.waitForState("mounting"));
}

void SdcardEventsTest::without_runlevel_the_system_is_not_rebooting()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", "/nowhere");
    controller.cardInsertedTriggered();
    qputenv("PATH", path);
    QCOMPARE(device.service().transition(), 1);
    QCOMPARE(device.effects().take(),
             QStringList{"ERROR sdcard sdcard: Starting command failed (exitstatus:0)"});
}

void SdcardEventsTest::a_removal_soon_after_a_format_is_its_echo_data()
{
    QTest::addColumn<int>("sinceFormatMs");
    QTest::addColumn<bool>("isEcho");
    QTest::newRow("at once") << 1 << true;
    QTest::newRow("a while later") << 2900 << true;
    QTest::newRow("too late") << 3000 << false;
    QTest::newRow("a clock set back") << -100000 << false;
}

void SdcardEventsTest::a_removal_soon_after_a_format_is_its_echo()
{
    QFETCH(const int, sinceFormatMs);
    QFETCH(const bool, isEcho);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    QVERIFY(ControllerDevice::mountCard());
    ControllerProbe::stateTimer(controller).start(20000);
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-sinceFormatMs));
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), isEcho ? 0 : 2);
    QCOMPARE(ControllerProbe::stateTimer(controller).isActive(), isEcho);
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             isEcho ? Sdcard::MountState::ReadWrite : Sdcard::MountState::NotMounted);
    QVERIFY(ControllerProbe::fsBirthTime(controller).isNull());
}

void SdcardEventsTest::the_second_removal_after_a_format_is_real()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), 0);
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), 2);
}

void SdcardEventsTest::the_machine_takes_its_transition_on_the_echo_too()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounting");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    device.removeCard();
    QCOMPARE(device.service().transition(), 1);
    QCOMPARE(device.machineState(), QString("noSdCard"));
}

void SdcardEventsTest::an_eject_forgets_the_format()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    Q_EMIT controller.SD_EJECT();
    QVERIFY(ControllerProbe::fsBirthTime(controller).isNull());
}

void SdcardEventsTest::a_removed_card_that_is_mounted_writable_is_unmounted()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    QVERIFY(ControllerDevice::mountCard());
    controller.cardRemovedTriggered();
    QCOMPARE(device.effects().take(), QStringList{kInfo + "Force unmount device (if not already)"});
    QVERIFY(!QFile::exists(ControllerDevice::kMountPoint));
}

void SdcardEventsTest::a_removed_card_that_is_mounted_read_only_is_left()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    QVERIFY(TestDevice::mountTmpfs(ControllerDevice::kMountPoint, 1 << 20, true));
    controller.cardRemovedTriggered();
    QCOMPARE(device.effects().take(), QStringList());
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             Sdcard::MountState::ReadOnly);
}

void SdcardEventsTest::a_card_of_a_failed_forced_unmount_is_gone_all_the_same()
{
    ControllerDevice device(mBus);
    device.startIn("mounted");
    QFile open(ControllerDevice::kMountPoint + "/filling");
    QVERIFY(open.open(QIODevice::ReadOnly));
    device.removeCard();
    const QStringList records = device.effects().takeParts().logRecords;
    QCOMPARE(records, (QStringList{kInfo + "Force unmount device (if not already)",
                                   "ERROR sdcard sdcard: Umount failed: error code 'Device or "
                                   "resource busy'"}));
    QCOMPARE(device.machineState(), QString("noSdCard"));
}

TEST_DEVICE_MAIN(SdcardEventsTest)
#include "SdcardEventsTest.moc"
