#include <QAbstractTransition>
#include <QFinalState>
#include <QSignalTransition>
#include <QSocketNotifier>
#include <QStateMachine>
#include <QTest>

#include "ControllerDevice.h"
#include "MetaMethods.h"
#include "TestDevice.h"

namespace {

/// The machine in the form of the page: its start, its transitions, its end.
QStringList pictureOf(const QStateMachine& machine)
{
    QStringList lines{"[*] --> " + machine.initialState()->objectName()};
    QString end;
    for (const auto* const state :
         machine.findChildren<QAbstractState*>(QString(), Qt::FindDirectChildrenOnly)) {
        for (const auto* const transition :
             state->findChildren<QAbstractTransition*>(QString(), Qt::FindDirectChildrenOnly)) {
            QString trigger = "?";
            if (const auto* const bySignal = qobject_cast<const QSignalTransition*>(transition)) {
                trigger = qobject_cast<const QSocketNotifier*>(bySignal->senderObject()) != nullptr
                              ? "signal"
                              : QString(bySignal->signal().mid(1)).section('(', 0, 0);
            }
            lines.append(state->objectName() + " --> " + transition->targetState()->objectName() +
                         ": " + trigger);
        }
        if (qobject_cast<const QFinalState*>(state) != nullptr) {
            end = state->objectName() + " --> [*]";
        }
    }
    return lines + QStringList{end};
}

} // namespace

class SdcardMachineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_machine_has_these_twelve_states_in_this_order()
    {
        ControllerDevice device(mBus);
        const QStateMachine& machine = device.construct().machine();
        QStringList states;
        for (const auto* const state :
             machine.findChildren<QAbstractState*>(QString(), Qt::FindDirectChildrenOnly)) {
            states.append(state->objectName() + ": " + state->metaObject()->className());
        }
        QCOMPARE(
            states,
            (QStringList{"noSdCard: QState", "mounting: StateMounting", "preparing: StatePreparing",
                         "mounted: QState", "notMoutable: QState", "closingFiles: QState",
                         "closingFilesForTermination: QState", "unmounting: QState",
                         "unmountingForTermination: QState", "forced_unmounting: QState",
                         "corrupted: QState", "terminating: QFinalState"}));
        QVERIFY(!machine.parent());
    }

    // The table of SdcardStatesTest covers the actions and triggers of the transitions.
    void the_documented_picture_shows_all_transitions_in_their_order()
    {
        const QString page = QString::fromUtf8(TestDevice::readFile(":/architecture.md"));
        QStringList lines = page.section("```mermaid\nstateDiagram-v2\n", 1, 1)
                                .section("```", 0, 0)
                                .split('\n', Qt::SkipEmptyParts);
        for (QString& line : lines) {
            line = line.trimmed();
        }
        ControllerDevice device(mBus);
        QCOMPARE(pictureOf(device.construct().machine()), lines);
        QCOMPARE(lines.size(), 33);
    }

    void the_signals_and_slots_of_the_controller_have_this_order()
    {
        QCOMPARE(methodsOf(Sdcard::staticMetaObject, QMetaMethod::Signal).join(' '),
                 QString("ADD_DEVICE() REMOVE_DEVICE() SD_INSERT() SD_REMOVE() START_PREPARE() "
                         "MOUNT_SUCCESS() MOUNT_FAILED() MOUNT_CORRUPT() UMOUNT_SUCCESS() "
                         "UNMOUNT_FAILED() SD_EJECT() FILES_CLOSED()"));
        QCOMPARE(
            methodsOf(Sdcard::staticMetaObject, QMetaMethod::Slot).join(' '),
            QString("checkMemState() addBlockDevice() removeBlockDevice() noSdCard() mounted() "
                    "mount_exited() unmounting() forced_unmounting() corrupted() "
                    "terminating() closingFiles() closingFiles_exited() notMoutable() "
                    "cardInsertedTriggered() cardRemovedTriggered() cardEjectTriggered() "
                    "mountSuccessTriggered() mountFailedTriggered() mountCorruptTriggered() "
                    "umountSuccessTriggered() unmountFailedTriggered() "
                    "filesClosedTriggered() timeoutTriggered() checkFiles() "
                    "checkSDcardPresent() readInputDevice() setFsBirthDate(QDateTime) "
                    "setMountingState()"));
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardMachineTest)
#include "SdcardMachineTest.moc"
