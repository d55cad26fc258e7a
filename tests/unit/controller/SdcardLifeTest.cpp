#include <csignal>

#include <QFile>
#include <QState>
#include <QStateMachine>
#include <QTest>
#include <QThread>
#include <QTimer>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "LogCapture.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardLifeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void each_signal_goes_out_with_these_properties();
    void workers_that_end_at_once_take_the_card_on();
    void an_ejected_card_that_stays_in_the_slot_is_mounted_again();
    void an_eject_is_given_up_where_files_stay_open();
    void a_termination_ends_processes_that_keep_files_open();
    void a_card_that_cannot_be_unmounted_does_not_keep_the_service();
    void a_card_pulled_while_files_are_closed_for_termination_ends_the_service();
    void records_name_the_function_that_wrote_them();

private:
    TestBus mBus;
};

void SdcardLifeTest::each_signal_goes_out_with_these_properties()
{
    ControllerDevice device(mBus);
    device.start();
    QVERIFY(ControllerDevice::mountCard(30));
    device.effects().take();
    device.insertCard();
    QVERIFY(device.waitForState("mounted"));
    Q_EMIT device.controller().SD_EJECT();
    QVERIFY(device.waitForState("unmounting"));
    device.removeCard();
    QCOMPARE(device.effects().takeProperties(),
             (QStringList{
                 "ADD_DEVICE: State 1, IsMounted 0", "CardInserted: State 1, IsMounted 0",
                 "SD_INSERT: State 1, IsMounted 0", "MemStateChanged 4: State 3, IsMounted 1",
                 "MemLevelChanged 30: State 3, IsMounted 1", "CardMounted: State 3, IsMounted 1",
                 "SD_EJECT: State 3, IsMounted 1", "EjectPressed: State 5, IsMounted 1",
                 "FILES_CLOSED: State 5, IsMounted 1", "CardUnmounted: State 4, IsMounted 0",
                 "MemLevelChanged 0: State 4, IsMounted 0",
                 "MemStateChanged 1: State 4, IsMounted 0", "SD_REMOVE: State 4, IsMounted 0",
                 "REMOVE_DEVICE: State 1, IsMounted 0", "CardRemoved: State 1, IsMounted 0"}));
}

void SdcardLifeTest::workers_that_end_at_once_take_the_card_on()
{
    ControllerDevice device(mBus);
    QVERIFY(CardImage::createPartition());
    const QStateMachine& machine = device.construct().machine();
    for (QThread* const worker : machine.findChildren<QThread*>()) {
        const auto* const state = qobject_cast<const QState*>(worker->parent());
        const auto waitForEnd = [worker] {
            worker->wait();
        };
        connect(state, &QState::entered, worker, waitForEnd);
        connect(state->initialState(), &QAbstractState::entered, worker, waitForEnd);
    }
    QVERIFY(device.waitForState("mounted"));
}

void SdcardLifeTest::an_ejected_card_that_stays_in_the_slot_is_mounted_again()
{
    ControllerDevice device(mBus);
    QVERIFY(CardImage::createPartition());
    Sdcard& controller = device.construct();
    QVERIFY(device.waitForState("mounted"));
    Q_EMIT controller.SD_EJECT();
    QVERIFY(device.waitForState("unmounting"));
    QVERIFY(!QFile::exists(ControllerDevice::kMountPoint));
    QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
    QVERIFY(stateTimer.isActive());
    QCOMPARE(stateTimer.interval(), 20000);
    device.effects().take();

    ControllerDevice::expire(stateTimer);
    QVERIFY(device.waitForState("mounted"));
    QCOMPARE(device.service().state(), 3);
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             MountState::ReadWrite);
    QCOMPARE(device.effects().takeParts().signalNames.filter("Card"), QStringList{"CardMounted"});
}

