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
    QStringList onBus(const QStringList& call) const
    {
        return QStringList{"--bus", mBus.address()} + call;
    }

    PrivateBus mBus;
};

namespace {

const SampleCard card;

// Accepts calls and never replies.
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
    const QStringList list = onBus({"list", "--config", card.configFile()});
    QCOMPARE(ProgramRun::answer(list + QStringList{"--watched"}), QString("logger\n"));
    service.directories.remove("archive");
    QCOMPARE(ProgramRun::answer(list), QString("logger\ncsv\n"));
    QCOMPARE(jsonOf(ProgramRun::answer(list + QStringList{"--json"})),
             (QJsonObject{{"ids", QJsonArray{"logger", "csv"}}}));
}

void CallCommandsTest::path_size_and_used_print_the_answer_alone()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    service.directories["logger"].size = 5'000'000'000;
    const auto printed = [this](const QStringList& call) {
        return ProgramRun::answer(onBus(call));
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
    ProgramRun run(onBus({"used", "csv"}));
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(), QString("0\n"));
    QCOMPARE(run.notes(), QString("sdcardctl: No card is mounted, so the answer is 0.\n"));
    service.card.setIsMounted(true);
    QCOMPARE(ProgramRun::answer(onBus({"used", "csv"})), QString("0\n"));
}

void CallCommandsTest::an_unknown_directory_has_its_own_status()
{
    const FakeService service(mBus);
    for (const char* const command : {"path", "size", "used", "ensure"}) {
        const QString note =
            ProgramRun::refusal(ExitStatus::UnknownDirectory, onBus({command, "nowhere"}));
        QVERIFY2(note.startsWith("sdcardctl: ") && note.contains("'nowhere'") &&
                     note.contains("\"sdcardctl list\""),
                 qPrintable(note));
    }
}

void CallCommandsTest::ensure_without_an_identifier_means_all()
{
    FakeService service(mBus);
    QCOMPARE(ProgramRun::answer(onBus({"ensure"})), QString());
    QCOMPARE(service.ensured, QStringList{""});
}

void CallCommandsTest::refresh_prints_the_new_memory_state()
{
    FakeService service(mBus);
    service.refreshedMemState = static_cast<int>(MemState::MoreThan80);
    QCOMPARE(ProgramRun::answer(onBus({"refresh"})), QString("more-than-80-percent\n"));
    QCOMPARE(jsonOf(ProgramRun::answer(onBus({"refresh", "--json"}))),
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
        QCOMPARE(ProgramRun::refusal(ExitStatus::NotRunning, onBus(call)),
                 QString("sdcardctl: The service is not running: tavo.SDCard1 has no owner on the "
                         "bus. Start sdcardd, or select another bus with --bus.\n"));
    }
}

void CallCommandsTest::a_bus_that_cannot_be_reached_has_its_own_status()
{
    const QString note =
        ProgramRun::refusal(ExitStatus::NoBus, {"status", "--bus", "unix:path=/nonexistent"});
    QVERIFY2(note.endsWith("Start the bus, or select another one with --bus.\n"), qPrintable(note));
}

void CallCommandsTest::the_bus_is_the_system_bus_by_default()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SYSTEM_BUS_ADDRESS", mBus.address());
    ProgramRun run({"path", "csv"}, QString(), environment);
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
    ProgramRun run(onBus({"path", "csv"}));
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
    const QString note = ProgramRun::refusal(ExitStatus::Failure, onBus({"path", "csv"}));
    QVERIFY2(note.startsWith("sdcardctl: The service answered: No such object path"),
             qPrintable(note));
    service.unregisterService(BusNames::kService);
    QDBusConnection::disconnectFromBus(name);
}

void CallCommandsTest::output_that_cannot_be_written_has_its_own_status()
{
    const FakeService service(mBus);
    const QVector<QStringList> calls{onBus({"refresh"}),
                                     onBus({"monitor"}),
                                     {"help", "wait"},
                                     {"--version"},
                                     {"__complete", ""}};
    for (const QStringList& call : calls) {
        QCOMPARE(ProgramRun::refusal(ExitStatus::OutputFailed, call, "/dev/full"),
                 QString("sdcardctl: The output cannot be written: No space left on device.\n"));
    }
}

QTEST_GUILESS_MAIN(CallCommandsTest)
#include "CallCommandsTest.moc"
