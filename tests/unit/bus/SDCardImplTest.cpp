#include <memory>
#include <vector>

#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingReply>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>

#include "BusNames.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "SDCardImpl.h"
#include "SdcardInterface.h"
#include "TestBus.h"
#include "TestDevice.h"

namespace {

/// A controller that knows the directory "logs", which is watched, and "csv", which is not.
class Controller : public QObject, public SdcardInterface
{
public:
    qint64 getDirSize(const QString& id) override
    {
        calls.append("getDirSize " + id);
        return id.isEmpty() ? 7 : qint64{5} << 32;
    }
    qint64 getDirUsed(const QString& id) override
    {
        calls.append("getDirUsed " + id);
        return id.isEmpty() ? 8 : qint64{6} << 32;
    }
    QString getDirPath(const QString& id) override
    {
        calls.append("getDirPath " + id);
        return id == "logs" || id == "csv" ? "/data/" + id : QString();
    }
    bool ensureDirSize(const QString& id) override
    {
        calls.append("ensureDirSize " + id);
        return id.isEmpty() || id == "logs";
    }
    void checkMemState() override
    {
        calls.append("checkMemState");
        if (service != nullptr) {
            service->setMemState(memState);
            service->setMemLevel(memLevel);
        }
    }

    QStringList calls;
    SDCardImpl* service = nullptr;
    int memState = 3;
    int memLevel = 40;
};

QString replied(const char* method, const QString& message)
{
    return QString("ERROR SDCardImpl SDCardImpl: ") + method + "(): reply '" + message + "'";
}

QString noDirectory(const QString& id)
{
    return "'id'-argument '" + id + "' does not specify a directory name";
}

QString notWatched(const QString& id)
{
    return "'id'-argument '" + id + "' does not specify a capacity watched directory";
}

} // namespace

class SDCardImplTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void properties_begin_with_nothing_and_show_what_was_set();
    void memory_signals_tell_differences_only();
    void other_properties_change_in_silence();
    void a_path_begins_with_the_mount_point();
    void an_unknown_directory_is_answered_with_an_error_data();
    void an_unknown_directory_is_answered_with_an_error();
    void an_empty_identifier_asks_for_the_whole_data();
    void an_empty_identifier_asks_for_the_whole();
    void sizes_of_a_directory_are_passed_on();
    void a_watched_directory_is_brought_within_its_share();
    void the_memory_state_is_refreshed_before_it_is_told();
    void insertion_and_removal_are_announced();
    void without_a_controller_the_answers_are_empty_data();
    void without_a_controller_the_answers_are_empty();
    void failures_count_where_their_level_is_off();
    void errors_reach_the_caller_on_the_bus_data();
    void errors_reach_the_caller_on_the_bus();
    void signals_reach_the_bus();
};

void SDCardImplTest::properties_begin_with_nothing_and_show_what_was_set()
{
    SDCardImpl service("/media/sdcard", nullptr);
    const auto properties = [&service] {
        QStringList values;
        for (const char* const name :
             {"IsMounted", "MemLevel", "MemState", "MountPoint", "State", "Transition"}) {
            values.append(service.property(name).toString());
        }
        return values;
    };
    QCOMPARE(properties(), (QStringList{"false", "0", "0", "/media/sdcard", "0", "0"}));
    service.setIsMounted(true);
    service.setMemLevel(1);
    service.setMemState(2);
    service.setMountPoint("/mnt");
    service.setState(4);
    service.setTransition(5);
    QCOMPARE(properties(), (QStringList{"true", "1", "2", "/mnt", "4", "5"}));
}

void SDCardImplTest::memory_signals_tell_differences_only()
{
    SDCardImpl service("/media/sdcard", nullptr);
    const QSignalSpy levels(&service, &SDCardImpl::MemLevelChanged);
    const QSignalSpy states(&service, &SDCardImpl::MemStateChanged);
    for (const int value : {0, 5, 5, 0, 0, -1}) {
        service.setMemLevel(value);
        service.setMemState(value + 10);
    }
    QCOMPARE(levels, (QList<QVariantList>{{5}, {0}, {-1}}));
    QCOMPARE(states, (QList<QVariantList>{{10}, {15}, {10}, {9}}));
}

void SDCardImplTest::other_properties_change_in_silence()
{
    SDCardImpl service("/media/sdcard", nullptr);
    int emitted = 0;
    const QMetaObject* const meta = service.metaObject();
    std::vector<std::unique_ptr<QSignalSpy>> spies;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        if (meta->method(i).methodType() == QMetaMethod::Signal) {
            spies.push_back(std::make_unique<QSignalSpy>(&service, meta->method(i)));
        }
    }
    QCOMPARE(spies.size(), std::size_t{9});
    service.setIsMounted(true);
    service.setMountPoint("/mnt");
    service.setState(4);
    service.setTransition(5);
    for (const auto& spy : spies) {
        emitted += spy->size();
    }
    QCOMPARE(emitted, 0);
}

