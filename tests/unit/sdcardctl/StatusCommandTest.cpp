#include <QTest>

#include <memory>

#include <QJsonObject>

#include "ExitStatus.h"
#include "FakeService.h"
#include "JsonText.h"
#include "PrivateBus.h"
#include "ProgramRun.h"
#include "SampleCard.h"

using sdcardctl::ExitStatus;

class StatusCommandTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { mService = std::make_unique<FakeService>(mBus); }
    void cleanup() { mService.reset(); }
    void status_shows_the_card_and_its_directories();
    void status_of_an_unmounted_card_shows_no_use();
    void status_marks_a_directory_that_the_service_does_not_know();
    void status_for_programs_contains_numbers_and_names();
    void status_with_a_broken_configuration_still_shows_the_card();
    void status_does_not_invent_names_for_values();
    void colours_show_on_a_terminal_only();

private:
    QStringList call(const QStringList& options = {}) const
    {
        return QStringList{"status", "--bus", mBus.address(), "--config", mCard.configFile()} +
               options;
    }

    PrivateBus mBus;
    SampleCard mCard;
    std::unique_ptr<FakeService> mService;
};

void StatusCommandTest::status_shows_the_card_and_its_directories()
{
    SampleCard::mount(*mService);
    // clang-format off
    QCOMPARE(ProgramRun::answer(call()), QString(
        "State            mounted\n"
        "Last transition  card-inserted\n"
        "Memory state     up-to-20-percent\n"
        "Memory level     7 %\n"
        "Mount point      /media/sdcard\n"
        "\n"
        "Directory     Share        Used of  Allotted                                  Path\n"
        "logger         40 %    10.0 MiB of  40.0 MiB  [#####...............]    25 %  /media/sdcard/logger (watched)\n"
        "archive        10 %    11.0 MiB of  10.0 MiB  [####################]   110 %  /media/sdcard/logger/archive\n"
        "csv          12.5 %         0 B of  12.5 MiB  [....................]     0 %  /media/sdcard/csv\n"));
    // clang-format on
}

void StatusCommandTest::status_of_an_unmounted_card_shows_no_use()
{
    mService->directories = {{"logger", {"/logger", 0, 0}},
                             {"archive", {"/logger/archive", 0, 0}},
                             {"csv", {"/csv", 0, 0}}};
    const QString shown = ProgramRun::answer(call());
    QVERIFY2(shown.contains("Mount point      /media/sdcard (not mounted)\n\n"
                            "Directory     Share  Path\nlogger         40 %  /media/sdcard/logger"),
             qPrintable(shown));
}

void StatusCommandTest::status_marks_a_directory_that_the_service_does_not_know()
{
    SampleCard::mount(*mService);
    mService->directories.remove("csv");
    const QString shown = ProgramRun::answer(call({"--no-legend"}));
    QVERIFY2(shown.contains("\n\nlogger       40 % "), qPrintable(shown));
    QVERIFY2(shown.contains("\ncsv        12.5 %  not known to the service"), qPrintable(shown));
}

void StatusCommandTest::status_for_programs_contains_numbers_and_names()
{
    SampleCard::mount(*mService);
    mService->directories.remove("csv");
    const QByteArray expected = R"({
        "state": 3, "stateName": "mounted", "transition": 1, "transitionName": "card-inserted",
        "memState": 3, "memStateName": "up-to-20-percent", "memLevel": 7,
        "mountPoint": "/media/sdcard", "isMounted": true, "directories": [
            {"id": "logger", "share": 0.4, "watched": true, "known": true,
             "path": "/media/sdcard/logger", "size": 41943040, "used": 10485760},
            {"id": "archive", "share": 0.1, "watched": false, "known": true,
             "path": "/media/sdcard/logger/archive", "size": 10485760, "used": 11534336},
            {"id": "csv", "share": 0.125, "watched": false, "known": false}]})";
    QVERIFY(!jsonOf(expected).isEmpty());
    QCOMPARE(jsonOf(ProgramRun::answer(call({"--json"}))), jsonOf(expected));
}

void StatusCommandTest::status_with_a_broken_configuration_still_shows_the_card()
{
    ProgramRun run({"status", "--bus", mBus.address(), "--config", "/nonexistent.xml"});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QVERIFY(run.output().startsWith("State            unknown\n"));
    QCOMPARE(run.notes(), QString("sdcardctl: The media configuration '/nonexistent.xml' cannot be "
                                  "read. \"sdcardctl check-config /nonexistent.xml\" lists its "
                                  "errors; --config selects another file.\n"));

    ProgramRun forPrograms(
        {"status", "--json", "--bus", mBus.address(), "--config", "/nonexistent.xml"});
    QCOMPARE(forPrograms.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QVERIFY(jsonOf(forPrograms.output()).value("directories").isNull());
}

void StatusCommandTest::status_does_not_invent_names_for_values()
{
    mService->card.setState(9);
    const QString shown = ProgramRun::answer(call());
    QVERIFY2(shown.startsWith("State            unrecognised (9)\n"), qPrintable(shown));
}

void StatusCommandTest::colours_show_on_a_terminal_only()
{
    SampleCard::mount(*mService);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const auto shownOnTerminal = [&](const char* noColor, const char* terminal) {
        environment.insert("NO_COLOR", noColor);
        environment.insert("TERM", terminal);
        QProcess script;
        script.setProcessEnvironment(environment);
        script.start("script", {"--quiet", "--return", "--command",
                                SDCARDCTL_PROGRAM " '" + call().join("' '") + "'", "/dev/null"});
        const bool hasEnded =
            QTest::qWaitFor([&] { return script.state() == QProcess::NotRunning; }, 20000);
        return hasEnded ? QString::fromUtf8(script.readAllStandardOutput()) : QString();
    };
    QVERIFY(shownOnTerminal("", "xterm").contains("\033[32mmounted\033[0m"));
    for (const QString& shown : {shownOnTerminal("1", "xterm"), shownOnTerminal("", "dumb")}) {
        QVERIFY2(shown.contains(" mounted") && !shown.contains('\033'), qPrintable(shown));
    }
    environment.insert("TERM", "xterm");
    ProgramRun run(call(), QString(), environment);
    QCOMPARE(run.status(), 0);
    QVERIFY2(!run.output().contains('\033'), qPrintable(run.output()));
}

QTEST_GUILESS_MAIN(StatusCommandTest)
#include "StatusCommandTest.moc"
