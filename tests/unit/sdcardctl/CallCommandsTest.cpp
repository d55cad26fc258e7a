#include <QTest>

#include <atomic>

#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QJsonArray>
#include <QJsonObject>

#include "BusNames.h"
#include "ExitStatus.h"
#include "FakeService.h"
#include "JsonText.h"
#include "PrivateBus.h"
#include "ProgramRun.h"
#include "SampleCard.h"

using sdcardctl::ExitStatus;

class CallCommandsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void list_prints_the_identifiers_that_the_service_knows();
    void list_of_watched_directories_leaves_the_others_out();
    void path_size_and_used_print_the_answer_alone();
    void an_answer_of_0_without_a_card_is_explained();
    void an_unknown_directory_has_its_own_status();
    void ensure_without_an_identifier_means_all();
    void refresh_prints_the_new_memory_state();
    void a_service_that_does_not_run_has_its_own_status();
    void a_bus_that_cannot_be_reached_has_its_own_status();
    void the_bus_is_the_system_bus_by_default();
    void a_service_that_ends_during_a_call_differs_from_a_slow_one();
    void another_failure_is_reported_in_the_services_words();
    void output_that_cannot_be_written_has_its_own_status();

private:
    PrivateBus mBus;
};

namespace {

const SampleCard card;

// Takes calls and never answers them.
class SilentObject : public QDBusVirtualObject
{
public:
    QString introspect(const QString& /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& /*bus*/) override
    {
        message.setDelayedReply(true);
        wasCalled = true;
        return true;
    }

    std::atomic<bool> wasCalled = false;
};

} // namespace

void CallCommandsTest::list_prints_the_identifiers_that_the_service_knows()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    service.directories.remove("archive");
    ProgramRun run({"list", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(), QString("logger\ncsv\n"));
    ProgramRun forPrograms(
        {"list", "--json", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(forPrograms.status(), 0);
    QCOMPARE(jsonOf(forPrograms.output()), (QJsonObject{{"ids", QJsonArray{"logger", "csv"}}}));
}

void CallCommandsTest::list_of_watched_directories_leaves_the_others_out()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    ProgramRun run({"list", "--watched", "--bus", mBus.address(), "--config", card.configFile()});
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(), QString("logger\n"));
}

void CallCommandsTest::path_size_and_used_print_the_answer_alone()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    service.directories["logger"].size = 5'000'000'000;
    const auto printed = [this](const QStringList& arguments) {
        ProgramRun run(arguments + QStringList{"--bus", mBus.address()});
        return run.status() == 0 ? run.output() : "failed: " + run.notes();
    };
    QCOMPARE(printed({"path", "logger"}), QString("/media/sdcard/logger\n"));
    QCOMPARE(printed({"size", "logger"}), QString("5000000000\n"));
    QCOMPARE(printed({"used", "archive"}), QString("11534336\n"));
    QCOMPARE(jsonOf(printed({"path", "csv", "--json"})),
             (QJsonObject{{"id", "csv"}, {"path", "/media/sdcard/csv"}}));
    QCOMPARE(jsonOf(printed({"size", "logger", "--json"})),
             (QJsonObject{{"id", "logger"}, {"size", qint64{5'000'000'000}}}));
    QCOMPARE(jsonOf(printed({"used", "archive", "--json"})),
             (QJsonObject{{"id", "archive"}, {"used", 11534336}}));
}

void CallCommandsTest::an_answer_of_0_without_a_card_is_explained()
{
    FakeService service(mBus);
    service.directories = {{"csv", {"/csv", 0, 0}}};
    ProgramRun run({"used", "csv", "--bus", mBus.address()});
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(), QString("0\n"));
    QCOMPARE(run.notes(), QString("sdcardctl: No card is mounted, so the answer is 0.\n"));

    service.card.setIsMounted(true);
    ProgramRun mounted({"used", "csv", "--bus", mBus.address()});
    QCOMPARE(mounted.status(), 0);
    QCOMPARE(mounted.notes(), QString());
}

void CallCommandsTest::an_unknown_directory_has_its_own_status()
{
    const FakeService service(mBus);
    for (const char* const command : {"path", "size", "used", "ensure"}) {
        ProgramRun run({command, "nowhere", "--bus", mBus.address()});
        QCOMPARE(run.status(), ProgramRun::number(ExitStatus::UnknownDirectory));
        QCOMPARE(run.output(), QString());
        QVERIFY2(run.notes().contains("'nowhere'"), qPrintable(run.notes()));
        QVERIFY2(run.notes().contains("sdcardctl list"), qPrintable(run.notes()));
    }
}

void CallCommandsTest::ensure_without_an_identifier_means_all()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    ProgramRun one({"ensure", "csv", "--bus", mBus.address()});
    QCOMPARE(one.status(), 0);
    ProgramRun all({"ensure", "--bus", mBus.address()});
    QCOMPARE(all.status(), 0);
    QCOMPARE(service.ensured, (QStringList{"csv", ""}));
    QCOMPARE(one.output() + all.output(), QString());
}

void CallCommandsTest::refresh_prints_the_new_memory_state()
{
    FakeService service(mBus);
    service.refreshedMemState = static_cast<int>(MemState::MoreThan80);
    ProgramRun run({"refresh", "--bus", mBus.address()});
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(), QString("more-than-80-percent\n"));
    ProgramRun forPrograms({"refresh", "--json", "--bus", mBus.address()});
    QCOMPARE(forPrograms.status(), 0);
    QCOMPARE(jsonOf(forPrograms.output()),
             (QJsonObject{{"memState", 7}, {"memStateName", "more-than-80-percent"}}));
}

void CallCommandsTest::a_service_that_does_not_run_has_its_own_status()
{
    const QVector<QStringList> calls{{"status"},      {"list", "--config", card.configFile()},
                                     {"path", "csv"}, {"size", "csv"},
                                     {"used", "csv"}, {"ensure"},
                                     {"refresh"},     {"insert"},
                                     {"remove"}};
    for (const QStringList& call : calls) {
        ProgramRun run(call + QStringList{"--bus", mBus.address()});
        QCOMPARE(run.status(), ProgramRun::number(ExitStatus::NotRunning));
        QVERIFY2(run.notes().contains("Start sdcardd"), qPrintable(run.notes()));
        QCOMPARE(run.output(), QString());
    }
}

void CallCommandsTest::a_bus_that_cannot_be_reached_has_its_own_status()
{
    ProgramRun run({"status", "--bus", "unix:path=/nonexistent"});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::NoBus));
    QVERIFY2(run.notes().contains("--bus"), qPrintable(run.notes()));
}