void SDCardImplTest::a_path_begins_with_the_mount_point()
{
    Controller controller;
    SDCardImpl service("/media/sdcard/", &controller);
    const LogCapture log;
    // Put together as they are.
    QCOMPARE(service.GetDirPath("logs"), QString("/media/sdcard//data/logs"));
    QCOMPARE(log.messages(), QStringList());
}

void SDCardImplTest::an_unknown_directory_is_answered_with_an_error_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("unknown") << "photos";
    QTest::newRow("other case") << "Logs";
    QTest::newRow("quote") << "it's";
}

void SDCardImplTest::an_unknown_directory_is_answered_with_an_error()
{
    QFETCH(const QString, id);
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    const LogCapture log;
    QCOMPARE(service.GetDirPath(id), QString());
    QCOMPARE(service.GetDirSize(id), qint64{0});
    QCOMPARE(service.getDirUsed(id), qint64{0});
    const QString record = replied("GetDirPath", noDirectory(id));
    QCOMPARE(describe(log.records()), (QStringList{record, record, record}));
    QCOMPARE(log.records().at(0).function,
             QString("QString SDCardImpl::GetDirPath(const QString&)"));
    QCOMPARE(log.errorCount(), 3U);
    // No further look-up.
    const QString call = "getDirPath " + id;
    QCOMPARE(controller.calls, (QStringList{call, call, call}));
}

void SDCardImplTest::an_empty_identifier_asks_for_the_whole_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("empty") << "";
    QTest::newRow("null") << QString();
}

void SDCardImplTest::an_empty_identifier_asks_for_the_whole()
{
    QFETCH(const QString, id);
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    const LogCapture log;
    QCOMPARE(service.GetDirSize(id), qint64{7});
    QCOMPARE(service.getDirUsed(id), qint64{8});
    QCOMPARE(controller.calls, (QStringList{"getDirSize ", "getDirUsed "}));
    QCOMPARE(log.messages(), QStringList());
    // But there is no path of it.
    QCOMPARE(service.GetDirPath(id), QString());
    QCOMPARE(describe(log.records()), QStringList{replied("GetDirPath", noDirectory(""))});
}

void SDCardImplTest::sizes_of_a_directory_are_passed_on()
{
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    const LogCapture log;
    QCOMPARE(service.GetDirSize("csv"), qint64{5} << 32);
    QCOMPARE(service.getDirUsed("csv"), qint64{6} << 32);
    QCOMPARE(controller.calls,
             (QStringList{"getDirPath csv", "getDirSize csv", "getDirPath csv", "getDirUsed csv"}));
    QCOMPARE(log.messages(), QStringList());
}

void SDCardImplTest::a_watched_directory_is_brought_within_its_share()
{
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    const LogCapture log;
    service.EnsureDirSize("logs");
    service.EnsureDirSize("");
    QCOMPARE(log.messages(), QStringList());
    service.EnsureDirSize("csv");
    QCOMPARE(controller.calls,
             (QStringList{"ensureDirSize logs", "ensureDirSize ", "ensureDirSize csv"}));
    QCOMPARE(describe(log.records()), QStringList{replied("EnsureDirSize", notWatched("csv"))});
    QCOMPARE(log.records().at(0).function,
             QString("void SDCardImpl::EnsureDirSize(const QString&)"));
    QCOMPARE(log.errorCount(), 1U);
}

void SDCardImplTest::the_memory_state_is_refreshed_before_it_is_told()
{
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    controller.service = &service;
    const QSignalSpy states(&service, &SDCardImpl::MemStateChanged);
    const QSignalSpy levels(&service, &SDCardImpl::MemLevelChanged);
    QCOMPARE(service.RefreshMemState(), 3);
    QCOMPARE(service.RefreshMemState(), 3);
    QCOMPARE(states, (QList<QVariantList>{{3}}));
    QCOMPARE(levels, (QList<QVariantList>{{40}}));
}

void SDCardImplTest::insertion_and_removal_are_announced()
{
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    const QSignalSpy inserted(&service, &SDCardImpl::CardInserted);
    const QSignalSpy removed(&service, &SDCardImpl::CardRemoved);
    service.InsertCard();
    QCOMPARE(inserted.size(), 1);
    QCOMPARE(removed.size(), 0);
    service.RemoveCard();
    QCOMPARE(inserted.size(), 1);
    QCOMPARE(removed.size(), 1);
}

