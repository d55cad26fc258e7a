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
#include "TestDevice.h"

using Life = void (*)(ControllerDevice& device);
Q_DECLARE_METATYPE(Life)

class SdcardLifeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void each_signal_leaves_on_the_bus_with_these_properties_data()
    {
        QTest::addColumn<Life>("life");
        QTest::addColumn<QStringList>("properties");
        const QString timers = ", memory timer, eject poll timer";
        const auto unmounted = [](int transition) {
            const QString state = QString(": State 4, Transition %1, IsMounted 0").arg(transition);
            return QStringList{"CardUnmounted" + state, "MemLevelChanged 0" + state,
                               "MemStateChanged 1" + state};
        };
        const QString pressed = "EjectPressed: State 5, Transition 3, IsMounted 1";

        const Life eject = [](ControllerDevice& device) {
            Q_EMIT device.controller().SD_EJECT();
            QVERIFY(device.waitForState("unmounting"));
            device.removeCard();
        };
        QTest::newRow("ejected, then removed")
            << eject
            << QStringList{pressed} + unmounted(8) +
                   QStringList{"CardRemoved: State 4, Transition 8, IsMounted 0, state timer"};
        const Life pull = [](ControllerDevice& device) {
            device.removeCard();
        };
        // The bus signal is sent before the machine changes its state.
        QTest::newRow("pulled") << pull
                                << QStringList{
                                       "CardRemoved: State 3, Transition 1, IsMounted 1" + timers,
                                       "MemStateChanged 1: State 1, Transition 2, IsMounted 0"};
        const Life giveUp = [](ControllerDevice& device) {
            device.keepFilesOpen();
            Q_EMIT device.controller().SD_EJECT();
            ControllerDevice::expire(ControllerDevice::timer(device.controller(), "state timer"));
            device.insertCard();
        };
        QTest::newRow("an eject given up")
            << giveUp
            << QStringList{pressed, "CardMounted: State 3, Transition 9, IsMounted 1" + timers,
                           "CardInserted: State 3, Transition 9, IsMounted 1" + timers};
        const Life fail = [](ControllerDevice& device) {
            QFile open(ControllerDevice::kMountPoint + "/filling");
            QVERIFY(open.open(QIODevice::ReadOnly));
            Q_EMIT device.controller().SD_EJECT();
            QVERIFY(device.waitForState("mounted"));
        };
        QTest::newRow("a failed unmount")
            << fail
            << QStringList{pressed, "CardMounted: State 3, Transition 7, IsMounted 1" + timers};
        const Life terminate = [](ControllerDevice& /*device*/) {
            static_cast<void>(std::raise(SIGHUP));
            QCOMPARE(QCoreApplication::exec(), 0);
        };
        const QString asked = "EjectPressed: State 5, Transition 1, IsMounted 1";
        QTest::newRow("terminated") << terminate << QStringList{asked} + unmounted(8);
        const Life force = [](ControllerDevice& device) {
            device.keepFilesOpen();
            device.sendSignal(SIGTERM);
            ControllerDevice::timer(device.controller(), "state timer").start(0);
            QCOMPARE(QCoreApplication::exec(), 0);
        };
        QTest::newRow("terminated by force") << force << QStringList{asked} + unmounted(9);
        const Life failForced = [](ControllerDevice& /*device*/) {
            QFile open(ControllerDevice::kMountPoint + "/filling");
            QVERIFY(open.open(QIODevice::ReadOnly));
            static_cast<void>(std::raise(SIGTERM));
            QCOMPARE(QCoreApplication::exec(), 0);
        };
        QTest::newRow("terminated without an unmount") << failForced << QStringList{asked};
    }

    void each_signal_leaves_on_the_bus_with_these_properties()
    {
        QFETCH(const Life, life);
        QFETCH(const QStringList, properties);
        ControllerDevice device(mBus);
        device.start();
        QVERIFY(ControllerDevice::mountCard(30));
        device.effects().take();
        device.insertCard();
        QVERIFY(device.waitForState("mounted"));
        life(device);
        const QString mounted = ": State 3, Transition 1, IsMounted 1";
        QCOMPARE(device.effects().properties().filter(QRegularExpression("^(Card|Eject|Mem)")),
                 (QStringList{"CardInserted: State 1, Transition 0, IsMounted 0",
                              "MemStateChanged 4" + mounted, "MemLevelChanged 30" + mounted,
                              "CardMounted" + mounted + ", memory timer, eject poll timer"} +
                  properties));
    }

    void the_machine_moves_on_when_workers_end_at_once()
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

    void a_signal_before_the_event_loop_ends_the_service_data()
    {
        QTest::addColumn<bool>("hasCard");
        QTest::addColumn<QStringList>("signalNames");
        QTest::newRow("without a card") << false << QStringList{"MemStateChanged 1"};
        QTest::newRow("with a card")
            << true << QStringList{"MemStateChanged 1",  "SD_INSERT",     "MemStateChanged 4",
                                   "MemLevelChanged 30", "CardMounted",   "EjectPressed",
                                   "FILES_CLOSED",       "CardUnmounted", "MemLevelChanged 0",
                                   "MemStateChanged 1"};
    }

    void a_signal_before_the_event_loop_ends_the_service()
    {
        QFETCH(const bool, hasCard);
        ControllerDevice device(mBus);
        if (hasCard) {
            TestDevice::writeFile(CardImage::kPartition, {});
            QVERIFY(ControllerDevice::mountCard(30));
        }
        device.construct();
        static_cast<void>(std::raise(SIGTERM));
        QCOMPARE(QCoreApplication::exec(), 0);
        QCOMPARE(device.machineState(), QString("terminating"));
        QTEST(device.effects().takeParts().signalNames, "signalNames");
    }

    void a_request_during_mounting_is_obeyed_when_the_card_is_gone()
    {
        ControllerDevice device(mBus);
        device.startIn("mounting");
        device.sendSignal(SIGTERM);
        QCOMPARE(device.machineState(), QString("mounting"));
        QCOMPARE(device.effects().take(), QStringList());
        device.removeCard();
        QVERIFY(device.waitForState("terminating"));
    }

    void records_name_the_function_that_wrote_them()
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

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardLifeTest)
#include "SdcardLifeTest.moc"