void CallCommandsTest::the_bus_is_the_system_bus_by_default()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SYSTEM_BUS_ADDRESS", mBus.address());
    ProgramRun run({"path", "csv"}, environment);
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(), QString("/media/sdcard/csv\n"));
}

void CallCommandsTest::a_service_that_ends_during_a_call_differs_from_a_slow_one()
{
    const QString name = QStringLiteral("ending service");
    QDBusConnection service = QDBusConnection::connectToBus(mBus.address(), name);
    QVERIFY(service.registerService(BusNames::kService));
    SilentObject object;
    QVERIFY(service.registerVirtualObject(BusNames::kCardObject, &object));
    ProgramRun run({"path", "csv", "--bus", mBus.address()});
    QTRY_VERIFY(object.wasCalled);
    service.unregisterService(BusNames::kService);
    QDBusConnection::disconnectFromBus(name);
    service = QDBusConnection(QString());
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::NotRunning));
}

void CallCommandsTest::another_failure_is_reported_in_the_services_words()
{
    const QString name = QStringLiteral("service without an object");
    QDBusConnection service = QDBusConnection::connectToBus(mBus.address(), name);
    QVERIFY(service.registerService(BusNames::kService));
    ProgramRun run({"path", "csv", "--bus", mBus.address()});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::Failure));
    QVERIFY2(run.notes().startsWith("sdcardctl: The service answered: No such object path"),
             qPrintable(run.notes()));
    service.unregisterService(BusNames::kService);
    QDBusConnection::disconnectFromBus(name);
}

void CallCommandsTest::output_that_cannot_be_written_has_its_own_status()
{
    const QVector<QStringList> calls{{"refresh", "--bus", mBus.address()},
                                     {"monitor", "--bus", mBus.address()},
                                     {"help", "wait"},
                                     {"--version"},
                                     {"__complete", ""}};
    const FakeService service(mBus);
    for (const QStringList& call : calls) {
        ProgramRun run(call, "/dev/full");
        QCOMPARE(run.status(), ProgramRun::number(ExitStatus::OutputFailed));
        QCOMPARE(run.notes(),
                 QString("sdcardctl: The output cannot be written: No space left on device.\n"));
    }
}

QTEST_GUILESS_MAIN(CallCommandsTest)
#include "CallCommandsTest.moc"
