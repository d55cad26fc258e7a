#include <QDateTime>
#include <QStateMachine>
#include <QTest>
#include <QTimer>

#include <sys/mount.h>

#include "ControllerDevice.h"
#include "ControllerProbe.h"
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
    void the_machine_takes_its_transition_on_the_echo_too();
    void an_eject_forgets_the_format();
    void a_removed_card_that_is_mounted_writable_is_unmounted();
    void a_removed_card_that_is_mounted_read_only_is_left();
    void a_card_of_a_failed_forced_unmount_is_gone_all_the_same();
    void a_pulled_card_is_unmounted_and_gone();
    void the_limits_of_a_pulled_card_are_forgotten_data();
    void the_limits_of_a_pulled_card_are_forgotten();
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
    ControllerProbe::stateTimer(controller).start(20000);
    const QDateTime birth = QDateTime::currentDateTime();
    controller.setFsBirthDate(birth);
    ServiceClock::stopAt(birth.addMSecs(sinceFormatMs));
    controller.cardRemovedTriggered();
    QCOMPARE(device.service().transition(), isEcho ? 0 : 2);
    QCOMPARE(ControllerProbe::stateTimer(controller).isActive(), isEcho);
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             isEcho ? Sdcard::MountState::ReadWrite : Sdcard::MountState::NotMounted);
    QVERIFY(ControllerProbe::fsBirthTime(controller).isNull());
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

void SdcardRemovalTest::the_machine_takes_its_transition_on_the_echo_too()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounting");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    device.removeCard();
    QCOMPARE(device.service().transition(), 1);
    QCOMPARE(device.machineState(), QString("noSdCard"));
}

void SdcardRemovalTest::an_eject_forgets_the_format()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
    Q_EMIT controller.SD_EJECT();
    QVERIFY(ControllerProbe::fsBirthTime(controller).isNull());
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
             Sdcard::MountState::ReadOnly);
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
             Sdcard::MountState::NotMounted);
    QCOMPARE(device.effects().takeProperties().last(),
             QString("CardRemoved: State 1, IsMounted 0"));
}

void SdcardRemovalTest::the_limits_of_a_pulled_card_are_forgotten_data()
{
    QTest::addColumn<unsigned long>("flags");
    QTest::newRow("sound") << 0UL;
    // As the kernel makes it when the journal cannot be written any more.
    QTest::newRow("read-only") << static_cast<unsigned long>(MS_RDONLY);
}

void SdcardRemovalTest::the_limits_of_a_pulled_card_are_forgotten()
{
    QFETCH(const unsigned long, flags);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QVERIFY(controller.ensureDirSize("csv"));
    const QByteArray mountPoint = ControllerDevice::kMountPoint.toUtf8();
    QCOMPARE(::mount(nullptr, mountPoint, nullptr, MS_REMOUNT | flags, nullptr), 0);
    controller.cardRemovedTriggered();
    TestDevice::unmountAll(ControllerDevice::kMountPoint);
    // The next card, before it is ready.
    QVERIFY(ControllerDevice::mountCard());
    QVERIFY(!controller.ensureDirSize("csv"));
}

void SdcardRemovalTest::a_format_while_mounting_sets_the_birth_time()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    const QDateTime birth = QDateTime::currentDateTime();
    Q_EMIT ControllerProbe::machine(controller).findChild<StateMounting*>()->newFsBirthDate(birth);
    QCOMPARE(ControllerProbe::fsBirthTime(controller), birth);
}

TEST_DEVICE_MAIN(SdcardRemovalTest)
#include "SdcardRemovalTest.moc"