void SDCardImplTest::without_a_controller_the_answers_are_empty_data()
{
    QTest::addColumn<bool>("hasParent");
    QTest::newRow("no parent") << false;
    QTest::newRow("a parent that is none") << true;
}

void SDCardImplTest::without_a_controller_the_answers_are_empty()
{
    QFETCH(const bool, hasParent);
    QObject parent;
    SDCardImpl service("/media/sdcard", hasParent ? &parent : nullptr);
    service.setMemState(2);
    const QSignalSpy inserted(&service, &SDCardImpl::CardInserted);
    const QSignalSpy removed(&service, &SDCardImpl::CardRemoved);
    const LogCapture log;
    QCOMPARE(service.GetDirPath("logs"), QString());
    QCOMPARE(service.GetDirSize("logs"), qint64{0});
    QCOMPARE(service.GetDirSize(""), qint64{0});
    QCOMPARE(service.getDirUsed("logs"), qint64{0});
    QCOMPARE(service.getDirUsed(""), qint64{0});
    QCOMPARE(service.RefreshMemState(), 2);
    service.InsertCard();
    service.RemoveCard();
    QCOMPARE(inserted.size() + removed.size(), 0);
    service.EnsureDirSize("csv");
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(log.errorCount(), 0U);
}

void SDCardImplTest::failures_count_where_their_level_is_off()
{
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    const LogCapture log(LogLevel::Off);
    service.GetDirPath("photos");
    QCOMPARE(log.errorCount(), 1U);
    service.EnsureDirSize("photos");
    QCOMPARE(log.errorCount(), 2U);
    QCOMPARE(log.messages(), QStringList());
}

void SDCardImplTest::errors_reach_the_caller_on_the_bus_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("message");
    QTest::newRow("path") << "GetDirPath" << noDirectory("photos");
    QTest::newRow("size") << "GetDirSize" << noDirectory("photos");
    QTest::newRow("use") << "getDirUsed" << noDirectory("photos");
    QTest::newRow("share") << "EnsureDirSize" << notWatched("photos");
}

void SDCardImplTest::errors_reach_the_caller_on_the_bus()
{
    QFETCH(const QString, method);
    QFETCH(const QString, message);
    const TestBus bus;
    QDBusConnection served = bus.connection("served " + method);
    Controller controller;
    SDCardImpl service("/media/sdcard", &controller);
    QVERIFY(
        served.registerObject(BusNames::kCardObject, &service, QDBusConnection::ExportAdaptors));
    const QDBusConnection client = bus.connection("client " + method);
    QDBusMessage call = QDBusMessage::createMethodCall(served.baseService(), BusNames::kCardObject,
                                                       "tavo.SDCard1", method);
    call.setArguments({"photos"});
    const LogCapture log;
    QDBusPendingCall pending = client.asyncCall(call);
    QTRY_VERIFY_WITH_TIMEOUT(pending.isFinished(), 30000);
    QVERIFY(pending.isError());
    QCOMPARE(pending.error().name(), QString("org.freedesktop.DBus.Error.InvalidArgs"));
    QCOMPARE(pending.error().message(), message);
    QCOMPARE(log.errorCount(), 1U);
    served.unregisterObject(BusNames::kCardObject);
    QDBusConnection::disconnectFromBus("client " + method);
    QDBusConnection::disconnectFromBus("served " + method);
}

void SDCardImplTest::signals_reach_the_bus()
{
    const TestBus bus;
    QDBusConnection served = bus.connection("served signals");
    SDCardImpl service("/media/sdcard", nullptr);
    QVERIFY(
        served.registerObject(BusNames::kCardObject, &service, QDBusConnection::ExportAdaptors));
    // Another object of this process may listen as well as another process.
    QDBusConnection client = bus.connection("client signals");
    SDCardImpl listener("", nullptr);
    const QSignalSpy states(&listener, &SDCardImpl::MemStateChanged);
    const QSignalSpy mounts(&listener, &SDCardImpl::CardMounted);
    QVERIFY(client.connect(served.baseService(), BusNames::kCardObject, "tavo.SDCard1",
                           "MemStateChanged", &listener, SIGNAL(MemStateChanged(int))));
    QVERIFY(client.connect(served.baseService(), BusNames::kCardObject, "tavo.SDCard1",
                           "CardMounted", &listener, SIGNAL(CardMounted())));
    service.setMemState(4);
    Q_EMIT service.CardMounted();
    QTRY_COMPARE_WITH_TIMEOUT(mounts.size(), 1, 30000);
    QCOMPARE(states, (QList<QVariantList>{{4}}));
    QDBusConnection::disconnectFromBus("client signals");
    QDBusConnection::disconnectFromBus("served signals");
}

TEST_DEVICE_MAIN(SDCardImplTest)
#include "SDCardImplTest.moc"
