#include <cerrno>

#include <QDBusConnection>
#include <QTest>
#include <QTimer>

#include "CardImage.h"
#include "CardLights.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "StorageCapacityWatcher.h"
#include "SystemCalls.h"
#include "TestDevice.h"

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");

/// Receives the calls of the functions below; null if no test needs them.
ControllerDevice* observed = nullptr;

void observe(const QString& call)
{
    if (observed != nullptr) {
        observed->effects().note(call);
    }
}

} // namespace

// The linker's option --wrap leads the controller's calls here; it prescribes the names.
void realShow(CardLights::Pattern) asm("__real__ZN10CardLights4showENS_7PatternE");
void show(CardLights::Pattern) asm("__wrap__ZN10CardLights4showENS_7PatternE");
void realReady(StorageCapacityWatcher*) asm("__real__ZN22StorageCapacityWatcher14storageIsReadyEv");
void ready(StorageCapacityWatcher*) asm("__wrap__ZN22StorageCapacityWatcher14storageIsReadyEv");
void realUnmounted(StorageCapacityWatcher*) asm(
    "__real__ZN22StorageCapacityWatcher18storageIsUnmountedEv");
void unmounted(StorageCapacityWatcher*) asm(
    "__wrap__ZN22StorageCapacityWatcher18storageIsUnmountedEv");

void show(CardLights::Pattern pattern)
{
    observe("lights");
    realShow(pattern);
}

void ready(StorageCapacityWatcher* watcher)
{
    observe("storage is ready");
    realReady(watcher);
}

void unmounted(StorageCapacityWatcher* watcher)
{
    observe("storage is unmounted");
    realUnmounted(watcher);
}

class SdcardHandlersTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        observed = nullptr;
        SystemCalls::reset();
    }

    void the_card_is_handled_without_the_bus_name()
    {
        ControllerDevice device(mBus);
        QDBusConnection other = mBus.connection("other");
        QVERIFY(other.registerService("tavo.SDCard1"));
        Sdcard& controller = device.start();
        QVERIFY(other.unregisterService("tavo.SDCard1"));
        QVERIFY(!controller.isServiceRegistered());
        QVERIFY(device.connection().objectRegisteredAt("/tavo/sdcard") == nullptr);
        QCOMPARE(device.effects().errorCount(), 1U);
        QCOMPARE(device.effects().takeParts().logRecords,
                 (QStringList{kInfo + "Checking hardware...",
                              "ERROR sdcard sdcard: Connect to dbus failed"}));

        device.service().InsertCard();
        device.service().RemoveCard();
        QCOMPARE(device.effects().take(), (QStringList{"CardInserted", "CardRemoved"}));

        QVERIFY(ControllerDevice::mountCard());
        Q_EMIT controller.SD_INSERT();
        QVERIFY(device.waitForState("mounted"));
    }

    void with_its_path_taken_the_object_is_not_registered()
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

    void the_card_is_handled_without_a_socket_pair()
    {
        ControllerDevice device(mBus);
        SystemCalls::fail(SystemCalls::Call::SocketPair, EMFILE);
        device.start();
        QCOMPARE(device.effects().errorCount(), 1U);
        QCOMPARE(
            device.effects().takeParts().logRecords.filter("ERROR"),
            QStringList{"ERROR sdcard sdcard: Can't create socket pair (Too many open files)"});
        QVERIFY(ControllerDevice::mountCard());
        device.insertCard();
        QVERIFY(device.waitForState("mounted"));
    }

    void the_name_is_free_while_a_card_is_formatted_at_start()
    {
        ControllerDevice device(mBus);
        CardImage::listMmcCard();
        CardImage::writeDisk({});
        ToolStandIn::place(
            ToolStandIn::kFormatScript,
            "dbus-send --bus='" + mBus.address().toUtf8() +
                "' --print-reply=literal --dest=org.freedesktop.DBus / "
                "org.freedesktop.DBus.NameHasOwner string:tavo.SDCard1 > /run/has-owner");
        device.construct();
        QCOMPARE(TestDevice::readFile("/run/has-owner").trimmed(), QByteArray("boolean false"));
        QVERIFY(device.controller().isServiceRegistered());
        QCOMPARE(device.service().mountPoint(), ControllerDevice::kMountPoint);
    }

    void the_capacity_watcher_has_the_card_while_it_is_mounted()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.start();
        QVERIFY(ControllerDevice::mountCard());
        QVERIFY(!controller.ensureDirSize("csv"));
        device.insertCard();
        QVERIFY(device.waitForState("mounted"));
        QVERIFY(controller.ensureDirSize("csv"));
        Q_EMIT controller.SD_EJECT();
        QVERIFY(device.waitForState("unmounting"));
        QVERIFY(ControllerDevice::mountCard());
        QVERIFY(!controller.ensureDirSize("csv"));
    }

    void entering_mounted_works_in_this_order_data()
    {
        QTest::addColumn<bool>("hasButton");
        QTest::newRow("with a button") << true;
        QTest::newRow("without a button") << false;
    }

    void entering_mounted_works_in_this_order()
    {
        QFETCH(const bool, hasButton);
        ControllerDevice device(mBus);
        if (!hasButton) {
            TestDevice::remove(ControllerDevice::kEjectButton);
        }
        Sdcard& controller = device.start();
        QVERIFY(ControllerDevice::mountCard(30));
        device.effects().take();
        observed = &device;
        device.insertCard();
        QVERIFY(device.waitForState("mounted"));
        const QString mounted = ": State 3, Transition 1, IsMounted 1";
        const QString timers =
            hasButton ? QString(", memory timer, eject poll timer") : QString(", memory timer");
        QCOMPARE(device.effects().properties().mid(3),
                 (QStringList{"storage is ready" + mounted, "lights" + mounted,
                              "MemStateChanged 4" + mounted, "MemLevelChanged 30" + mounted,
                              "CardMounted" + mounted + timers}));
        QCOMPARE(device.effects().take().mid(3),
                 (QStringList{"storage is ready", "lights"} + LedWrites::kMounted +
                  QStringList{"MemStateChanged 4", "MemLevelChanged 30",
                              kInfo + (hasButton ? "Eject button timer started"
                                                 : "No eject button detected"),
                              kInfo + "SD Card is successfully mounted", "CardMounted"}));
        QCOMPARE(ControllerDevice::timer(controller, "memory timer").interval(), 600000);
        QCOMPARE(ControllerDevice::timer(controller, "eject poll timer").interval(),
                 hasButton ? 200 : 0);
    }

    void a_successful_unmount_works_in_this_order()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounted");
        observed = &device;
        Q_EMIT controller.SD_EJECT();
        QVERIFY(device.waitForState("unmounting"));
        const QString unmounted = ": State 4, Transition 8, IsMounted 0";
        QCOMPARE(device.effects().properties().filter("State 4"),
                 (QStringList{"CardUnmounted" + unmounted, "MemLevelChanged 0" + unmounted,
                              "MemStateChanged 1" + unmounted, "storage is unmounted" + unmounted,
                              "lights" + unmounted}));
        const QStringList effects = device.effects().take();
        QCOMPARE(effects.mid(effects.indexOf("CardUnmounted")),
                 QStringList({"CardUnmounted", "MemLevelChanged 0", "MemStateChanged 1",
                              "storage is unmounted", "lights"}) +
                     LedWrites::kUnmounted +
                     QStringList{kInfo + "SD Card is successfully unmounted"});
        QVERIFY(ControllerDevice::timer(controller, "state timer").isActive());
        QCOMPARE(ControllerDevice::timer(controller, "state timer").interval(), 20000);
    }

    void entering_not_mountable_works_in_this_order()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        device.service().setIsMounted(true);
        controller.notMoutable();
        QCOMPARE(device.effects().properties(),
                 QStringList{"CardNotMountable: State 2, Transition 0, IsMounted 0"});
        QCOMPARE(device.effects().take(),
                 QStringList{"CardNotMountable"} + LedWrites::kNotMountable);
    }

    void entering_corrupted_works_in_this_order()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        controller.corrupted();
        QCOMPARE(device.effects().errorCount(), 1U);
        QCOMPARE(device.effects().properties(),
                 QStringList{"MemStateChanged 2: State 8, Transition 0, IsMounted 0"});
        QCOMPARE(device.effects().take(),
                 QStringList{"MemStateChanged 2"} + LedWrites::kBusy +
                     QStringList{"ERROR sdcard sdcard: Corrupted SD Card detected"});
    }

    void the_mount_signals_of_the_controller_set_their_transition_data()
    {
        QTest::addColumn<QByteArray>("signalName");
        QTest::addColumn<int>("transition");
        QTest::addColumn<QStringList>("busSignals");
        QTest::newRow("mounted") << QByteArray("MOUNT_SUCCESS") << 4 << QStringList();
        QTest::newRow("failed") << QByteArray("MOUNT_FAILED") << 5
                                << QStringList{"CardNotMountable"};
        QTest::newRow("corrupt") << QByteArray("MOUNT_CORRUPT") << 6 << QStringList{"CardCorrupt"};
    }

    void the_mount_signals_of_the_controller_set_their_transition()
    {
        QFETCH(const QByteArray, signalName);
        QFETCH(const QStringList, busSignals);
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        QVERIFY(QMetaObject::invokeMethod(&controller, signalName.constData()));
        QTEST(device.service().transition(), "transition");
        QCOMPARE(device.effects().take(), busSignals + QStringList{signalName});
    }

    void files_closed_and_time_out_stop_the_state_timer()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
        stateTimer.start(20000);
        Q_EMIT controller.UMOUNT_SUCCESS();
        QVERIFY(stateTimer.isActive());
        controller.filesClosedTriggered();
        QVERIFY(!stateTimer.isActive());
        stateTimer.start(20000);
        controller.timeoutTriggered();
        QVERIFY(!stateTimer.isActive());
    }

    void timers_that_limit_something_are_single_shot()
    {
        ControllerDevice device(mBus);
        QStringList singleShot;
        for (const QTimer* const timer : device.construct().findChildren<QTimer*>()) {
            QVERIFY(!timer->isActive());
            if (timer->isSingleShot()) {
                singleShot.append(timer->objectName());
            }
        }
        QCOMPARE(singleShot,
                 (QStringList{"state timer", "open-files timer", "insert delay timer"}));
    }

    void the_memory_timer_refreshes()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("mounted");
        TestDevice::unmountAll(ControllerDevice::kMountPoint);
        QVERIFY(ControllerDevice::mountCard(90));
        ControllerDevice::expire(ControllerDevice::timer(controller, "memory timer"));
        QCOMPARE(device.effects().take().mid(0, 2),
                 (QStringList{"MemStateChanged 7", "MemLevelChanged 90"}));
    }

    void ending_the_controller_changes_nothing_outside()
    {
        ControllerDevice device(mBus);
        device.startIn("mounted");
        device.service().InsertCard();
        device.effects().take();
        device.destroy();
        ControllerDevice::settle();
        QCOMPARE(device.effects().take(), QStringList());
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardHandlersTest)
#include "SdcardHandlersTest.moc"
