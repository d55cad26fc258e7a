#include <QFile>
#include <QTest>
#include <QTimer>

#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "SystemCalls.h"
#include "TestDevice.h"

class SdcardClosingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { SystemCalls::reset(); }

    void nothing_open_closes_the_files_at_once();
    void open_files_are_polled();
    void a_failing_lsof_counts_as_open_files();
    void an_lsof_that_finds_nothing_closes_the_files_with_an_error();
    void a_poll_with_open_files_is_followed_by_another();
    void a_poll_without_open_files_closes_them();
    void a_poll_without_a_mount_point_does_not_ask_lsof();
    void leaving_the_phase_stops_the_polls();
    void files_that_are_closed_after_a_while_let_the_card_go();

    void unmounting_what_is_not_mounted_succeeds_without_a_trace();
    void unmounting_works_in_this_order_data();
    void unmounting_works_in_this_order();
    void a_failed_unmount_is_told();

private:
    TestBus mBus;
};

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QString kError = QStringLiteral("ERROR sdcard sdcard: ");
// Larger than any id that the kernel gives.
const QString kNoProcess = QStringLiteral("4194305");

QStringList unmountedEffects()
{
    return QStringList{"CardUnmounted"} + LedWrites::kUnmounted +
           QStringList{kInfo + "SD Card is successfully unmounted"};
}

} // namespace

void SdcardClosingTest::nothing_open_closes_the_files_at_once()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    controller.closingFiles();
    QCOMPARE(device.effects().take(),
             (LedWrites::kBusy + QStringList{"EjectPressed",
                                             kInfo + "Number of processes with open files: 0",
                                             "FILES_CLOSED"}));
    QCOMPARE(device.service().state(), 5);
    QCOMPARE(device.service().transition(), 8);
    QVERIFY(!ControllerDevice::timer(controller, "state timer").isActive());
    QVERIFY(!ControllerDevice::timer(controller, "open-files timer").isActive());
}

void SdcardClosingTest::open_files_are_polled()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + kNoProcess.toLatin1());
    controller.closingFiles();
    QCOMPARE(device.effects().take(),
             (LedWrites::kBusy + QStringList{"EjectPressed",
                                             kInfo + "Processes with open files on /media/sdcard:",
                                             kInfo + kNoProcess + ": ''",
                                             kInfo + "Number of processes with open files: 1"}));
    const QTimer& stateTimer = ControllerDevice::timer(controller, "state timer");
    const QTimer& pollTimer = ControllerDevice::timer(controller, "open-files timer");
    QVERIFY(stateTimer.isActive());
    QCOMPARE(stateTimer.interval(), 40000);
    QVERIFY(pollTimer.isActive());
    QCOMPARE(pollTimer.interval(), 100);
}

void SdcardClosingTest::a_failing_lsof_counts_as_open_files()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    ToolStandIn::place(ToolStandIn::kLsof, "exit 3");
    controller.closingFiles();
    QVERIFY(ControllerDevice::timer(controller, "state timer").isActive());
    QTimer& pollTimer = ControllerDevice::timer(controller, "open-files timer");
    QVERIFY(pollTimer.isActive());
    pollTimer.stop();
    TestDevice::writeFile(ControllerDevice::kMountPoint + "/x", {});
    controller.checkFiles();
    QVERIFY(pollTimer.isActive());
    QVERIFY(!device.effects().take().contains("FILES_CLOSED"));
}

void SdcardClosingTest::an_lsof_that_finds_nothing_closes_the_files_with_an_error()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, "exit 1");
    controller.closingFiles();
    QCOMPARE(device.effects().errorCount(), 1U);
    QCOMPARE(device.effects().take().last(), QString("FILES_CLOSED"));
}

