#include <QTest>
#include <QTimer>

#include <sys/statvfs.h>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardHandlersTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_constructor_works_in_this_order();
    void without_the_bus_name_the_card_is_handled_all_the_same();
    void without_its_place_on_the_bus_the_object_is_not_registered();
    void directories_are_asked_of_the_configuration();
    void entering_no_sd_card_has_these_effects();
    void a_worker_that_begins_shows_mounting();
    void entering_mounted_has_these_effects();
    void without_an_eject_button_there_is_no_poll();
    void entering_mounted_hands_the_card_to_the_capacity_watcher();
    void leaving_mounted_stops_its_timers();
    void entering_not_mountable_has_these_effects();
    void entering_corrupted_has_these_effects();
    void entering_terminating_has_these_effects();
    void a_successful_unmount_has_these_effects();
    void an_unmount_takes_the_card_from_the_capacity_watcher();
    void a_trigger_sets_its_transition_data();
    void a_trigger_sets_its_transition();
    void files_closed_and_time_out_stop_the_state_timer();
    void a_successful_unmount_is_no_transition();
    void timers_are_single_shot_where_they_bound_something();
    void ending_the_controller_changes_nothing_outside();

private:
    static void mountedEffectsAre(const QStringList& buttonRecords, ControllerDevice& device);

    TestBus mBus;
};

static const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");

void SdcardHandlersTest::the_constructor_works_in_this_order()
{
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeDisk({CardImage::kFat});
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 99");
    device.construct();
    QCOMPARE(device.effects().take(),
             (QStringList{kInfo + "Checking hardware...",
                          kInfo + "SD Card is available but not initialized, check it...",
                          kInfo + "New SD Card detected",
                          kInfo + "Executing '" + ToolStandIn::kFormatScript + "'...",
                          kInfo + "SD Card Linux Ext4 format was new initialized"}));
    QVERIFY(device.controller().isServiceRegistered());
    QCOMPARE(device.service().parent(), &device.controller());
    QCOMPARE(device.service().mountPoint(), ControllerDevice::kMountPoint);
}

void SdcardHandlersTest::without_the_bus_name_the_card_is_handled_all_the_same()
{
    ControllerDevice device(mBus);
    QDBusConnection other = mBus.connection("other");
    QVERIFY(other.registerService("tavo.SDCard1"));
    Sdcard& controller = device.start();
    QVERIFY(other.unregisterService("tavo.SDCard1"));
    QVERIFY(!controller.isServiceRegistered());
    QCOMPARE(device.effects().errorCount(), 1U);
    QCOMPARE(device.effects().takeParts().logRecords,
             (QStringList{kInfo + "Checking hardware...",
                          "ERROR sdcard sdcard: Connect to dbus failed"}));

    device.service().InsertCard();
    QVERIFY(!ControllerDevice::timer(controller, "insert delay timer").isActive());
    device.service().RemoveCard();
    QCOMPARE(device.effects().take(), (QStringList{"CardInserted", "CardRemoved"}));

    QVERIFY(ControllerDevice::mountCard());
    Q_EMIT controller.SD_INSERT();
    QVERIFY(device.waitForState("mounted"));
}

void SdcardHandlersTest::without_its_place_on_the_bus_the_object_is_not_registered()
{
    ControllerDevice device(mBus);
    QObject other;
    QVERIFY(device.connection().registerObject("/tavo/sdcard", &other));
    const Sdcard& controller = device.construct();
    device.connection().unregisterObject("/tavo/sdcard");
    QVERIFY(!controller.isServiceRegistered());
    QCOMPARE(device.effects().take(), QStringList{kInfo + "Checking hardware..."});
    device.service().InsertCard();
    QVERIFY(device.effects().take().contains("ADD_DEVICE"));
}

void SdcardHandlersTest::directories_are_asked_of_the_configuration()
{
    ControllerDevice device(mBus);
    device.configure(R"(<dir size="25">log</dir>)", CardImage::kPartition);
    SdcardInterface& controller = device.startIn("mounted");
    struct statvfs status = {};
    QCOMPARE(::statvfs("/media/sdcard", &status), 0);
    TestDevice::writeFile(ControllerDevice::kMountPoint + "/log/file", "12345");
    QCOMPARE(controller.getDirPath("log"), QString("/log"));
    QCOMPARE(controller.getDirSize("log"),
             static_cast<qint64>(status.f_blocks * status.f_frsize / 4));
    QVERIFY(controller.getDirUsed("log") > 0);
    QCOMPARE(controller.getDirPath("other"), QString());
}

