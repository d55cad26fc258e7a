#include <vector>

#include <QTest>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

/// What is seen of a device after an event.
struct Outcome
{
    QString machineState;
    int state = 0; // the property, as the next four
    int transition = 0;
    bool isMounted = false;
    int memState = 0;
    int memLevel = 0;
    QStringList busSignals;
    QStringList ledWrites;
};
Q_DECLARE_METATYPE(Outcome)

class SdcardStatesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void every_event_in_every_state_has_its_outcome_data();
    void every_event_in_every_state_has_its_outcome();

private:
    static void cause(ControllerDevice& device, const QString& event);

    TestBus mBus;
};

namespace {

struct Row
{
    const char* state;
    const char* event;
    Outcome outcome;
};

// The events are: a card is inserted (insert) or removed (remove), the button is held (eject), the
// process is told to end (SIGTERM, SIGHUP), the state timer runs out (timer), an unmount fails
// (failure). In the beginning the card, where mounted, is used to 30 %.
std::vector<Row> rows()
{
    using namespace LedWrites;
    const QStringList kNone;
    // clang-format off
    return {
        {"noSdCard", "insert",  {"mounting",    6, 1, false, 1, 0, kNone, kBusy}},
        {"noSdCard", "remove",  {"noSdCard",    1, 2, false, 1, 0, kNone, kNone}},
        {"noSdCard", "eject",   {"noSdCard",    1, 3, false, 1, 0, kNone, kNone}},
        {"noSdCard", "SIGTERM", {"terminating", 1, 0, false, 1, 0, kNone, kOff}},
        {"noSdCard", "SIGHUP",  {"terminating", 1, 0, false, 1, 0, kNone, kOff}},
        {"noSdCard", "timer",   {"noSdCard",    1, 9, false, 1, 0, kNone, kNone}},
        {"noSdCard", "failure", {"noSdCard",    1, 7, false, 1, 0, kNone, kNone}},

        {"mounting", "insert",  {"mounting", 6, 1, false, 1, 0, kNone, kNone}},
        {"mounting", "remove",  {"noSdCard", 1, 2, false, 1, 0, kNone, kOff}},
        {"mounting", "eject",   {"mounting", 6, 3, false, 1, 0, kNone, kNone}},
        {"mounting", "SIGTERM", {"mounting", 6, 1, false, 1, 0, kNone, kNone}},
        {"mounting", "SIGHUP",  {"mounting", 6, 1, false, 1, 0, kNone, kNone}},
        {"mounting", "timer",   {"mounting", 6, 9, false, 1, 0, kNone, kNone}},
        {"mounting", "failure", {"mounting", 6, 7, false, 1, 0, kNone, kNone}},

        {"preparing", "insert",  {"preparing", 6, 1, false, 1, 0, kNone, kNone}},
        {"preparing", "remove",  {"noSdCard",  1, 2, false, 1, 0, kNone, kOff}},
        {"preparing", "eject",   {"preparing", 6, 3, false, 1, 0, kNone, kNone}},
        {"preparing", "SIGTERM", {"preparing", 6, 1, false, 1, 0, kNone, kNone}},
        {"preparing", "SIGHUP",  {"preparing", 6, 1, false, 1, 0, kNone, kNone}},
        {"preparing", "timer",   {"preparing", 6, 9, false, 1, 0, kNone, kNone}},
        {"preparing", "failure", {"preparing", 6, 7, false, 1, 0, kNone, kNone}},

        {"mounted", "insert",  {"mounted",                    3, 1, true,  4, 30, kNone,                 kNone}},
        {"mounted", "remove",  {"noSdCard",                   1, 2, false, 1, 30, {"MemStateChanged 1"}, kOff}},
        {"mounted", "eject",   {"closingFiles",               5, 3, true,  4, 30, {"EjectPressed"},      kBusy}},
        {"mounted", "SIGTERM", {"closingFilesForTermination", 5, 1, true,  4, 30, {"EjectPressed"},      kBusy}},
        {"mounted", "SIGHUP",  {"closingFilesForTermination", 5, 1, true,  4, 30, {"EjectPressed"},      kBusy}},
        {"mounted", "timer",   {"mounted",                    3, 9, true,  4, 30, kNone,                 kNone}},
        {"mounted", "failure", {"mounted",                    3, 7, true,  4, 30, kNone,                 kNone}},

        {"notMoutable", "insert",  {"notMoutable", 2, 1, false, 1, 0, kNone, kNone}},
        {"notMoutable", "remove",  {"noSdCard",    1, 2, false, 1, 0, kNone, kOff}},
        {"notMoutable", "eject",   {"notMoutable", 2, 3, false, 1, 0, kNone, kNone}},
        {"notMoutable", "SIGTERM", {"terminating", 2, 1, false, 1, 0, kNone, kOff}},
        {"notMoutable", "SIGHUP",  {"terminating", 2, 1, false, 1, 0, kNone, kOff}},
        {"notMoutable", "timer",   {"notMoutable", 2, 9, false, 1, 0, kNone, kNone}},
        {"notMoutable", "failure", {"notMoutable", 2, 7, false, 1, 0, kNone, kNone}},

        {"closingFiles", "insert",  {"closingFiles", 5, 1, true,  4, 30, kNone,                 kNone}},
        {"closingFiles", "remove",  {"noSdCard",     1, 2, false, 1, 30, {"MemStateChanged 1"}, kOff}},
        {"closingFiles", "eject",   {"closingFiles", 5, 3, true,  4, 30, kNone,                 kNone}},
        {"closingFiles", "SIGTERM", {"closingFiles", 5, 3, true,  4, 30, kNone,                 kNone}},
        {"closingFiles", "SIGHUP",  {"closingFiles", 5, 3, true,  4, 30, kNone,                 kNone}},
        {"closingFiles", "timer",   {"mounted",      3, 9, true,  4, 30, {"CardMounted"},       kMounted}},
        {"closingFiles", "failure", {"closingFiles", 5, 7, true,  4, 30, kNone,                 kNone}},

        {"closingFilesForTermination", "insert",  {"closingFilesForTermination", 5, 1, true,  4, 30, kNone, kNone}},
        {"closingFilesForTermination", "remove",  {"terminating",                5, 2, true,  4, 30, kNone, kOff}},
        {"closingFilesForTermination", "eject",   {"closingFilesForTermination", 5, 3, true,  4, 30, kNone, kNone}},
        {"closingFilesForTermination", "SIGTERM", {"closingFilesForTermination", 5, 1, true,  4, 30, kNone, kNone}},
        {"closingFilesForTermination", "SIGHUP",  {"closingFilesForTermination", 5, 1, true,  4, 30, kNone, kNone}},
        {"closingFilesForTermination", "timer",   {"forced_unmounting",          4, 9, false, 1, 0,
                                                   {"CardUnmounted", "MemLevelChanged 0", "MemStateChanged 1"},
                                                   kBusy + kUnmounted}},
        {"closingFilesForTermination", "failure", {"closingFilesForTermination", 5, 7, true,  4, 30, kNone, kNone}},

        {"unmounting", "insert",  {"unmounting",  4, 1, false, 1, 0, kNone, kNone}},
        {"unmounting", "remove",  {"noSdCard",    1, 2, false, 1, 0, kNone, kOff}},
        {"unmounting", "eject",   {"unmounting",  4, 3, false, 1, 0, kNone, kNone}},
        {"unmounting", "SIGTERM", {"terminating", 4, 8, false, 1, 0, kNone, kOff}},
        {"unmounting", "SIGHUP",  {"terminating", 4, 8, false, 1, 0, kNone, kOff}},
        {"unmounting", "timer",   {"mounting",    6, 9, false, 1, 0, kNone, kBusy}},
        {"unmounting", "failure", {"mounting",    6, 7, false, 1, 0, kNone, kBusy}},

        {"unmountingForTermination", "insert",  {"unmountingForTermination", 4, 1, false, 1, 0, kNone, kNone}},
        {"unmountingForTermination", "remove",  {"unmountingForTermination", 4, 2, false, 1, 0, kNone, kNone}},
        {"unmountingForTermination", "eject",   {"unmountingForTermination", 4, 3, false, 1, 0, kNone, kNone}},
        {"unmountingForTermination", "SIGTERM", {"terminating",              4, 8, false, 1, 0, kNone, kOff}},
        {"unmountingForTermination", "SIGHUP",  {"terminating",              4, 8, false, 1, 0, kNone, kOff}},
        {"unmountingForTermination", "timer",   {"forced_unmounting",        4, 9, false, 1, 0, kNone, kNone}},
        {"unmountingForTermination", "failure", {"forced_unmounting",        4, 7, false, 1, 0, kNone, kNone}},

        {"forced_unmounting", "insert",  {"forced_unmounting", 4, 1, false, 1, 0, kNone, kNone}},
        {"forced_unmounting", "remove",  {"forced_unmounting", 4, 2, false, 1, 0, kNone, kNone}},
        {"forced_unmounting", "eject",   {"forced_unmounting", 4, 3, false, 1, 0, kNone, kNone}},
        {"forced_unmounting", "SIGTERM", {"terminating",       4, 9, false, 1, 0, kNone, kOff}},
        {"forced_unmounting", "SIGHUP",  {"terminating",       4, 9, false, 1, 0, kNone, kOff}},
        {"forced_unmounting", "timer",   {"forced_unmounting", 4, 9, false, 1, 0, kNone, kNone}},
        {"forced_unmounting", "failure", {"terminating",       4, 7, false, 1, 0, kNone, kOff}},

        {"corrupted", "insert",  {"corrupted", 8, 1, false, 2, 0, kNone, kNone}},
        {"corrupted", "remove",  {"corrupted", 8, 2, false, 2, 0, kNone, kNone}},
        {"corrupted", "eject",   {"corrupted", 8, 3, false, 2, 0, kNone, kNone}},
        {"corrupted", "SIGTERM", {"corrupted", 8, 1, false, 2, 0, kNone, kNone}},
        {"corrupted", "SIGHUP",  {"corrupted", 8, 1, false, 2, 0, kNone, kNone}},
        {"corrupted", "timer",   {"corrupted", 8, 9, false, 2, 0, kNone, kNone}},
        {"corrupted", "failure", {"corrupted", 8, 7, false, 2, 0, kNone, kNone}},

        {"terminating", "insert",  {"terminating", 1, 1, false, 1, 0, kNone, kNone}},
        {"terminating", "remove",  {"terminating", 1, 2, false, 1, 0, kNone, kNone}},
        {"terminating", "eject",   {"terminating", 1, 3, false, 1, 0, kNone, kNone}},
        {"terminating", "SIGTERM", {"terminating", 1, 0, false, 1, 0, kNone, kNone}},
        {"terminating", "SIGHUP",  {"terminating", 1, 0, false, 1, 0, kNone, kNone}},
        {"terminating", "timer",   {"terminating", 1, 9, false, 1, 0, kNone, kNone}},
        {"terminating", "failure", {"terminating", 1, 7, false, 1, 0, kNone, kNone}},
    };
    // clang-format on
}

} // namespace