void SdcardLifeTest::an_eject_is_given_up_where_files_stay_open()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    device.keepFilesOpen();
    Q_EMIT controller.SD_EJECT();
    QCOMPARE(device.machineState(), QString("closingFiles"));
    QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
    QCOMPARE(stateTimer.interval(), 40000);
    device.effects().take();

    ControllerDevice::expire(stateTimer);
    QCOMPARE(device.machineState(), QString("mounted"));
    QCOMPARE(device.service().transition(), 9);
    QCOMPARE(device.effects().takeProperties(), QStringList{"CardMounted: State 3, IsMounted 1"});
    QVERIFY(!stateTimer.isActive());
    QVERIFY(!ControllerDevice::timer(controller, "open-files timer").isActive());
    QVERIFY(ControllerDevice::timer(controller, "eject poll timer").isActive());
}

void SdcardLifeTest::a_termination_ends_processes_that_keep_files_open()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    const QString id = QString::number(device.keepFilesOpen());
    device.sendSignal(SIGTERM);
    QCOMPARE(device.machineState(), QString("closingFilesForTermination"));
    device.effects().take();

    ControllerDevice::timer(controller, "state timer").start(0);
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(device.machineState(), QString("terminating"));
    const EffectRecorder::Parts effects = device.effects().takeParts();
    QCOMPARE(effects.signalNames,
             (QStringList{"CardUnmounted", "MemLevelChanged 0", "MemStateChanged 1"}));
    QVERIFY(
        effects.logRecords.contains("WARN sdcard sdcard: Shutdown softly process " + id + " !"));
    QCOMPARE(Sdcard::getMountState(controller.logger(), ControllerDevice::kMountPoint),
             MountState::NotMounted);
}

void SdcardLifeTest::a_card_that_cannot_be_unmounted_does_not_keep_the_service()
{
    ControllerDevice device(mBus);
    device.startIn("mounted");
    QFile open(ControllerDevice::kMountPoint + "/filling");
    QVERIFY(open.open(QIODevice::ReadOnly));
    static_cast<void>(std::raise(SIGTERM));
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(device.machineState(), QString("terminating"));
    QCOMPARE(device.effects().takeParts().signalNames,
             (QStringList{"EjectPressed", "FILES_CLOSED", "UNMOUNT_FAILED", "UNMOUNT_FAILED"}));
    QCOMPARE(device.service().transition(), 7);
}

void SdcardLifeTest::a_card_pulled_while_files_are_closed_for_termination_ends_the_service()
{
    ControllerDevice device(mBus);
    device.startIn("mounted");
    device.keepFilesOpen();
    device.sendSignal(SIGTERM);
    QCOMPARE(device.machineState(), QString("closingFilesForTermination"));
    QMetaObject::invokeMethod(&device.service(), "RemoveCard", Qt::QueuedConnection);
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(device.machineState(), QString("terminating"));
    QCOMPARE(device.service().transition(), 2);
}

void SdcardLifeTest::records_name_the_function_that_wrote_them()
{
    ControllerDevice device(mBus);
    const LogCapture log;
    device.startIn("mounted");
    Q_EMIT device.controller().SD_EJECT();
    QVERIFY(device.waitForState("unmounting"));
    QStringList functions;
    for (const LogRecord& record : log.records()) {
        if (record.channel == "sdcard") {
            functions.append(record.function.section('(', 0, 0).section(' ', -1) + ": " +
                             record.message);
        }
    }
    QCOMPARE(functions,
             (QStringList{"Sdcard::Sdcard: Checking hardware...",
                          "Sdcard::mounted: Eject button timer started",
                          "Sdcard::mounted: SD Card is successfully mounted",
                          "Sdcard::cardEjectTriggered: SD Card eject trigger received",
                          "Sdcard::checkOpenFiles: Number of processes with open files: 0",
                          "Sdcard::setUnmountedState: SD Card is successfully unmounted"}));
}

TEST_DEVICE_MAIN(SdcardLifeTest)
#include "SdcardLifeTest.moc"