void SdcardHandlersTest::entering_no_sd_card_has_these_effects()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    device.service().setIsMounted(true);
    device.service().setMemLevel(7);
    QCOMPARE(device.effects().take(), QStringList{"MemLevelChanged 7"});

    controller.noSdCard();
    QCOMPARE(device.effects().take(), LedWrites::kOff + QStringList{"MemStateChanged 1"});
    QCOMPARE(device.service().state(), 1);
    QVERIFY(!device.service().isMounted());
    QCOMPARE(device.service().memLevel(), 7);
}

void SdcardHandlersTest::a_worker_that_begins_shows_mounting()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    controller.setMountingState();
    QCOMPARE(device.effects().take(), LedWrites::kBusy);
    QCOMPARE(device.service().state(), 6);
}

void SdcardHandlersTest::mountedEffectsAre(const QStringList& buttonRecords,
                                           ControllerDevice& device)
{
    device.start();
    QVERIFY(ControllerDevice::mountCard(30));
    device.insertCard();
    QVERIFY(device.waitForState("mounted"));
    const QStringList effects = device.effects().take();
    const int begin = effects.indexOf("red brightness=255") - 1;
    QCOMPARE(effects.mid(begin),
             (LedWrites::kMounted + QStringList{"MemStateChanged 4", "MemLevelChanged 30"} +
              buttonRecords +
              QStringList{kInfo + "SD Card is successfully mounted", "CardMounted"}));
    QCOMPARE(device.service().state(), 3);
    QVERIFY(device.service().isMounted());
    const QTimer& memoryTimer = ControllerDevice::timer(device.controller(), "memory timer");
    QVERIFY(memoryTimer.isActive());
    QCOMPARE(memoryTimer.interval(), 600000);
    QVERIFY(!memoryTimer.isSingleShot());
}

void SdcardHandlersTest::entering_mounted_has_these_effects()
{
    ControllerDevice device(mBus);
    mountedEffectsAre({kInfo + "Eject button timer started"}, device);
    const QTimer& pollTimer = ControllerDevice::timer(device.controller(), "eject poll timer");
    QVERIFY(pollTimer.isActive());
    QCOMPARE(pollTimer.interval(), 200);
    QVERIFY(!pollTimer.isSingleShot());
}

void SdcardHandlersTest::without_an_eject_button_there_is_no_poll()
{
    ControllerDevice device(mBus);
    TestDevice::remove(ControllerDevice::kEjectButton);
    mountedEffectsAre({kInfo + "No eject button detected"}, device);
    QVERIFY(!ControllerDevice::timer(device.controller(), "eject poll timer").isActive());
}

void SdcardHandlersTest::entering_mounted_hands_the_card_to_the_capacity_watcher()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.start();
    QVERIFY(ControllerDevice::mountCard());
    QVERIFY(!controller.ensureDirSize("csv"));
    device.insertCard();
    QVERIFY(device.waitForState("mounted"));
    QVERIFY(controller.ensureDirSize("csv"));
}

void SdcardHandlersTest::leaving_mounted_stops_its_timers()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    device.removeCard();
    QCOMPARE(device.machineState(), QString("noSdCard"));
    QVERIFY(!ControllerDevice::timer(controller, "memory timer").isActive());
    QVERIFY(!ControllerDevice::timer(controller, "eject poll timer").isActive());
}

void SdcardHandlersTest::entering_not_mountable_has_these_effects()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    device.service().setIsMounted(true);
    controller.notMoutable();
    const EffectRecorder::Parts parts = device.effects().takeParts();
    QCOMPARE(parts.signalNames, QStringList{"CardNotMountable"});
    QCOMPARE(parts.ledWrites, LedWrites::kNotMountable);
    QCOMPARE(parts.logRecords, QStringList());

    controller.notMoutable();
    // The signal goes out before the LEDs are set and when the properties are.
    QCOMPARE(device.effects().takeProperties(),
             QStringList{"CardNotMountable: State 2, IsMounted 0"});
    controller.notMoutable();
    QCOMPARE(device.effects().take().first(), QString("CardNotMountable"));
}

void SdcardHandlersTest::entering_corrupted_has_these_effects()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    controller.corrupted();
    QCOMPARE(device.effects().errorCount(), 1U);
    QCOMPARE(device.effects().take(),
             QStringList{"MemStateChanged 2"} + LedWrites::kBusy +
                 QStringList{"ERROR sdcard sdcard: Corrupted SD Card detected"});
    QCOMPARE(device.service().state(), 8);
}

void SdcardHandlersTest::entering_terminating_has_these_effects()
{
    ControllerDevice device(mBus);
    device.start();
    device.effects().take();
    QMetaObject::invokeMethod(&device.controller(), "terminating", Qt::QueuedConnection);
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(device.effects().take(), LedWrites::kOff);
}

