#include <QElapsedTimer>
#include <QTest>

#include <unistd.h>

#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "TestProcess.h"

class SdcardForcedUnmountTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { SystemCalls::reset(); }

    void forcing_what_is_not_mounted_succeeds_without_a_trace();
    void the_soft_path_asks_the_processes_to_end();
    void the_soft_path_goes_on_after_a_process_that_is_gone();
    void the_soft_path_leaves_a_process_that_ignores_it();
    void the_soft_path_unmounts_without_lsof();
    void the_hard_path_kills_the_processes();
    void the_hard_path_goes_on_after_a_process_that_is_gone();
    void the_service_never_signals_itself_data();
    void the_service_never_signals_itself();

private:
    TestBus mBus;
};

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QString kWarn = QStringLiteral("WARN sdcard sdcard: ");
const QString kError = QStringLiteral("ERROR sdcard sdcard: ");
// Larger than any id that the kernel gives.
const QString kNoProcess = QStringLiteral("4194305");

QStringList unmountedEffects()
{
    return QStringList{"CardUnmounted"} + LedWrites::kUnmounted +
           QStringList{kInfo + "SD Card is successfully unmounted"};
}

} // namespace

void SdcardForcedUnmountTest::forcing_what_is_not_mounted_succeeds_without_a_trace()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + kNoProcess.toLatin1());
    ToolStandIn::takeCalls();
    SystemCalls::reset();
    controller.forced_unmounting();
    QCOMPARE(SystemCalls::takeCalls(), QStringList());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QCOMPARE(device.effects().take(), QStringList{"UMOUNT_SUCCESS"});
    QCOMPARE(device.service().state(), 0);
}

void SdcardForcedUnmountTest::the_soft_path_asks_the_processes_to_end()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    device.service().setMemState(1);
    const QString id = QString::number(device.keepFilesOpen());
    device.effects().take();
    ToolStandIn::takeCalls();
    SystemCalls::reset();
    controller.forced_unmounting();
    QCOMPARE(ToolStandIn::takeCalls(),
             (QStringList{"runlevel", "lsof -t -Q /media/sdcard", "lsof -F -p " + id,
                          "lsof -t -Q /media/sdcard"}));
    QCOMPARE(SystemCalls::takeCalls(),
             (QStringList{"kill " + id + " 15", "umount2 /media/sdcard 0"}));
    QCOMPARE(device.effects().take(),
             (LedWrites::kBusy +
              QStringList{
                  kInfo + "Processes with open files on /media/sdcard:", kInfo + id + ": 'sleep'",
                  kInfo + "Number of processes with open files: 1",
                  kWarn + "Shutdown softly process " + id + " !"} +
              unmountedEffects()));
    QCOMPARE(device.service().state(), 4);
}

void SdcardForcedUnmountTest::the_soft_path_goes_on_after_a_process_that_is_gone()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    ToolStandIn::place(ToolStandIn::kLsof, "if [ ! -e /run/asked ]; then echo 4194305; echo "
                                           "4194306; fi; [ $1 = -t ] && touch /run/asked; exit 0");
    TestDevice::remove("/run/asked");
    device.effects().take();
    controller.forced_unmounting();
    QCOMPARE(device.effects().errorCount(), 2U);
    const QStringList records = device.effects().takeParts().logRecords;
    QCOMPARE(records.mid(records.indexOf(kWarn + "Shutdown softly process 4194305 !")),
             (QStringList{kWarn + "Shutdown softly process 4194305 !",
                          kError + "Kill softly failed: No such process",
                          kWarn + "Shutdown softly process 4194306 !",
                          kError + "Kill softly failed: No such process",
                          kInfo + "SD Card is successfully unmounted"}));
}

