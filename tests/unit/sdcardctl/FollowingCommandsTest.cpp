#include <QTest>

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <csignal>
#include <memory>

#include "CardStatus.h"
#include "ExitStatus.h"
#include "FakeService.h"
#include "JsonText.h"
#include "PrivateBus.h"
#include "ProgramRun.h"
#include "SampleCard.h"

using sdcardctl::ExitStatus;

class FollowingCommandsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void monitor_shows_each_signal_once();
    void monitor_shows_the_property_changes_that_go_with_a_signal();
    void monitor_begins_with_the_values_and_shows_changes_without_a_signal();
    void monitor_for_programs_writes_one_object_per_line();
    void monitor_ends_with_success_on_SIGTERM();
    void monitor_ends_with_the_bus();
    void wait_ends_at_once_in_the_wanted_state();
    void wait_gives_up_after_its_timeout();
    void wait_waits_for_the_service_to_start();
    void wait_refuses_an_unknown_state();

private:
    PrivateBus mBus;
};

namespace {

// The output of the monitor, without the times.
QString eventsOf(ProgramRun& run)
{
    return run.output().replace(QRegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  )",
                                                   QRegularExpression::MultilineOption),
                                QString());
}

// A monitor that has shown the current values.
std::unique_ptr<ProgramRun> startMonitor(const PrivateBus& bus, const QStringList& options = {})
{
    auto run =
        std::make_unique<ProgramRun>(QStringList{"monitor", "--bus", bus.address()} + options);
    return QTest::qWaitFor([&] { return run->output().contains("MountPoint"); }, 10000)
               ? std::move(run)
               : nullptr;
}

} // namespace

void FollowingCommandsTest::monitor_shows_each_signal_once()
{
    FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    int level = 0;
    for (const char* const name : {"CardInserted", "CardRemoved", "CardNotMountable", "CardCorrupt",
                                   "CardMounted", "CardUnmounted", "EjectPressed"}) {
        const int before = eventsOf(*run).size();
        QVERIFY(QMetaObject::invokeMethod(&service.card, name));
        service.card.setMemLevel(level + 1);
        const QString change = QString("  MemLevel: %1 % -> %2 %\n").arg(level).arg(level + 1);
        QTRY_VERIFY(eventsOf(*run).endsWith(change));
        QCOMPARE(eventsOf(*run).mid(before),
                 QString("%1\nMemLevelChanged %2 %\n").arg(name).arg(level + 1) + change);
        ++level;
    }
}

void FollowingCommandsTest::monitor_shows_the_property_changes_that_go_with_a_signal()
{
    FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    const int before = eventsOf(*run).size();
    SampleCard::mount(service);
    Q_EMIT service.card.CardMounted();
    QTRY_VERIFY(eventsOf(*run).contains("IsMounted: false -> true"));
    QCOMPARE(eventsOf(*run).mid(before), QString("MemStateChanged up-to-20-percent\n"
                                                 "MemLevelChanged 7 %\n"
                                                 "CardMounted\n"
                                                 "  State: unknown -> mounted\n"
                                                 "  Transition: none -> card-inserted\n"
                                                 "  MemState: unknown -> up-to-20-percent\n"
                                                 "  MemLevel: 0 % -> 7 %\n"
                                                 "  IsMounted: false -> true\n"));
}

void FollowingCommandsTest::monitor_begins_with_the_values_and_shows_changes_without_a_signal()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    service.card.setState(static_cast<int>(State::Mounting));
    QTRY_COMPARE(eventsOf(*run), QString("service is running\n"
                                         "  State: mounted\n"
                                         "  Transition: card-inserted\n"
                                         "  MemState: up-to-20-percent\n"
                                         "  MemLevel: 7 %\n"
                                         "  IsMounted: true\n"
                                         "  MountPoint: /media/sdcard\n"
                                         "  State: mounted -> mounting\n"));
}