void SdcardStatesTest::cause(ControllerDevice& device, const QString& event)
{
    Sdcard& controller = device.controller();
    if (event == "insert") {
        device.insertCard();
    } else if (event == "remove") {
        device.removeCard();
    } else if (event == "eject") {
        Q_EMIT controller.SD_EJECT();
    } else if (event == "SIGTERM") {
        device.sendSignal(SIGTERM);
    } else if (event == "SIGHUP") {
        device.sendSignal(SIGHUP);
    } else if (event == "timer") {
        ControllerDevice::expire(ControllerDevice::timer(controller, "state timer"));
    } else if (event == "failure") {
        Q_EMIT controller.UNMOUNT_FAILED();
    }
    ControllerDevice::settle();
}

void SdcardStatesTest::every_event_in_every_state_has_its_outcome_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("event");
    QTest::addColumn<Outcome>("outcome");
    for (const Row& row : rows()) {
        QTest::addRow("%s, %s", row.state, row.event)
            << QString(row.state) << QString(row.event) << row.outcome;
    }
}

void SdcardStatesTest::every_event_in_every_state_has_its_outcome()
{
    QFETCH(const QString, state);
    QFETCH(const QString, event);
    QFETCH(const Outcome, outcome);
    ControllerDevice device(mBus);
    device.startIn(state);
    if (state == "mounted") {
        device.keepFilesOpen();
    }
    ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);

    cause(device, event);

    QVERIFY(device.waitForState(outcome.machineState));
    const SDCardImpl& service = device.service();
    QTRY_COMPARE(service.state(), outcome.state);
    QCOMPARE(device.machineState(), outcome.machineState);
    QCOMPARE(service.transition(), outcome.transition);
    QCOMPARE(service.isMounted(), outcome.isMounted);
    QCOMPARE(service.memState(), outcome.memState);
    QCOMPARE(service.memLevel(), outcome.memLevel);
    const EffectRecorder::Parts effects = device.effects().takeParts();
    // What announces insertion and removal themselves is the event here.
    const QRegularExpression ofBus("^(Card(Corrupt|Mounted|NotMountable|Unmounted)|Eject|Mem)");
    QCOMPARE(effects.signalNames.filter(ofBus), outcome.busSignals);
    QCOMPARE(effects.ledWrites, outcome.ledWrites);
}

TEST_DEVICE_MAIN(SdcardStatesTest)
#include "SdcardStatesTest.moc"