void SdcardForcedUnmountTest::the_soft_path_leaves_a_process_that_ignores_it()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    TestProcess stubborn;
    stubborn.setStandardInputFile(ControllerDevice::kMountPoint + "/filling");
    stubborn.start("sh", {"-c", "trap '' TERM; echo ready; exec sleep 1000 <&0"});
    QVERIFY(stubborn.waitForReadyRead());
    const QByteArray id = QByteArray::number(stubborn.processId());
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + id);
    ToolStandIn::takeCalls();
    SystemCalls::reset();
    device.effects().take();
    QElapsedTimer elapsed;
    elapsed.start();
    controller.forced_unmounting();
    QVERIFY(elapsed.elapsed() >= 3000);
    // One to find the process, one for its files, and 30 polls.
    QCOMPARE(ToolStandIn::takeCalls().filter("lsof").size(), 32);
    QCOMPARE(SystemCalls::takeCalls(),
             (QStringList{"kill " + id + " 15", "umount2 /media/sdcard 0"}));
    QCOMPARE(device.effects().take().mid(8),
             (QStringList{kError + "Umount failed: error code 'Device or resource busy'",
                          "UNMOUNT_FAILED"}));
    QCOMPARE(device.service().state(), 7);
    QCOMPARE(stubborn.state(), QProcess::Running);
    stubborn.kill();
    QVERIFY(stubborn.waitForFinished());
}

void SdcardForcedUnmountTest::the_soft_path_unmounts_without_lsof()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    device.service().setMemState(1);
    ToolStandIn::place(ToolStandIn::kLsof, "exit 2");
    device.effects().take();
    SystemCalls::reset();
    controller.forced_unmounting();
    QCOMPARE(SystemCalls::takeCalls(), QStringList{"umount2 /media/sdcard 0"});
    const QString failed = kError + "Invoke of 'lsof' utility failed with exit code 2";
    QCOMPARE(device.effects().take(),
             (LedWrites::kBusy + QStringList{failed, failed} + unmountedEffects()));
}

void SdcardForcedUnmountTest::the_hard_path_kills_the_processes()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    device.service().setMemState(1);
    ToolStandIn::place(ToolStandIn::kRunlevel, "echo 5 6");
    TestProcess stubborn;
    stubborn.start("sh", {"-c", "trap '' TERM; echo ready; exec sleep 1000"});
    QVERIFY(stubborn.waitForReadyRead());
    const QString id = QString::number(stubborn.processId());
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + id.toLatin1());
    ToolStandIn::takeCalls();
    SystemCalls::reset();
    device.effects().take();
    controller.forced_unmounting();
    QCOMPARE(ToolStandIn::takeCalls(), (QStringList{"runlevel", "lsof -t -Q /media/sdcard"}));
    QCOMPARE(SystemCalls::takeCalls(),
             (QStringList{"kill " + id + " 9", "umount2 /media/sdcard 0"}));
    QCOMPARE(device.effects().take(),
             (LedWrites::kBusy +
              QStringList{kWarn + "System is rebooting -> shutdown processes (!)"} +
              unmountedEffects()));
    QVERIFY(stubborn.waitForFinished());
    QCOMPARE(stubborn.exitStatus(), QProcess::CrashExit);
}

void SdcardForcedUnmountTest::the_hard_path_goes_on_after_a_process_that_is_gone()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    ToolStandIn::place(ToolStandIn::kRunlevel, "echo 5 6");
    ToolStandIn::place(ToolStandIn::kLsof, "echo 4194305; echo 4194306");
    device.effects().take();
    controller.forced_unmounting();
    QCOMPARE(device.effects().errorCount(), 2U);
    QCOMPARE(device.effects().takeParts().logRecords,
             (QStringList{kWarn + "System is rebooting -> shutdown processes (!)",
                          kError + "Kill hardly failed: No such process",
                          kError + "Kill hardly failed: No such process",
                          kInfo + "SD Card is successfully unmounted"}));
}

void SdcardForcedUnmountTest::the_service_never_signals_itself_data()
{
    QTest::addColumn<QByteArray>("runlevel");
    QTest::newRow("soft") << QByteArray("5");
    QTest::newRow("hard") << QByteArray("6");
}

void SdcardForcedUnmountTest::the_service_never_signals_itself()
{
    QFETCH(const QByteArray, runlevel);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QVERIFY(ControllerDevice::mountCard());
    ToolStandIn::place(ToolStandIn::kRunlevel, "echo N " + runlevel);
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + QByteArray::number(::getpid()));
    ToolStandIn::takeCalls();
    SystemCalls::reset();
    controller.forced_unmounting();
    // Nor does it wait for its own end.
    QVERIFY(ToolStandIn::takeCalls().size() <= 4);
    QCOMPARE(SystemCalls::takeCalls(), QStringList{"umount2 /media/sdcard 0"});
}

TEST_DEVICE_MAIN(SdcardForcedUnmountTest)
#include "SdcardForcedUnmountTest.moc"
