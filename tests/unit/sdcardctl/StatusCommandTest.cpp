#include <QTest>

#include <QJsonArray>
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
    void status_shows_the_card_by_names();
    void status_shows_each_directory_with_share_use_and_bar();
    void status_of_an_unmounted_card_shows_no_use();
    void status_marks_a_directory_that_the_service_does_not_know();
    void status_for_programs_holds_numbers_and_names();
    void status_with_a_broken_configuration_still_shows_the_card();
    void status_does_not_invent_names_for_values();
    void colours_show_on_a_terminal_only();

private:
    PrivateBus mBus;
};

namespace {

const SampleCard card;

} // namespace

void StatusCommandTest::status_shows_the_card_by_names()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    ProgramRun run({"status", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output().section("\n\n", 0, 0), QString("State            mounted\n"
                                                         "Last transition  card-inserted\n"
                                                         "Memory state     up-to-20-percent\n"
                                                         "Memory level     7 %\n"
                                                         "Mount point      /media/sdcard"));
    QCOMPARE(run.notes(), QString());
}

void StatusCommandTest::status_shows_each_directory_with_share_use_and_bar()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    ProgramRun run({"status", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QCOMPARE(
        run.output().section("\n\n", 1),
        QString(
            "Directory     Share        Used of  Allotted                                  Path\n"
            "logger         40 %    10.0 MiB of  40.0 MiB  [#####...............]    25 %  "
            "/media/sdcard/logger (watched)\n"
            "archive        10 %    11.0 MiB of  10.0 MiB  [####################]   110 %  "
            "/media/sdcard/logger/archive\n"
            "csv          12.5 %         0 B of  12.5 MiB  [....................]     0 %  "
            "/media/sdcard/csv\n"));
}

void StatusCommandTest::status_of_an_unmounted_card_shows_no_use()
{
    FakeService service(mBus);
    service.directories = {{"logger", {"/logger", 0, 0}},
                           {"archive", {"/logger/archive", 0, 0}},
                           {"csv", {"/csv", 0, 0}}};
    ProgramRun run({"status", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QVERIFY2(run.output().contains("Mount point      /media/sdcard (not mounted)\n"),
             qPrintable(run.output()));
    QVERIFY2(run.output().contains("\nDirectory     Share  Path\nlogger         40 %  /media"),
             qPrintable(run.output()));
}

void StatusCommandTest::status_marks_a_directory_that_the_service_does_not_know()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    service.directories.remove("csv");
    ProgramRun run(
        {"status", "--no-legend", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QVERIFY2(run.output().contains("\n\nlogger       40 % "), qPrintable(run.output()));
    QVERIFY2(run.output().contains("\ncsv        12.5 %  not known to the service"),
             qPrintable(run.output()));
}

void StatusCommandTest::status_for_programs_holds_numbers_and_names()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    service.directories.remove("csv");
    ProgramRun run({"status", "--json", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    const QJsonArray directories{
        QJsonObject{{"id", "logger"},
                    {"share", 0.4},
                    {"watched", true},
                    {"known", true},
                    {"path", "/media/sdcard/logger"},
                    {"size", 40 * SampleCard::kMiB},
                    {"used", 10 * SampleCard::kMiB}},
        QJsonObject{{"id", "archive"},
                    {"share", 0.1},
                    {"watched", false},
                    {"known", true},
                    {"path", "/media/sdcard/logger/archive"},
                    {"size", 10 * SampleCard::kMiB},
                    {"used", 11 * SampleCard::kMiB}},
        QJsonObject{{"id", "csv"}, {"share", 0.125}, {"watched", false}, {"known", false}}};
    QCOMPARE(jsonOf(run.output()), (QJsonObject{{"state", 3},
                                                {"stateName", "mounted"},
                                                {"transition", 1},
                                                {"transitionName", "card-inserted"},
                                                {"memState", 3},
                                                {"memStateName", "up-to-20-percent"},
                                                {"memLevel", 7},
                                                {"mountPoint", "/media/sdcard"},
                                                {"isMounted", true},
                                                {"directories", directories}}));
}

void StatusCommandTest::status_with_a_broken_configuration_still_shows_the_card()
{
    const FakeService service(mBus);
    ProgramRun run({"status", "--bus", mBus.address(), "--config", "/nonexistent.xml"});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QVERIFY(run.output().startsWith("State            unknown\n"));
    QVERIFY2(run.notes().contains("sdcardctl check-config /nonexistent.xml"),
             qPrintable(run.notes()));
    QCOMPARE(run.notes().count('\n'), 1);

    ProgramRun forPrograms(
        {"status", "--json", "--bus", mBus.address(), "--config", "/nonexistent.xml"});
    QCOMPARE(forPrograms.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QVERIFY(jsonOf(forPrograms.output()).value("directories").isNull());
}

void StatusCommandTest::status_does_not_invent_names_for_values()
{
    FakeService service(mBus);
    service.card.setState(9);
    ProgramRun run({"status", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QVERIFY2(run.output().startsWith("State            unrecognised (9)\n"),
             qPrintable(run.output()));
}

void StatusCommandTest::colours_show_on_a_terminal_only()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    const QStringList arguments{"status", "--bus", mBus.address(), "--config", card.configFile()};
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const auto shownOnTerminal = [&](const char* noColor, const char* terminal) {
        environment.insert("NO_COLOR", noColor);
        environment.insert("TERM", terminal);
        QProcess script;
        script.setProcessEnvironment(environment);
        script.start("script", {"--quiet", "--return", "--command",
                                SDCARDCTL_PROGRAM " '" + arguments.join("' '") + "'", "/dev/null"});
        const bool hasEnded =
            QTest::qWaitFor([&] { return script.state() == QProcess::NotRunning; }, 20000);
        return hasEnded ? QString::fromUtf8(script.readAllStandardOutput()) : QString();
    };
    QVERIFY(shownOnTerminal("", "xterm").contains("\033[32mmounted\033[0m"));
    for (const QString& shown : {shownOnTerminal("1", "xterm"), shownOnTerminal("", "dumb")}) {
        QVERIFY2(shown.contains(" mounted") && !shown.contains('\033'), qPrintable(shown));
    }
    environment.insert("TERM", "xterm");
    ProgramRun run(arguments, environment);
    QCOMPARE(run.status(), 0);
    QVERIFY2(!run.output().contains('\033'), qPrintable(run.output()));
}

QTEST_GUILESS_MAIN(StatusCommandTest)
#include "StatusCommandTest.moc"
