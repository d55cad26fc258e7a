#include <vector>

#include <QTest>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

/// The visible state of a device: the state of its machine, and the bus object's properties.
struct Shown
{
    QString machineState;
    int state = 0;
    int transition = 0;
    bool isMounted = false;
    int memState = 0;
    int memLevel = 0;
};
Q_DECLARE_METATYPE(Shown)

namespace {

struct StateRow
{
    Shown shown;
    // After a refresh; 6 and 77 are the values before it.
    int refreshedState;
    int refreshedLevel;
};

struct Outcome
{
    const char* state;
    const char* event;
    Shown shown;
    QStringList busSignals;
    QStringList ledWrites;
};

const QStringList kNone;
const QStringList kUnmount{"CardUnmounted", "MemLevelChanged 0", "MemStateChanged 1"};

// At the start the card, if mounted, is 30 % full.
std::vector<StateRow> states()
{
    // clang-format off
    return {
        {{"noSdCard",                   1, 0, false, 1, 0},  1, 0},
        {{"mounting",                   6, 1, false, 1, 0},  6, 77},
        {{"preparing",                  6, 1, false, 1, 0},  6, 77},
        {{"mounted",                    3, 1, true,  4, 30}, 4, 30},
        {{"notMoutable",                2, 1, false, 1, 0},  2, 0},
        {{"closingFiles",               5, 3, true,  4, 30}, 6, 77},
        {{"closingFilesForTermination", 5, 1, true,  4, 30}, 6, 77},
        {{"unmounting",                 4, 8, false, 1, 0},  1, 0},
        {{"unmountingForTermination",   4, 8, false, 1, 0},  1, 0},
        {{"forced_unmounting",          4, 9, false, 1, 0},  6, 77},
        {{"corrupted",                  8, 1, false, 2, 0},  2, 0},
        {{"terminating",                1, 0, false, 1, 0},  6, 77},
    };
    // clang-format on
}

struct Event
{
    const char* name;
    int transition; // 0 for an event that does not change it
    void (*cause)(ControllerDevice& device);
};

const std::vector<Event> kEvents{
    {"insert", 1,
     [](ControllerDevice& device) {
         device.insertCard();
     }},
    {"remove", 2,
     [](ControllerDevice& device) {
         device.removeCard();
     }},
    {"eject", 3,
     [](ControllerDevice& device) {
         Q_EMIT device.controller().SD_EJECT();
     }},
    {"signal", 0,
     [](ControllerDevice& device) {
         device.sendSignal(SIGTERM);
     }},
    {"timer", 9,
     [](ControllerDevice& device) {
         ControllerDevice::expire(ControllerDevice::timer(device.controller(), "state timer"));
     }},
    {"unmount failed", 7,
     [](ControllerDevice& device) {
         Q_EMIT device.controller().UNMOUNT_FAILED();
     }},
    {"files closed", 8,
     [](ControllerDevice& device) {
         Q_EMIT device.controller().FILES_CLOSED();
     }},
    {"nothing mounted", 0,
     [](ControllerDevice& device) {
         Q_EMIT device.controller().UMOUNT_SUCCESS();
     }},
};

// Missing: events that change only the transition.
std::vector<Outcome> outcomes()
{
    using namespace LedWrites;
    // clang-format off
    return {
        {"noSdCard",                   "insert",          {"mounting",                   6, 1, false, 1, 0},  kNone, kBusy},
        {"noSdCard",                   "signal",          {"terminating",                1, 0, false, 1, 0},  kNone, kOff},
        {"mounting",                   "remove",          {"noSdCard",                   1, 2, false, 1, 0},  kNone, kOff},
        {"preparing",                  "remove",          {"noSdCard",                   1, 2, false, 1, 0},  kNone, kOff},
        {"mounted",                    "remove",          {"noSdCard",                   1, 2, false, 1, 30}, {"MemStateChanged 1"}, kOff},
        {"mounted",                    "eject",           {"closingFiles",               5, 3, true,  4, 30}, {"EjectPressed"}, kBusy},
        {"mounted",                    "signal",          {"closingFilesForTermination", 5, 1, true,  4, 30}, {"EjectPressed"}, kBusy},
        {"notMoutable",                "remove",          {"noSdCard",                   1, 2, false, 1, 0},  kNone, kOff},
        {"notMoutable",                "signal",          {"terminating",                2, 1, false, 1, 0},  kNone, kOff},
        {"closingFiles",               "remove",          {"noSdCard",                   1, 2, false, 1, 30}, {"MemStateChanged 1"}, kOff},
        {"closingFiles",               "timer",           {"mounted",                    3, 9, true,  4, 30}, {"CardMounted"}, kMounted},
        {"closingFiles",               "files closed",    {"unmounting",                 4, 8, false, 1, 0},  kUnmount, kBusy + kUnmounted},
        {"closingFilesForTermination", "remove",          {"terminating",                5, 2, true,  4, 30}, kNone, kOff},
        {"closingFilesForTermination", "timer",           {"forced_unmounting",          4, 9, false, 1, 0},  kUnmount, kBusy + kUnmounted},
        {"closingFilesForTermination", "files closed",    {"unmountingForTermination",   4, 8, false, 1, 0},  kUnmount, kBusy + kUnmounted},
        {"unmounting",                 "remove",          {"noSdCard",                   1, 2, false, 1, 0},  kNone, kOff},
        {"unmounting",                 "signal",          {"terminating",                4, 8, false, 1, 0},  kNone, kOff},
        {"unmounting",                 "timer",           {"mounting",                   6, 9, false, 1, 0},  kNone, kBusy},
        {"unmounting",                 "unmount failed",  {"mounting",                   6, 7, false, 1, 0},  kNone, kBusy},
        {"unmounting",                 "nothing mounted", {"noSdCard",                   1, 8, false, 1, 0},  kNone, kOff},
        {"unmountingForTermination",   "signal",          {"terminating",                4, 8, false, 1, 0},  kNone, kOff},
        {"unmountingForTermination",   "timer",           {"forced_unmounting",          4, 9, false, 1, 0},  kNone, kNone},
        {"unmountingForTermination",   "unmount failed",  {"forced_unmounting",          4, 7, false, 1, 0},  kNone, kNone},
        {"unmountingForTermination",   "nothing mounted", {"terminating",                4, 8, false, 1, 0},  kNone, kOff},
        {"forced_unmounting",          "signal",          {"terminating",                4, 9, false, 1, 0},  kNone, kOff},
        {"forced_unmounting",          "unmount failed",  {"terminating",                4, 7, false, 1, 0},  kNone, kOff},
    };
    // clang-format on
}

} // namespace

class SdcardStatesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void every_event_in_every_state_has_its_outcome_data()
    {
        QTest::addColumn<QString>("state");
        QTest::addColumn<int>("event");
        QTest::addColumn<Shown>("shown");
        QTest::addColumn<QStringList>("busSignals");
        QTest::addColumn<QStringList>("ledWrites");
        std::vector<Outcome> changes = outcomes();
        for (const StateRow& before : states()) {
            for (std::size_t index = 0; index < kEvents.size(); ++index) {
                const Event& event = kEvents[index];
                const QString& state = before.shown.machineState;
                Outcome outcome{nullptr, nullptr, before.shown, kNone, kNone};
                if (event.transition != 0) {
                    outcome.shown.transition = event.transition;
                }
                for (const Outcome& change : changes) {
                    if (state == change.state && QLatin1String(event.name) == change.event) {
                        outcome = change;
                    }
                }
                QTest::addRow("%s, %s", qPrintable(state), event.name)
                    << state << static_cast<int>(index) << outcome.shown << outcome.busSignals
                    << outcome.ledWrites;
            }
        }
    }

    void every_event_in_every_state_has_its_outcome()
    {
        QFETCH(const QString, state);
        QFETCH(const int, event);
        QFETCH(const Shown, shown);
        ControllerDevice device(mBus);
        device.startIn(state);
        if (state == "mounted") {
            device.keepFilesOpen();
        }
        ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);

        kEvents.at(static_cast<std::size_t>(event)).cause(device);
        ControllerDevice::settle();

        QVERIFY(device.waitForState(shown.machineState));
        const SDCardImpl& service = device.service();
        QTRY_COMPARE(service.state(), shown.state);
        QCOMPARE(device.machineState(), shown.machineState);
        QCOMPARE(service.transition(), shown.transition);
        QCOMPARE(service.isMounted(), shown.isMounted);
        QCOMPARE(service.memState(), shown.memState);
        QCOMPARE(service.memLevel(), shown.memLevel);
        const EffectRecorder::Parts effects = device.effects().takeParts();
        // Here CardInserted and CardRemoved are the events.
        const QRegularExpression ofBus("^(Card(Corrupt|Mounted|NotMountable|Unmounted)|Eject|Mem)");
        QTEST(effects.signalNames.filter(ofBus), "busSignals");
        QTEST(effects.ledWrites, "ledWrites");
    }

    void a_refresh_of_the_memory_state_depends_on_the_state_data()
    {
        QTest::addColumn<QString>("state");
        QTest::addColumn<int>("memState");
        QTest::addColumn<int>("memLevel");
        for (const StateRow& row : states()) {
            QTest::newRow(qPrintable(row.shown.machineState))
                << row.shown.machineState << row.refreshedState << row.refreshedLevel;
        }
    }

    void a_refresh_of_the_memory_state_depends_on_the_state()
    {
        QFETCH(const QString, state);
        QFETCH(const int, memState);
        QFETCH(const int, memLevel);
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn(state);
        device.service().setMemState(6);
        device.service().setMemLevel(77);
        device.effects().take();
        controller.checkMemState();
        QCOMPARE(device.service().memState(), memState);
        QCOMPARE(device.service().memLevel(), memLevel);
        const QStringList announced{"MemStateChanged " + QString::number(memState),
                                    "MemLevelChanged " + QString::number(memLevel)};
        QCOMPARE(device.effects().take(), memLevel == 77 ? QStringList() : announced);
        controller.checkMemState();
        QCOMPARE(device.effects().take(), QStringList());
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardStatesTest)
#include "SdcardStatesTest.moc"
