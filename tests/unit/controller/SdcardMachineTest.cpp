#include <QAbstractTransition>
#include <QFinalState>
#include <QSignalTransition>
#include <QSocketNotifier>
#include <QStateMachine>
#include <QTest>
#include <QTimer>

#include "ControllerDevice.h"
#include "MetaMethods.h"
#include "StateMounting.h"
#include "StatePreparing.h"
#include "TestDevice.h"

class SdcardMachineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_machine_has_these_twelve_states_in_this_order();
    void the_machine_starts_without_a_card();
    void these_are_all_transitions_in_the_order_of_each_state();
    void the_documented_picture_shows_the_machine_as_it_is();
    void nothing_leaves_corrupted();
    void mounting_and_preparing_do_not_react_to_a_termination_signal();
    void the_signals_of_the_controller_have_this_order();
    void the_slots_of_the_controller_have_this_order();
    void entering_the_final_state_ends_the_event_loop();

private:
    TestBus mBus;
};

namespace {

QList<QAbstractState*> statesOf(const QStateMachine& machine)
{
    return machine.findChildren<QAbstractState*>(QString(), Qt::FindDirectChildrenOnly);
}

struct TransitionRow
{
    QString from;
    QString sender;
    QString signal;
    QString to;
};

/// The transitions out of the machine's own states.
QVector<TransitionRow> transitionsOf(Sdcard& controller)
{
    const QStateMachine& machine = controller.machine();
    const QList<QAbstractState*> states = statesOf(machine);
    const QMap<const QObject*, QString> senders{
        {&controller, "Sdcard"},
        {machine.findChild<StateMounting*>(), "StateMounting"},
        {machine.findChild<StatePreparing*>(), "StatePreparing"},
        {&ControllerDevice::timer(controller, "state timer"), "state timer"},
        {machine.findChild<QSocketNotifier*>(), "signal notifier"},
    };
    const auto name = [&states](QAbstractState* state) {
        return states.contains(state) ? state->objectName() : QString("none");
    };

    QVector<TransitionRow> rows;
    for (QAbstractState* const from : states) {
        const auto* const state = qobject_cast<const QState*>(from);
        if (state == nullptr) {
            continue;
        }
        for (const QAbstractTransition* const transition : state->transitions()) {
            const auto* const bySignal = qobject_cast<const QSignalTransition*>(transition);
            TransitionRow row{name(from), "nobody", "nothing", name(transition->targetState())};
            if (bySignal != nullptr) {
                row.sender = senders.value(bySignal->senderObject(), "unknown sender");
                row.signal = QByteArray(bySignal->signal()).mid(1).split('(').first();
            }
            rows.append(row);
        }
    }
    return rows;
}

/// The lines between the fences of the page's state diagram, without indentation.
QStringList documentedPicture()
{
    const QString page = QString::fromUtf8(TestDevice::readFile(":/architecture.md"));
    const QString begin = "```mermaid\nstateDiagram-v2\n";
    QStringList lines;
    for (const QString& line : page.section(begin, 1, 1).section("```", 0, 0).split('\n')) {
        if (!line.trimmed().isEmpty()) {
            lines.append(line.trimmed());
        }
    }
    return lines;
}

} // namespace

void SdcardMachineTest::the_machine_has_these_twelve_states_in_this_order()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const QList<QAbstractState*> states = statesOf(controller.machine());
    QCOMPARE(states.size(), 12);
    for (int index = 0; index < states.size(); ++index) {
        const QMetaObject* const expected = index == 1    ? &StateMounting::staticMetaObject
                                            : index == 2  ? &StatePreparing::staticMetaObject
                                            : index == 11 ? &QFinalState::staticMetaObject
                                                          : &QState::staticMetaObject;
        QCOMPARE(states.at(index)->metaObject()->className(), expected->className());
    }
}

void SdcardMachineTest::the_machine_starts_without_a_card()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const QStateMachine& machine = controller.machine();
    QCOMPARE(machine.initialState(), statesOf(machine).first());
    QVERIFY(!machine.parent());
    QVERIFY(device.waitForState("noSdCard"));
    QVERIFY(machine.isRunning());
}