void FollowingCommandsTest::monitor_for_programs_writes_one_object_per_line()
{
    FakeService service(mBus);
    const auto run = startMonitor(mBus, {"--json"});
    QVERIFY(run);
    const int before = run->output().size();
    service.card.setMemLevel(7);
    QTRY_COMPARE(run->output().mid(before).count('\n'), 2);
    const QStringList lines = run->output().mid(before).split('\n');
    QJsonObject signal = jsonOf(lines.at(0));
    const QString time = signal.take("time").toString();
    QVERIFY2(QDateTime::fromString(time, Qt::ISODateWithMs).isValid(), qPrintable(time));
    QCOMPARE(signal, (QJsonObject{{"event", "signal"}, {"name", "MemLevelChanged"}, {"value", 7}}));
    QJsonObject change = jsonOf(lines.at(1));
    QVERIFY(!change.take("time").isUndefined());
    QCOMPARE(
        change,
        (QJsonObject{{"event", "property"}, {"name", "MemLevel"}, {"value", 7}, {"previous", 0}}));
    QJsonObject first = jsonOf(run->output().section('\n', 0, 0));
    QVERIFY(!first.take("time").isUndefined());
    QCOMPARE(first, (QJsonObject{{"event", "service"}, {"running", true}}));
}

void FollowingCommandsTest::monitor_ends_with_success_on_SIGTERM()
{
    const FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    ::kill(static_cast<pid_t>(run->pid()), SIGTERM);
    QCOMPARE(run->status(), 0);
    QCOMPARE(run->notes(), QString());
}

void FollowingCommandsTest::monitor_ends_with_the_bus()
{
    PrivateBus bus;
    const auto service = std::make_unique<FakeService>(bus);
    const auto run = startMonitor(bus);
    QVERIFY(run);
    bus.stop();
    QCOMPARE(run->status(), ProgramRun::number(ExitStatus::NoBus));
    QVERIFY2(run->notes().contains("bus is lost"), qPrintable(run->notes()));
}

void FollowingCommandsTest::wait_ends_at_once_in_the_wanted_state()
{
    FakeService service(mBus);
    service.card.setState(static_cast<int>(State::NoCard));
    QCOMPARE(ProgramRun::answer({"wait", "no-card", "--timeout", "10", "--bus", mBus.address()}),
             QString());
}

void FollowingCommandsTest::wait_gives_up_after_its_timeout()
{
    FakeService service(mBus);
    service.card.setState(static_cast<int>(State::ClosingFiles));
    QCOMPARE(ProgramRun::refusal(ExitStatus::TimedOut, {"wait", "unmounted", "--timeout", "0.7",
                                                        "--bus", mBus.address()}),
             QString("sdcardctl: Timed out waiting for unmounted; state is closing-files.\n"));
    const PrivateBus emptyBus;
    QCOMPARE(ProgramRun::refusal(ExitStatus::TimedOut, {"wait", "unmounted", "--timeout", "1",
                                                        "--bus", emptyBus.address()}),
             QString("sdcardctl: The service is not running; waiting for it to start.\n"
                     "sdcardctl: Timed out waiting for unmounted; the service is not running.\n"));
}

void FollowingCommandsTest::wait_waits_for_the_service_to_start()
{
    ProgramRun run({"wait", "mounted", "--timeout", "15", "--bus", mBus.address()});
    QTRY_VERIFY(run.notes().contains("waiting for it to start"));
    FakeService service(mBus);
    SampleCard::mount(service);
    QCOMPARE(run.status(), 0);
}

void FollowingCommandsTest::wait_refuses_an_unknown_state()
{
    const QString note = ProgramRun::refusal(ExitStatus::Usage, {"wait", "Mounted"});
    QVERIFY2(note.contains("no-card, not-mountable, mounted"), qPrintable(note));
}

QTEST_GUILESS_MAIN(FollowingCommandsTest)
#include "FollowingCommandsTest.moc"