void SdcardHandlersTest::a_successful_unmount_has_these_effects()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    Q_EMIT controller.SD_EJECT();
    QVERIFY(device.waitForState("unmounting"));
    const QStringList effects = device.effects().take();
    const QStringList expected =
        QStringList{"CardUnmounted", "MemLevelChanged 0", "MemStateChanged 1"} +
        LedWrites::kUnmounted + QStringList{kInfo + "SD Card is successfully unmounted"};
    QCOMPARE(effects.mid(effects.indexOf("CardUnmounted")), expected);
    QCOMPARE(device.service().state(), 4);
    QVERIFY(!device.service().isMounted());
    const QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
    QVERIFY(stateTimer.isActive());
    QCOMPARE(stateTimer.interval(), 20000);
}

void SdcardHandlersTest::an_unmount_takes_the_card_from_the_capacity_watcher()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("unmounting");
    QVERIFY(ControllerDevice::mountCard());
    QVERIFY(!controller.ensureDirSize("csv"));
}

void SdcardHandlersTest::a_trigger_sets_its_transition_data()
{
    QTest::addColumn<QByteArray>("signalName");
    QTest::addColumn<int>("transition");
    QTest::addColumn<QStringList>("effects");
    const QStringList eject{kInfo + "SD Card eject trigger received"};
    QTest::newRow("inserted") << QByteArray("SD_INSERT") << 1 << QStringList();
    QTest::newRow("removed") << QByteArray("SD_REMOVE") << 2 << QStringList();
    QTest::newRow("eject") << QByteArray("SD_EJECT") << 3 << eject;
    QTest::newRow("mounted") << QByteArray("MOUNT_SUCCESS") << 4 << QStringList();
    QTest::newRow("failed") << QByteArray("MOUNT_FAILED") << 5 << QStringList{"CardNotMountable"};
    QTest::newRow("corrupt") << QByteArray("MOUNT_CORRUPT") << 6 << QStringList{"CardCorrupt"};
    QTest::newRow("unmount failed") << QByteArray("UNMOUNT_FAILED") << 7 << QStringList();
    QTest::newRow("files closed") << QByteArray("FILES_CLOSED") << 8 << QStringList();
}

void SdcardHandlersTest::a_trigger_sets_its_transition()
{
    QFETCH(const QByteArray, signalName);
    QFETCH(const int, transition);
    QFETCH(const QStringList, effects);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    QVERIFY(QMetaObject::invokeMethod(&controller, signalName.constData()));
    QCOMPARE(device.service().transition(), transition);
    QCOMPARE(device.effects().take(), effects + QStringList{signalName});
}

void SdcardHandlersTest::files_closed_and_time_out_stop_the_state_timer()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
    stateTimer.start(20000);
    controller.filesClosedTriggered();
    QVERIFY(!stateTimer.isActive());
    stateTimer.start(20000);
    controller.timeoutTriggered();
    QVERIFY(!stateTimer.isActive());
    QCOMPARE(device.service().transition(), 9);
}

void SdcardHandlersTest::a_successful_unmount_is_no_transition()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ControllerDevice::timer(controller, "state timer").start(20000);
    Q_EMIT controller.UMOUNT_SUCCESS();
    QCOMPARE(device.effects().take(), QStringList{"UMOUNT_SUCCESS"});
    QCOMPARE(device.service().transition(), 0);
    QVERIFY(ControllerDevice::timer(controller, "state timer").isActive());
}

void SdcardHandlersTest::timers_are_single_shot_where_they_bound_something()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::timer(controller, "state timer").isSingleShot());
    QVERIFY(ControllerDevice::timer(controller, "open-files timer").isSingleShot());
    QVERIFY(ControllerDevice::timer(controller, "insert delay timer").isSingleShot());
    QVERIFY(!ControllerDevice::timer(controller, "memory timer").isSingleShot());
    QVERIFY(!ControllerDevice::timer(controller, "eject poll timer").isSingleShot());
    QVERIFY(!ControllerDevice::timer(controller, "state timer").isActive());
    QVERIFY(!ControllerDevice::timer(controller, "open-files timer").isActive());
    QVERIFY(!ControllerDevice::timer(controller, "insert delay timer").isActive());
    QVERIFY(!ControllerDevice::timer(controller, "memory timer").isActive());
    QVERIFY(!ControllerDevice::timer(controller, "eject poll timer").isActive());
}

void SdcardHandlersTest::ending_the_controller_changes_nothing_outside()
{
    ControllerDevice device(mBus);
    device.startIn("mounted");
    device.service().InsertCard();
    device.effects().take();
    device.destroy();
    ControllerDevice::settle();
    QCOMPARE(device.effects().take(), QStringList());
}

TEST_DEVICE_MAIN(SdcardHandlersTest)
#include "SdcardHandlersTest.moc"