void SdcardMachineTest::these_are_all_transitions_in_the_order_of_each_state()
{
    ControllerDevice device(mBus);
    const QStringList expected{
        "noSdCard: Sdcard SD_INSERT -> mounting",
        "noSdCard: signal notifier activated -> terminating",
        "mounting: StateMounting START_PREPARE -> preparing",
        "mounting: StateMounting MOUNT_SUCCESS -> mounted",
        "mounting: StateMounting MOUNT_CORRUPT -> corrupted",
        "mounting: StateMounting MOUNT_FAILED -> notMoutable",
        "mounting: Sdcard SD_REMOVE -> noSdCard",
        "preparing: StatePreparing MOUNT_SUCCESS -> mounted",
        "preparing: Sdcard SD_REMOVE -> noSdCard",
        "mounted: Sdcard SD_EJECT -> closingFiles",
        "mounted: Sdcard SD_REMOVE -> noSdCard",
        "mounted: signal notifier activated -> closingFilesForTermination",
        "notMoutable: Sdcard SD_REMOVE -> noSdCard",
        "notMoutable: signal notifier activated -> terminating",
        "closingFiles: Sdcard SD_REMOVE -> noSdCard",
        "closingFiles: Sdcard FILES_CLOSED -> unmounting",
        "closingFiles: state timer timeout -> mounted",
        "closingFilesForTermination: Sdcard SD_REMOVE -> terminating",
        "closingFilesForTermination: Sdcard FILES_CLOSED -> unmountingForTermination",
        "closingFilesForTermination: state timer timeout -> forced_unmounting",
        "unmounting: Sdcard UMOUNT_SUCCESS -> noSdCard",
        "unmounting: Sdcard SD_REMOVE -> noSdCard",
        "unmounting: state timer timeout -> mounting",
        "unmounting: Sdcard UNMOUNT_FAILED -> mounting",
        "unmounting: signal notifier activated -> terminating",
        "unmountingForTermination: Sdcard UMOUNT_SUCCESS -> terminating",
        "unmountingForTermination: Sdcard UNMOUNT_FAILED -> forced_unmounting",
        "unmountingForTermination: state timer timeout -> forced_unmounting",
        "unmountingForTermination: signal notifier activated -> terminating",
        "forced_unmounting: Sdcard UNMOUNT_FAILED -> terminating",
        "forced_unmounting: signal notifier activated -> terminating",
    };
    QStringList transitions;
    for (const TransitionRow& row : transitionsOf(device.construct())) {
        transitions.append(row.from + ": " + row.sender + " " + row.signal + " -> " + row.to);
    }
    QCOMPARE(transitions, expected);
}

void SdcardMachineTest::the_documented_picture_shows_the_machine_as_it_is()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const QStateMachine& machine = controller.machine();
    const QList<QAbstractState*> states = statesOf(machine);

    QStringList picture;
    for (const TransitionRow& row : transitionsOf(controller)) {
        const QString trigger = row.sender == "signal notifier" ? QString("signal") : row.signal;
        picture.append(row.from + " --> " + row.to + ": " + trigger);
    }
    for (int index = 0; index < states.size(); ++index) {
        const QString& name = states.at(index)->objectName();
        if (states.at(index) == machine.initialState()) {
            picture.prepend("[*] --> " + name);
        } else if (qobject_cast<const QFinalState*>(states.at(index)) != nullptr) {
            picture.append(name + " --> [*]");
        }
    }
    QCOMPARE(documentedPicture(), picture);
}

void SdcardMachineTest::nothing_leaves_corrupted()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("corrupted");
    device.removeCard();
    device.sendSignal(SIGTERM);
    device.sendSignal(SIGHUP);
    Q_EMIT controller.SD_EJECT();
    Q_EMIT controller.SD_INSERT();
    Q_EMIT controller.UNMOUNT_FAILED();
    Q_EMIT controller.UMOUNT_SUCCESS();
    Q_EMIT controller.FILES_CLOSED();
    ControllerDevice::expire(ControllerDevice::timer(controller, "state timer"));
    QCOMPARE(device.machineState(), QString("corrupted"));
}

void SdcardMachineTest::mounting_and_preparing_do_not_react_to_a_termination_signal()
{
    for (const char* const state : {"mounting", "preparing"}) {
        ControllerDevice device(mBus);
        device.startIn(state);
        device.sendSignal(SIGTERM);
        QCOMPARE(device.machineState(), QString(state));
    }
}

void SdcardMachineTest::the_signals_of_the_controller_have_this_order()
{
    QCOMPARE(methodsOf(Sdcard::staticMetaObject, QMetaMethod::Signal),
             (QStringList{"ADD_DEVICE()", "REMOVE_DEVICE()", "SD_INSERT()", "SD_REMOVE()",
                          "START_PREPARE()", "MOUNT_SUCCESS()", "MOUNT_FAILED()", "MOUNT_CORRUPT()",
                          "UMOUNT_SUCCESS()", "UNMOUNT_FAILED()", "SD_EJECT()", "FILES_CLOSED()"}));
}

void SdcardMachineTest::the_slots_of_the_controller_have_this_order()
{
    QCOMPARE(methodsOf(Sdcard::staticMetaObject, QMetaMethod::Slot),
             (QStringList{"checkMemState()",
                          "addBlockDevice()",
                          "removeBlockDevice()",
                          "noSdCard()",
                          "mounted()",
                          "mount_exited()",
                          "unmounting()",
                          "forced_unmounting()",
                          "corrupted()",
                          "terminating()",
                          "closingFiles()",
                          "closingFiles_exited()",
                          "notMoutable()",
                          "cardInsertedTriggered()",
                          "cardRemovedTriggered()",
                          "cardEjectTriggered()",
                          "mountSuccessTriggered()",
                          "mountFailedTriggered()",
                          "mountCorruptTriggered()",
                          "umountSuccessTriggered()",
                          "unmountFailedTriggered()",
                          "filesClosedTriggered()",
                          "timeoutTriggered()",
                          "checkFiles()",
                          "checkSDcardPresent()",
                          "readInputDevice()",
                          "setFsBirthDate(QDateTime)",
                          "setMountingState()"}));
}

void SdcardMachineTest::entering_the_final_state_ends_the_event_loop()
{
    ControllerDevice device(mBus);
    device.start();
    static_cast<void>(std::raise(SIGHUP));
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(device.machineState(), QString("terminating"));
    QVERIFY(!device.controller().machine().isRunning());
}

TEST_DEVICE_MAIN(SdcardMachineTest)
#include "SdcardMachineTest.moc"
