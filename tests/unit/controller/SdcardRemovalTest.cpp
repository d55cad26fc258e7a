#include <QDateTime>
#include <QStateMachine>
#include <QTest>
#include <QTimer>

#include <sys/mount.h>

#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "ServiceClock.h"
#include "StateMounting.h"
#include "TestDevice.h"

class SdcardRemovalTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { ServiceClock::release(); }

    void a_removal_1_to_2999_ms_after_a_format_is_its_echo_data();
    void a_removal_1_to_2999_ms_after_a_format_is_its_echo();
    void the_second_removal_after_a_format_is_real();
    void the_echo_of_a_format_moves_no_state_data();
    void the_echo_of_a_format_moves_no_state();
    void of_two_removals_at_once_the_second_counts();
    void an_eject_forgets_the_format();
    void a_removed_card_that_is_mounted_writable_is_unmounted();
    void a_removed_card_that_is_mounted_read_only_is_left();
    void a_card_of_a_failed_forced_unmount_is_gone_all_the_same();
    void a_pulled_card_is_unmounted_and_gone();
    void the_limits_of_a_pulled_card_are_forgotten();
    void the_limits_of_a_card_that_stays_mounted_are_kept();
    void a_format_while_mounting_sets_the_birth_time();

private:
    TestBus mBus;
};

static const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");

void SdcardRemovalTest::a_removal_1_to_2999_ms_after_a_format_is_its_echo_data()
{
    QTest::addColumn<int>("sinceFormatMs");
    QTest::addColumn<bool>("isEcho");
    QTest::newRow("0 ms") << 0 << false;
    QTest::newRow("1 ms") << 1 << true;
    QTest::newRow("2999 ms") << 2999 << true;
    QTest::newRow("3000 ms") << 3000 << false;
    QTest::newRow("a clock set back") << -100000 << false;
}

void SdcardRemovalTest::a_removal_1_to_2999_ms_after_a_format_is_its_echo()
{
    QFETCH(const int, sinceFormatMs);
    QFETCH(const bool, isEcho);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    QVERIFY(ControllerDevice::mountCard());
    ControllerDevice::timer(controller, "state timer").start(20000);
    const QDateTime birth = QDateTime::currentDateTime();
    controller.setFsBirthDate(birth);
    ServiceClock::stopAt(birth.addMSecs(sinceFormatMs));
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), isEcho ? 0 : 2);
    QCOMPARE(ControllerDevice::timer(controller, "state timer").isActive(), isEcho);
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             isEcho ? MountState::ReadWrite : MountState::NotMounted);
}

void SdcardRemovalTest::the_second_removal_after_a_format_is_real()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), 0);
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), 2);
}

void SdcardRemovalTest::the_echo_of_a_format_moves_no_state_data()
{
    QTest::addColumn<QString>("state");
    for (const char* const state : {"mounting", "preparing", "mounted", "notMoutable",
                                    "closingFiles", "unmounting", "closingFilesForTermination"}) {
        QTest::newRow(state) << QString(state);
    }
}

void SdcardRemovalTest::the_echo_of_a_format_moves_no_state()
{
    QFETCH(const QString, state);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn(state);
    const int transition = device.service().transition();
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    device.removeCard();
    QCOMPARE(device.machineState(), state);
    QCOMPARE(device.service().transition(), transition);
    device.removeCard();
    QVERIFY(device.machineState() != state);
}

void SdcardRemovalTest::of_two_removals_at_once_the_second_counts()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounting");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    controller.removeBlockDevice();
    controller.removeBlockDevice();
    ControllerDevice::settle();
    QCOMPARE(device.machineState(), QString("noSdCard"));
}

void SdcardRemovalTest::an_eject_forgets_the_format()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    Q_EMIT controller.SD_EJECT();
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), 2);
}

void SdcardRemovalTest::a_removed_card_that_is_mounted_writable_is_unmounted()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    QVERIFY(ControllerDevice::mountCard());
    controller.cardRemovedTriggered();
    QCOMPARE(device.effects().take(), QStringList{kInfo + "Force unmount device (if not already)"});
    QVERIFY(!QFile::exists(ControllerDevice::kMountPoint));
}

void SdcardRemovalTest::a_removed_card_that_is_mounted_read_only_is_left()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    QVERIFY(TestDevice::mountTmpfs(ControllerDevice::kMountPoint, 1 << 20, true));
    controller.cardRemovedTriggered();
    QCOMPARE(device.effects().take(), QStringList());
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             MountState::ReadOnly);
}

void SdcardRemovalTest::a_card_of_a_failed_forced_unmount_is_gone_all_the_same()
{
    ControllerDevice device(mBus);
    device.startIn("mounted");
    QFile open(ControllerDevice::kMountPoint + "/filling");
    QVERIFY(open.open(QIODevice::ReadOnly));
    device.removeCard();
    QCOMPARE(device.effects().errorCount(), 1U);
    const QStringList records = device.effects().takeParts().logRecords;
    QCOMPARE(records, (QStringList{kInfo + "Force unmount device (if not already)",
                                   "ERROR sdcard sdcard: Umount failed: error code 'Device or "
                                   "resource busy'"}));
    QCOMPARE(device.machineState(), QString("noSdCard"));
}

void SdcardRemovalTest::a_pulled_card_is_unmounted_and_gone()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    device.removeCard();
    QCOMPARE(device.machineState(), QString("noSdCard"));
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             MountState::NotMounted);
    QCOMPARE(device.effects().takeProperties().last(),
             QString("CardRemoved: State 1, IsMounted 0"));
}

void SdcardRemovalTest::the_limits_of_a_pulled_card_are_forgotten()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QVERIFY(controller.ensureDirSize("csv"));
    controller.cardRemovedTriggered();
    // The next card, before it is ready.
    QVERIFY(ControllerDevice::mountCard());
    QVERIFY(!controller.ensureDirSize("csv"));
}

void SdcardRemovalTest::the_limits_of_a_card_that_stays_mounted_are_kept()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QFile open(ControllerDevice::kMountPoint + "/filling");
    QVERIFY(open.open(QIODevice::ReadOnly));
    controller.cardRemovedTriggered();
    QVERIFY(controller.ensureDirSize("csv"));
}

void SdcardRemovalTest::a_format_while_mounting_sets_the_birth_time()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    const QDateTime birth = QDateTime::currentDateTime().addMSecs(-1);
    Q_EMIT controller.machine().findChild<StateMounting*>()->newFsBirthDate(birth);
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), 0);
}

TEST_DEVICE_MAIN(SdcardRemovalTest)
#include "SdcardRemovalTest.moc"