void SdcardClosingTest::a_poll_with_open_files_is_followed_by_another()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    TestDevice::writeFile(ControllerDevice::kMountPoint + "/x", {});
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + kNoProcess.toLatin1());
    ToolStandIn::takeCalls();
    controller.checkFiles();
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"lsof -t -Q /media/sdcard"});
    QCOMPARE(device.effects().take(), QStringList());
    QVERIFY(ControllerDevice::timer(controller, "open-files timer").isActive());
    QCOMPARE(ControllerDevice::timer(controller, "open-files timer").interval(), 100);
}

void SdcardClosingTest::a_poll_without_open_files_closes_them()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    TestDevice::writeFile(ControllerDevice::kMountPoint + "/x", {});
    controller.checkFiles();
    QCOMPARE(device.effects().take(), QStringList{"FILES_CLOSED"});
    QVERIFY(!ControllerDevice::timer(controller, "open-files timer").isActive());
}

void SdcardClosingTest::a_poll_without_a_mount_point_does_not_ask_lsof()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::takeCalls();
    controller.checkFiles();
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QCOMPARE(device.effects().take(), QStringList{"FILES_CLOSED"});
    QVERIFY(!ControllerDevice::timer(controller, "open-files timer").isActive());
}

void SdcardClosingTest::leaving_the_phase_stops_the_polls()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("closingFiles");
    QVERIFY(ControllerDevice::timer(controller, "open-files timer").isActive());
    ControllerDevice::expire(ControllerDevice::timer(controller, "state timer"));
    QCOMPARE(device.machineState(), QString("mounted"));
    QVERIFY(!ControllerDevice::timer(controller, "open-files timer").isActive());
}

void SdcardClosingTest::files_that_are_closed_after_a_while_let_the_card_go()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("closingFiles");
    ControllerDevice::closeFiles();
    QVERIFY(device.waitForState("unmounting"));
    QCOMPARE(device.service().state(), 4);
    // What runs now is the time to take the card out.
    QCOMPARE(ControllerDevice::timer(controller, "state timer").interval(), 20000);
}

void SdcardClosingTest::unmounting_what_is_not_mounted_succeeds_without_a_trace()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    SystemCalls::reset();
    controller.unmounting();
    QCOMPARE(SystemCalls::takeCalls(), QStringList());
    QCOMPARE(device.effects().take(), QStringList{"UMOUNT_SUCCESS"});
    QCOMPARE(device.service().state(), 0);
}

void SdcardClosingTest::unmounting_works_in_this_order_data()
{
    QTest::addColumn<bool>("isReadOnly");
    QTest::newRow("writable") << false;
    QTest::newRow("read-only") << true;
}

void SdcardClosingTest::unmounting_works_in_this_order()
{
    QFETCH(const bool, isReadOnly);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    QVERIFY(TestDevice::mountTmpfs(ControllerDevice::kMountPoint, 1 << 20, isReadOnly));
    device.service().setMemState(1);
    device.effects().take();
    SystemCalls::reset();
    controller.unmounting();
    QCOMPARE(SystemCalls::takeCalls(), QStringList{"umount2 /media/sdcard 0"});
    QCOMPARE(device.effects().take(), (LedWrites::kBusy + unmountedEffects()));
    QCOMPARE(device.service().state(), 4);
    QCOMPARE(ControllerDevice::timer(controller, "state timer").interval(), 20000);
}

void SdcardClosingTest::a_failed_unmount_is_told()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    QVERIFY(ControllerDevice::mountCard());
    QFile open(ControllerDevice::kMountPoint + "/filling");
    QVERIFY(open.open(QIODevice::ReadOnly));
    controller.unmounting();
    QCOMPARE(device.effects().take(),
             (LedWrites::kBusy +
              QStringList{kError + "Umount failed: error code 'Device or resource busy'",
                          "UNMOUNT_FAILED"}));
    QCOMPARE(device.service().state(), 7);
    QCOMPARE(device.service().transition(), 7);
    QVERIFY(!ControllerDevice::timer(controller, "state timer").isActive());
}

TEST_DEVICE_MAIN(SdcardClosingTest)
#include "SdcardClosingTest.moc"
