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
    const QMap<const QObject*, QString> senders{
        {&controller, "Sdcard"},
        {machine.findChild<StateMounting*>(), "StateMounting"},
        {machine.findChild<StatePreparing*>(), "StatePreparing"},
        {&ControllerDevice::timer(controller, "state timer"), "state timer"},
        {machine.findChild<QSocketNotifier*>(), "signal notifier"},
    };
    QVector<TransitionRow> rows;
    for (QAbstractState* const state : statesOf(machine)) {
        for (const auto* const transition :
             state->findChildren<QSignalTransition*>(QString(), Qt::FindDirectChildrenOnly)) {
            rows.append({state->objectName(),
                         senders.value(transition->senderObject(), "unknown sender"),
                         QByteArray(transition->signal()).mid(1).split('(').first(),
                         transition->targetState()->objectName()});
        }
    }
    return rows;
}

/// The lines between the fences of the page's state diagram, without indentation.
QStringList documentedPicture()
{
    const QString page = QString::fromUtf8(TestDevice::readFile(":/architecture.md"));
    QStringList lines = page.section("```mermaid\nstateDiagram-v2\n", 1, 1)
                            .section("```", 0, 0)
                            .split('\n', Qt::SkipEmptyParts);
    for (QString& line : lines) {
        line = line.trimmed();
    }
    return lines;
}

} // namespace

class SdcardMachineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_machine_has_these_twelve_states_in_this_order()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        QStringList states;
        for (const QAbstractState* const state : statesOf(controller.machine())) {
            states.append(state->objectName() + ": " + state->metaObject()->className());
        }
        QCOMPARE(
            states,
            (QStringList{"noSdCard: QState", "mounting: StateMounting", "preparing: StatePreparing",
                         "mounted: QState", "notMoutable: QState", "closingFiles: QState",
                         "closingFilesForTermination: QState", "unmounting: QState",
                         "unmountingForTermination: QState", "forced_unmounting: QState",
                         "corrupted: QState", "terminating: QFinalState"}));
        QVERIFY(!controller.machine().parent());
    }

    void these_are_all_transitions_in_the_order_of_each_state()
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
        Sdcard& controller = device.construct();
        QStringList transitions;
        for (const TransitionRow& row : transitionsOf(controller)) {
            transitions.append(row.from + ": " + row.sender + " " + row.signal + " -> " + row.to);
        }
        QCOMPARE(transitions, expected);
        int count = 0;
        for (const QAbstractState* const state : statesOf(controller.machine())) {
            count +=
                state->findChildren<QAbstractTransition*>(QString(), Qt::FindDirectChildrenOnly)
                    .size();
        }
        QCOMPARE(count, expected.size());
    }

    void the_documented_picture_shows_the_machine_as_it_is()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        const QStateMachine& machine = controller.machine();
        QStringList picture;
        for (const TransitionRow& row : transitionsOf(controller)) {
            const QString trigger =
                row.sender == "signal notifier" ? QString("signal") : row.signal;
            picture.append(row.from + " --> " + row.to + ": " + trigger);
        }
        for (QAbstractState* const state : statesOf(machine)) {
            if (state == machine.initialState()) {
                picture.prepend("[*] --> " + state->objectName());
            } else if (qobject_cast<const QFinalState*>(state) != nullptr) {
                picture.append(state->objectName() + " --> [*]");
            }
        }
        QCOMPARE(documentedPicture(), picture);
    }

    void the_signals_of_the_controller_have_this_order()
    {
        QCOMPARE(
            methodsOf(Sdcard::staticMetaObject, QMetaMethod::Signal),
            (QStringList{"ADD_DEVICE()", "REMOVE_DEVICE()", "SD_INSERT()", "SD_REMOVE()",
                         "START_PREPARE()", "MOUNT_SUCCESS()", "MOUNT_FAILED()", "MOUNT_CORRUPT()",
                         "UMOUNT_SUCCESS()", "UNMOUNT_FAILED()", "SD_EJECT()", "FILES_CLOSED()"}));
    }

    void the_slots_of_the_controller_have_this_order()
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

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardMachineTest)
#include "SdcardMachineTest.moc"
