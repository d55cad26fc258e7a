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
    void monitor_shows_each_signal_once_data();
    void monitor_shows_each_signal_once();
    void monitor_shows_the_property_changes_that_go_with_a_signal();
    void monitor_shows_a_change_that_no_signal_announces();
    void monitor_begins_with_the_present_values();
    void monitor_gives_every_line_its_time();
    void monitor_for_programs_writes_one_object_a_line();
    void monitor_ends_with_success_on_a_signal_data();
    void monitor_ends_with_success_on_a_signal();
    void monitor_follows_a_restarted_service();
    void monitor_ends_with_the_bus();
    void wait_ends_when_the_state_is_reached();
    void wait_ends_at_once_in_the_wanted_state();
    void wait_gives_up_after_its_timeout();
    void wait_waits_for_the_service_to_start();
    void wait_refuses_an_unknown_state();

private:
    PrivateBus mBus;
};

namespace {

// What the monitor wrote, without the times.
QString eventsOf(ProgramRun& run)
{
    return run.output().replace(
        QRegularExpression(R"(^\d\d:\d\d:\d\d\.\d{3}  )", QRegularExpression::MultilineOption),
        QString());
}

// A monitor that has shown the present values.
std::unique_ptr<ProgramRun> startMonitor(const PrivateBus& bus, const QStringList& options = {})
{
    auto run =
        std::make_unique<ProgramRun>(QStringList{"monitor", "--bus", bus.address()} + options);
    return QTest::qWaitFor([&] { return run->output().contains("MountPoint"); }, 10000)
               ? std::move(run)
               : nullptr;
}

} // namespace

void FollowingCommandsTest::monitor_shows_each_signal_once_data()
{
    QTest::addColumn<QString>("line");
    for (const char* const name : {"CardInserted", "CardRemoved", "CardNotMountable", "CardCorrupt",
                                   "CardMounted", "CardUnmounted", "EjectPressed"}) {
        QTest::newRow(name) << name;
    }
}

void FollowingCommandsTest::monitor_shows_each_signal_once()
{
    QFETCH(const QString, line);
    FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    const int before = eventsOf(*run).size();
    QVERIFY(QMetaObject::invokeMethod(&service.card, line.toLatin1().constData()));
    service.card.setMemLevel(1);
    QTRY_VERIFY(eventsOf(*run).contains("MemLevel: 0 % -> 1 %"));
    QCOMPARE(eventsOf(*run).mid(before), line + "\nMemLevelChanged 1 %\n  MemLevel: 0 % -> 1 %\n");
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

void FollowingCommandsTest::monitor_shows_a_change_that_no_signal_announces()
{
    FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    service.card.setState(static_cast<int>(State::Mounting));
    QTRY_VERIFY(eventsOf(*run).endsWith("\n  State: unknown -> mounting\n"));
}

void FollowingCommandsTest::monitor_begins_with_the_present_values()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    QCOMPARE(eventsOf(*run), QString("service is running\n"
                                     "  State: mounted\n"
                                     "  Transition: card-inserted\n"
                                     "  MemState: up-to-20-percent\n"
                                     "  MemLevel: 7 %\n"
                                     "  IsMounted: true\n"
                                     "  MountPoint: /media/sdcard\n"));
}

void FollowingCommandsTest::monitor_gives_every_line_its_time()
{
    const FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    const QRegularExpression line(R"(^\d\d:\d\d:\d\d\.\d{3}  (  )?\S)");
    const QStringList lines = run->output().trimmed().split('\n');
    QCOMPARE(lines.size(), 7);
    for (const QString& text : lines) {
        QVERIFY2(line.match(text).hasMatch(), qPrintable(text));
    }
}

void FollowingCommandsTest::monitor_for_programs_writes_one_object_a_line()
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

void FollowingCommandsTest::monitor_ends_with_success_on_a_signal_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("Ctrl-C") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void FollowingCommandsTest::monitor_ends_with_success_on_a_signal()
{
    QFETCH(const int, signal);
    const FakeService service(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    ::kill(static_cast<pid_t>(run->pid()), signal);
    QCOMPARE(run->status(), 0);
    QCOMPARE(run->notes(), QString());
}

void FollowingCommandsTest::monitor_follows_a_restarted_service()
{
    auto service = std::make_unique<FakeService>(mBus);
    const auto run = startMonitor(mBus);
    QVERIFY(run);
    int before = eventsOf(*run).size();
    service.reset();
    QTRY_COMPARE(eventsOf(*run).mid(before), QString("service is not running\n"));

    before = eventsOf(*run).size();
    service = std::make_unique<FakeService>(mBus);
    SampleCard::mount(*service);
    QTRY_VERIFY(eventsOf(*run).mid(before).contains("MountPoint"));
    QVERIFY(eventsOf(*run).mid(before).startsWith("service is running\n"));
    Q_EMIT service->card.EjectPressed();
    QTRY_VERIFY(eventsOf(*run).mid(before).contains("\nEjectPressed\n"));
    QVERIFY2(eventsOf(*run).mid(before).contains("  State: mounted\n"), qPrintable(eventsOf(*run)));
}

void FollowingCommandsTest::monitor_ends_with_the_bus()
{
    PrivateBus bus;
    const auto service = std::make_unique<FakeService>(bus);
    const auto run = startMonitor(bus);
    QVERIFY(run);
    bus.stop();
    QCOMPARE(run->status(), ProgramRun::number(ExitStatus::NoBus));
    QVERIFY2(run->notes().contains("bus has gone"), qPrintable(run->notes()));
}

void FollowingCommandsTest::wait_ends_when_the_state_is_reached()
{
    FakeService service(mBus);
    service.card.setState(static_cast<int>(State::Mounting));
    ProgramRun run({"wait", "mounted", "--bus", mBus.address()});
    QTest::qWait(1000);
    QVERIFY(run.isRunning());
    service.card.setState(static_cast<int>(State::Mounted));
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output() + run.notes(), QString());
}

void FollowingCommandsTest::wait_ends_at_once_in_the_wanted_state()
{
    FakeService service(mBus);
    service.card.setState(static_cast<int>(State::NoCard));
    ProgramRun run({"wait", "no-card", "--timeout", "10", "--bus", mBus.address()});
    QCOMPARE(run.status(), 0);
}

void FollowingCommandsTest::wait_gives_up_after_its_timeout()
{
    FakeService service(mBus);
    service.card.setState(static_cast<int>(State::ClosingFiles));
    ProgramRun run({"wait", "unmounted", "--timeout", "0.7", "--bus", mBus.address()});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::TimedOut));
    QCOMPARE(run.notes(),
             QString("sdcardctl: The card is not unmounted yet; its state is closing-files.\n"));
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
    ProgramRun run({"wait", "Mounted"});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::Usage));
    QVERIFY2(run.notes().contains("no-card, not-mountable, mounted"), qPrintable(run.notes()));
}

QTEST_GUILESS_MAIN(FollowingCommandsTest)
#include "FollowingCommandsTest.moc"
