#include <QTest>
#include <QTimer>

#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QString kLsofFailed =
    QStringLiteral("ERROR sdcard sdcard: Invoke of 'lsof' utility failed with exit code 3");
const QString kNothingFound =
    QStringLiteral("ERROR sdcard sdcard: Cannot get number of processes with open files, 'lsof' "
                   "utility failed with exit code 1");
// Two processes with ids larger than any of the kernel, each with one file.
const QByteArray kTwoProcesses(R"(case $1 in
-t) echo 4194305; echo 4194306;;
-F) printf 'p%s\nn/\nn/media/sdcard/a b\n' $3;;
esac)");

} // namespace

class SdcardClosingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void open_files_are_logged_by_level_data()
    {
        QTest::addColumn<QByteArray>("lsof");
        QTest::addColumn<int>("level");
        QTest::addColumn<QVector<int>>("idsBefore");
        QTest::addColumn<int>("result");
        QTest::addColumn<QStringList>("records");
        const QStringList header{kInfo + "Processes with open files on /media/sdcard:"};
        const QStringList first{kInfo + "4194305: ''"};
        const QStringList second{kInfo + "4194306: ''"};
        const QStringList file{kInfo + " - open file: /media/sdcard/a b"};
        const auto number = [](int n) {
            return QStringList{kInfo +
                               "Number of processes with open files: " + QString::number(n)};
        };
        const QStringList none;
        const QVector<int> noIds;
        QTest::newRow("nothing, 0") << QByteArray("exit 0") << 0 << noIds << 0 << none;
        QTest::newRow("nothing, 1") << QByteArray("exit 0") << 1 << noIds << 0 << number(0);
        QTest::newRow("nothing, 2") << QByteArray("exit 0") << 2 << noIds << 0 << number(0);
        QTest::newRow("code 1, 0") << QByteArray("exit 1") << 0 << noIds << 0 << none;
        QTest::newRow("code 1, 1")
            << QByteArray("exit 1") << 1 << noIds << 0 << QStringList{kNothingFound};
        QTest::newRow("code 1, 2")
            << QByteArray("exit 1") << 2 << noIds << 0 << QStringList{kNothingFound};
        QTest::newRow("code 3, 0")
            << QByteArray("exit 3") << 0 << noIds << -1 << QStringList{kLsofFailed};
        QTest::newRow("two, 0") << kTwoProcesses << 0 << noIds << 0 << none;
        QTest::newRow("two, 1") << kTwoProcesses << 1 << noIds << 0
                                << header + first + second + number(2);
        QTest::newRow("two, 2") << kTwoProcesses << 2 << noIds << 0
                                << header + first + file + second + file + number(2);
        QTest::newRow("two after another")
            << kTwoProcesses << 1 << QVector<int>{7} << 0 << first + second + number(3);
    }

    void open_files_are_logged_by_level()
    {
        QFETCH(const QByteArray, lsof);
        QFETCH(const int, level);
        QFETCH(const QVector<int>, idsBefore);
        QFETCH(const QStringList, records);
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        ToolStandIn::place(ToolStandIn::kLsof, lsof);
        QVector<int> ids = idsBefore;
        QTEST(
            controller.checkOpenFiles("/media/sdcard", ids, static_cast<Sdcard::eLogLevel>(level)),
            "result");
        const QVector<int> found{4194305, 4194306};
        QCOMPARE(ids, lsof == kTwoProcesses ? idsBefore + found : idsBefore);
        QCOMPARE(device.effects().errorCount(),
                 static_cast<unsigned int>(records.filter("ERROR").size()));
        QCOMPARE(device.effects().take(), records);
    }

    void the_phase_begins_with_a_look_at_the_open_files_data()
    {
        QTest::addColumn<QByteArray>("lsof");
        QTest::addColumn<bool>("isOver");
        QTest::addColumn<QStringList>("effects");
        QTest::newRow("nothing open")
            << QByteArray("exit 0") << true
            << QStringList{kInfo + "Number of processes with open files: 0", "FILES_CLOSED"};
        QTest::newRow("nothing found")
            << QByteArray("exit 1") << true << QStringList{kNothingFound, "FILES_CLOSED"};
        QTest::newRow("lsof fails") << QByteArray("exit 3") << false << QStringList{kLsofFailed};
        QTest::newRow("a process")
            << QByteArray("echo 4194305") << false
            << QStringList{kInfo + "Processes with open files on /media/sdcard:",
                           kInfo + "4194305: ''", kInfo + "Number of processes with open files: 1"};
    }

    void the_phase_begins_with_a_look_at_the_open_files()
    {
        QFETCH(const QByteArray, lsof);
        QFETCH(const bool, isOver);
        QFETCH(const QStringList, effects);
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        ToolStandIn::place(ToolStandIn::kLsof, lsof);
        controller.closingFiles();
        QCOMPARE(device.effects().take(), LedWrites::kBusy + QStringList{"EjectPressed"} + effects);
        QCOMPARE(device.service().state(), 5);
        const QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
        QCOMPARE(stateTimer.isActive() ? stateTimer.interval() : 0, isOver ? 0 : 40000);
        const QTimer& pollTimer = ControllerDevice::timer(controller, "open-files timer");
        QCOMPARE(pollTimer.isActive() ? pollTimer.interval() : 0, isOver ? 0 : 100);
    }

    void each_poll_looks_again_data()
    {
        QTest::addColumn<QByteArray>("lsof");
        QTest::addColumn<bool>("hasMountPoint");
        QTest::addColumn<QStringList>("effects");
        const QStringList over{"FILES_CLOSED"};
        QTest::newRow("a process") << QByteArray("echo 4194305") << true << QStringList();
        QTest::newRow("lsof fails") << QByteArray("exit 3") << true << QStringList{kLsofFailed};
        QTest::newRow("nothing open") << QByteArray("exit 0") << true << over;
        QTest::newRow("nothing found") << QByteArray("exit 1") << true << over;
        QTest::newRow("no mount point") << QByteArray("echo 4194305") << false << over;
    }

    void each_poll_looks_again()
    {
        QFETCH(const QByteArray, lsof);
        QFETCH(const bool, hasMountPoint);
        QFETCH(const QStringList, effects);
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        if (hasMountPoint) {
            TestDevice::writeFile(ControllerDevice::kMountPoint + "/x", {});
        }
        ToolStandIn::place(ToolStandIn::kLsof, lsof);
        ToolStandIn::takeCalls();
        controller.checkFiles();
        QCOMPARE(ToolStandIn::takeCalls(),
                 hasMountPoint ? QStringList{"lsof -t -Q /media/sdcard"} : QStringList());
        QCOMPARE(device.effects().take(), effects);
        const QTimer& pollTimer = ControllerDevice::timer(controller, "open-files timer");
        QCOMPARE(pollTimer.isActive() ? pollTimer.interval() : 0,
                 effects.contains("FILES_CLOSED") ? 0 : 100);
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardClosingTest)
#include "SdcardClosingTest.moc"
