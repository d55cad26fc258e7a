#include <QTest>

#include <unistd.h>

#include "ControllerDevice.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "TestProcess.h"

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QString kWarn = QStringLiteral("WARN sdcard sdcard: ");
const QString kError = QStringLiteral("ERROR sdcard sdcard: ");
const QString kSearch = QStringLiteral("lsof -t -Q /media/sdcard");
const QString kUmount = QStringLiteral("umount2 /media/sdcard 0");

// Null if no process of the list is alive.
TestProcess* holder = nullptr;
QVector<unsigned long> waits;

QStringList withId(QStringList texts, const QString& id)
{
    return texts.replaceInStrings("<holder>", id);
}

} // namespace

// The linker's option --wrap leads the controller's calls here; it prescribes the name.
void waitFor(unsigned long microseconds) asm("__wrap__ZN7QThread6usleepEm");

void waitFor(unsigned long microseconds)
{
    waits.append(microseconds);
    if (holder != nullptr) {
        holder->waitForFinished();
    }
}

class SdcardForcedUnmountTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        holder = nullptr;
        waits.clear();
        SystemCalls::reset();
    }

    void processes_are_ended_before_the_card_is_unmounted_data()
    {
        QTest::addColumn<bool>("isRebooting");
        QTest::addColumn<QString>("lsof");
        QTest::addColumn<int>("waitCount");
        QTest::addColumn<QStringList>("toolCalls");
        QTest::addColumn<QStringList>("systemCalls");
        QTest::addColumn<QStringList>("records");
        const QString header = kInfo + "Processes with open files on /media/sdcard:";
        const QString hard = kWarn + "System is rebooting -> shutdown processes (!)";
        const QString alive = "[ $1 = -F ] || ! kill -0 <holder> || echo <holder>";
        // Larger than any id that the kernel gives.
        const QString gone = "[ $1 = -F ] || { echo 4194305; echo 4194306; }";
        const QString failed = kError + "Invoke of 'lsof' utility failed with exit code 2";
        const QString failedKill = kError + "Kill softly failed: No such process";
        const QString failedHardKill = kError + "Kill hardly failed: No such process";
        const QString self = QString::number(::getpid());
        QStringList thirtySearches;
        for (int search = 0; search < 30; ++search) {
            thirtySearches.append(kSearch);
        }

        QTest::newRow("softly, a process that ends")
            << false << alive << 1 << QStringList{kSearch, "lsof -F -p <holder>", kSearch}
            << QStringList{"kill <holder> 15", kUmount}
            << QStringList{header, kInfo + "<holder>: 'sleep'",
                           kInfo + "Number of processes with open files: 1",
                           kWarn + "Shutdown softly process <holder> !"};
        QTest::newRow("softly, processes that never let go")
            << false << gone << 30
            << QStringList{kSearch, "lsof -F -p 4194305", "lsof -F -p 4194306"} + thirtySearches
            << QStringList{"kill 4194305 15", "kill 4194306 15", kUmount}
            << QStringList{header,
                           kInfo + "4194305: ''",
                           kInfo + "4194306: ''",
                           kInfo + "Number of processes with open files: 2",
                           kWarn + "Shutdown softly process 4194305 !",
                           failedKill,
                           kWarn + "Shutdown softly process 4194306 !",
                           failedKill};
        QTest::newRow("softly, lsof fails")
            << false << "exit 2" << 1 << QStringList{kSearch, kSearch} << QStringList{kUmount}
            << QStringList{failed, failed};
        QTest::newRow("softly, the service itself")
            << false << "[ $1 = -F ] || echo " + self << 1
            << QStringList{kSearch, "lsof -F -p " + self, kSearch} << QStringList{kUmount}
            << QStringList{header, kInfo + self + ": 'SdcardForcedUnm'",
                           kInfo + "Number of processes with open files: 1"};
        QTest::newRow("hard, a process")
            << true << alive << 0 << QStringList{kSearch} << QStringList{"kill <holder> 9", kUmount}
            << QStringList{hard};
        QTest::newRow("hard, processes that are gone")
            << true << gone << 0 << QStringList{kSearch}
            << QStringList{"kill 4194305 9", "kill 4194306 9", kUmount}
            << QStringList{hard, failedHardKill, failedHardKill};
        QTest::newRow("hard, lsof fails") << true << "exit 2" << 0 << QStringList{kSearch}
                                          << QStringList{kUmount} << QStringList{hard, failed};
        QTest::newRow("hard, the service itself")
            << true << "echo " + self << 0 << QStringList{kSearch} << QStringList{kUmount}
            << QStringList{hard};
    }

    void processes_are_ended_before_the_card_is_unmounted()
    {
        QFETCH(const bool, isRebooting);
        QFETCH(QString, lsof);
        QFETCH(const int, waitCount);
        QFETCH(const QStringList, toolCalls);
        QFETCH(const QStringList, systemCalls);
        QFETCH(const QStringList, records);
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        QVERIFY(ControllerDevice::mountCard());
        ToolStandIn::place(ToolStandIn::kRunlevel, isRebooting ? "echo 5 6" : "echo N 5");
        TestProcess process;
        process.start("sleep", {"1000"});
        QVERIFY(process.waitForStarted());
        const QString id = QString::number(process.processId());
        holder = lsof.contains("<holder>") ? &process : nullptr;
        ToolStandIn::place(ToolStandIn::kLsof, lsof.replace("<holder>", id).toUtf8());
        ToolStandIn::takeCalls();
        SystemCalls::reset();
        device.effects().take();

        controller.forced_unmounting();
        QCOMPARE(waits, QVector<unsigned long>(waitCount, 100000));
        QCOMPARE(ToolStandIn::takeCalls(), withId(QStringList{"runlevel"} + toolCalls, id));
        QCOMPARE(SystemCalls::takeCalls(), withId(systemCalls, id));
        QCOMPARE(device.effects().errorCount(),
                 static_cast<unsigned int>(records.filter("ERROR").size()));
        QCOMPARE(device.effects().takeParts().logRecords,
                 withId(records, id) + QStringList{kInfo + "SD Card is successfully unmounted"});
        process.kill();
        process.waitForFinished();
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardForcedUnmountTest)
#include "SdcardForcedUnmountTest.moc"
