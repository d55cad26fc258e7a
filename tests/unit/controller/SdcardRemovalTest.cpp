#include <functional>

#include <QDateTime>
#include <QStateMachine>
#include <QTest>
#include <QTimer>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "StateMounting.h"
#include "TestDevice.h"

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
std::function<void()> onUnmount;

} // namespace

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

int __real_umount2(const char*, int);

int __wrap_umount2(const char* target, int flags)
{
    if (onUnmount) {
        onUnmount();
    }
    return __real_umount2(target, flags);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

class SdcardRemovalTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        TestDevice::unmountAll(ControllerDevice::kMountPoint);
        onUnmount = nullptr;
    }

    void a_removal_stops_the_state_timer_and_shows_itself_before_it_unmounts()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("noSdCard");
        const QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
        ControllerDevice::timer(controller, "state timer").start(20000);
        QVERIFY(ControllerDevice::mountCard());
        bool isTimed = true;
        int transition = 0;
        onUnmount = [&] {
            isTimed = stateTimer.isActive();
            transition = device.service().transition();
        };
        controller.cardRemovedTriggered();
        onUnmount = nullptr;
        QVERIFY(!isTimed);
        QCOMPARE(transition, 2);
        QCOMPARE(device.effects().take(),
                 QStringList{kInfo + "Force unmount device (if not already)"});
        QVERIFY(!QFile::exists(ControllerDevice::kMountPoint));
    }

    void the_echo_of_a_format_moves_no_state_data()
    {
        QTest::addColumn<QString>("state");
        for (const char* const state :
             {"mounting", "preparing", "mounted", "notMoutable", "closingFiles", "unmounting",
              "closingFilesForTermination"}) {
            QTest::newRow(state) << QString(state);
        }
    }

    void the_echo_of_a_format_moves_no_state()
    {
        QFETCH(const QString, state);
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn(state);
        QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
        stateTimer.start(20000);
        const int transition = device.service().transition();
        const MountState mounted = Sdcard::getMountState(controller.logger(), "/media/sdcard");
        controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
        device.removeCard();
        QCOMPARE(device.machineState(), state);
        QCOMPARE(device.service().transition(), transition);
        QVERIFY(stateTimer.isActive());
        QCOMPARE(Sdcard::getMountState(controller.logger(), "/media/sdcard"), mounted);
        device.removeCard();
        QVERIFY(device.machineState() != state);
    }

    void of_two_removals_at_once_the_second_counts()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounting");
        controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
        controller.removeBlockDevice();
        controller.removeBlockDevice();
        ControllerDevice::settle();
        QCOMPARE(device.machineState(), QString("noSdCard"));
    }

    void an_eject_forgets_the_format()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("noSdCard");
        controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
        Q_EMIT controller.SD_EJECT();
        controller.cardRemovedTriggered();
        QCOMPARE(device.service().transition(), 2);
    }

    void a_removed_card_that_is_mounted_read_only_is_left()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("noSdCard");
        QVERIFY(TestDevice::mountTmpfs(ControllerDevice::kMountPoint, 1 << 20, true));
        controller.cardRemovedTriggered();
        QCOMPARE(device.effects().take(), QStringList());
        QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
                 MountState::ReadOnly);
    }

    void a_card_is_gone_even_after_a_failed_forced_unmount()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounted");
        QFile open(ControllerDevice::kMountPoint + "/filling");
        QVERIFY(open.open(QIODevice::ReadOnly));
        device.removeCard();
        // Its limits stay.
        QVERIFY(controller.ensureDirSize("csv"));
        QCOMPARE(device.effects().errorCount(), 1U);
        const QStringList records = device.effects().takeParts().logRecords;
        QCOMPARE(records, (QStringList{kInfo + "Force unmount device (if not already)",
                                       "ERROR sdcard sdcard: Umount failed: error code 'Device or "
                                       "resource busy'"}));
        QCOMPARE(device.machineState(), QString("noSdCard"));
    }

    void the_limits_of_a_pulled_card_are_forgotten()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounted");
        QVERIFY(controller.ensureDirSize("csv"));
        controller.cardRemovedTriggered();
        // The next card, before it is ready.
        QVERIFY(ControllerDevice::mountCard());
        QVERIFY(!controller.ensureDirSize("csv"));
    }

    void a_format_while_mounting_sets_the_birth_time()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("noSdCard");
        const QDateTime birth = QDateTime::currentDateTime().addMSecs(-1);
        Q_EMIT controller.machine().findChild<StateMounting*>()->newFsBirthDate(birth);
        controller.cardRemovedTriggered();
        QCOMPARE(device.service().transition(), 0);
    }

    void an_insertion_that_follows_the_echo_leaves_the_run_to_its_end()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounting");
        ToolStandIn::place(ControllerDevice::kJobDirectory + "/job", "exit 0");
        QVERIFY(CardImage::createPartition());
        controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
        device.removeCard();
        device.insertCard();
        QCOMPARE(device.machineState(), QString("mounting"));
        ToolStandIn::letGo();
        QVERIFY(device.waitForState("mounted"));
        const QStringList calls = ToolStandIn::calls();
        QCOMPARE(calls.filter("e2fsck").size(), 1);
        QCOMPARE(calls.filter("job"), QStringList{"job csv=/csv"});
    }

    void a_termination_that_follows_the_echo_unmounts_the_card()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounted");
        controller.setFsBirthDate(QDateTime::currentDateTime().addMSecs(-1));
        device.removeCard();
        static_cast<void>(std::raise(SIGTERM));
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(device.effects().takeParts().signalNames.contains("CardUnmounted"));
        QVERIFY(!QFile::exists(ControllerDevice::kMountPoint));
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardRemovalTest)
#include "SdcardRemovalTest.moc"
