#include <memory>
#include <vector>

#include <QMetaMethod>
#include <QMetaProperty>
#include <QSignalSpy>
#include <QTest>

#include "LogCapture.h"
#include "MetaMethods.h"
#include "SDCardImpl.h"
#include "SdcardInterface.h"

namespace {

/// Stands in for the controller. It knows two directories: "logs", which is watched, and "csv",
/// which is not.
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
    void checkMemState() override { calls.append("checkMemState"); }

    QStringList calls;
};

/// One spy for each of the object's signals.
std::vector<std::unique_ptr<QSignalSpy>> spiesOf(const SDCardImpl& service)
{
    std::vector<std::unique_ptr<QSignalSpy>> spies;
    const QMetaObject* const meta = service.metaObject();
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        if (meta->method(i).methodType() == QMetaMethod::Signal) {
            spies.push_back(std::make_unique<QSignalSpy>(&service, meta->method(i)));
        }
    }
    return spies;
}

} // namespace

class SDCardImplTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_signals_have_this_order()
    {
        QCOMPARE(methodsOf(SDCardImpl::staticMetaObject, QMetaMethod::Signal),
                 (QStringList{"CardCorrupt()", "CardInserted()", "CardMounted()", "CardUnmounted()",
                              "CardNotMountable()", "CardRemoved()", "EjectPressed()",
                              "MemLevelChanged(int)", "MemStateChanged(int)"}));
    }

    void these_methods_can_be_called_by_name()
    {
        const QMetaObject& type = SDCardImpl::staticMetaObject;
        QStringList methods;
        for (const QString& method : methodsOf(type, QMetaMethod::Method)) {
            const int index = type.indexOfMethod(method.toLatin1());
            methods.append(QString::fromLatin1(type.method(index).typeName()) + " " + method);
        }
        QCOMPARE(methods,
                 (QStringList{"void EnsureDirSize(QString)", "QString GetDirPath(QString)",
                              "qlonglong GetDirSize(QString)", "qlonglong getDirUsed(QString)",
                              "int RefreshMemState()", "void InsertCard()", "void RemoveCard()"}));
        QCOMPARE(methodsOf(type, QMetaMethod::Slot), QStringList());
    }

    void these_properties_can_be_read_by_name()
    {
        const QMetaObject& type = SDCardImpl::staticMetaObject;
        QStringList properties;
        for (int i = type.propertyOffset(); i < type.propertyCount(); ++i) {
            const QMetaProperty property = type.property(i);
            QVERIFY(!property.isWritable());
            const QByteArray notify = property.notifySignal().methodSignature();
            properties.append(
                (QByteArray(property.typeName()) + " " + property.name() + " " + notify).trimmed());
        }
        QCOMPARE(properties, (QStringList{"bool IsMounted", "int MemLevel MemLevelChanged(int)",
                                          "int MemState MemStateChanged(int)", "QString MountPoint",
                                          "int State", "int Transition"}));
    }

    void memory_signals_report_differences_only()
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

    void other_properties_change_without_a_signal()
    {
        SDCardImpl service("/media/sdcard", nullptr);
        const auto spies = spiesOf(service);
        service.setIsMounted(true);
        service.setMountPoint("/mnt");
        service.setState(4);
        service.setTransition(5);
        QVERIFY(service.property("IsMounted").toBool());
        QCOMPARE(service.property("MountPoint").toString(), QString("/mnt"));
        QCOMPARE(service.property("State").toInt(), 4);
        QCOMPARE(service.property("Transition").toInt(), 5);
        for (const auto& spy : spies) {
            QCOMPARE(spy->size(), 0);
        }
    }

    void queries_reach_the_controller_in_this_order_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>("used");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QStringList>("errors");
        const auto path = [](const QString& id) {
            return "getDirPath " + id;
        };
        const auto unknown = [](const QString& id) {
            return "GetDirPath(): reply ''id'-argument '" + id +
                   "' does not specify a directory name'";
        };
        QTest::newRow("known") << "csv" << (qint64{5} << 32) << (qint64{6} << 32)
                               << "/media/sdcard//data/csv"
                               << QStringList{path("csv"), "getDirSize csv", path("csv"),
                                              "getDirUsed csv", path("csv")}
                               << QStringList();
        // The controller is not called.
        QTest::newRow("unknown") << "it's" << qint64{0} << qint64{0} << QString()
                                 << QStringList{path("it's"), path("it's"), path("it's")}
                                 << QStringList{unknown("it's"), unknown("it's"), unknown("it's")};
        QTest::newRow("empty") << "" << qint64{7} << qint64{8} << QString()
                               << QStringList{"getDirSize ", "getDirUsed ", path("")}
                               << QStringList{unknown("")};
    }

    void queries_reach_the_controller_in_this_order()
    {
        QFETCH(const QString, id);
        QFETCH(const QStringList, errors);
        Controller controller;
        SDCardImpl service("/media/sdcard/", &controller);
        for (const LogLevel level : {LogLevel::Debug, LogLevel::Off}) {
            controller.calls.clear();
            const LogCapture log(level);
            QTEST(service.GetDirSize(id), "size");
            QTEST(service.getDirUsed(id), "used");
            // Mount point and path are joined unchanged.
            QTEST(service.GetDirPath(id), "path");
            QTEST(controller.calls, "calls");
            QCOMPARE(log.messages(LogLevel::Error),
                     level == LogLevel::Off ? QStringList() : errors);
            QCOMPARE(log.errorCount(), static_cast<unsigned int>(errors.size()));
        }
    }

    void a_watched_directory_is_brought_within_its_share()
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
        QCOMPARE(describe(log.records()),
                 QStringList{"ERROR SDCardImpl SDCardImpl: EnsureDirSize(): reply ''id'-argument "
                             "'csv' does not specify a capacity watched directory'"});
        QCOMPARE(log.records().at(0).function,
                 QString("void SDCardImpl::EnsureDirSize(const QString&)"));
        QCOMPARE(log.errorCount(), 1U);
    }

    void without_a_controller_the_replies_are_empty_data()
    {
        QTest::addColumn<bool>("hasParent");
        QTest::newRow("no parent") << false;
        QTest::newRow("a parent that is none") << true;
    }

    void without_a_controller_the_replies_are_empty()
    {
        QFETCH(const bool, hasParent);
        QObject parent;
        SDCardImpl service("/media/sdcard", hasParent ? &parent : nullptr);
        service.setMemState(2);
        const auto spies = spiesOf(service);
        const LogCapture log;
        for (const char* const id : {"", "logs"}) {
            QCOMPARE(service.GetDirPath(id), QString());
            QCOMPARE(service.GetDirSize(id), qint64{0});
            QCOMPARE(service.getDirUsed(id), qint64{0});
            service.EnsureDirSize(id);
        }
        QCOMPARE(service.RefreshMemState(), 2);
        service.InsertCard();
        service.RemoveCard();
        for (const auto& spy : spies) {
            QCOMPARE(spy->size(), 0);
        }
        QCOMPARE(log.messages(), QStringList());
        QCOMPARE(log.errorCount(), 0U);
    }
};

QTEST_GUILESS_MAIN(SDCardImplTest)
#include "SDCardImplTest.moc"
