#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include "CardConfig.h"
#include "CardImage.h"
#include "ControllerDevice.h"
#include "MountingHarness.h"
#include "ProcessWaits.h"
#include "StateHarness.h"
#include "StatePreparing.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

using SystemCalls::Call;

namespace {

constexpr int kPatienceMs = 30000;

QStringList waitsFor(const QString& command, int timeoutMs)
{
    return {command + ": start 30000", command + ": end " + QString::number(timeoutMs)};
}

// Creates a card with directories for the logger and for values.
bool prepare()
{
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='10'>logger</dir><dir size='10'>csv</dir>");
    auto* const state = new StatePreparing(config);
    StateHarness harness(state);
    QSignalSpy success(state, &StatePreparing::MOUNT_SUCCESS);
    Q_EMIT harness.enter();
    return !success.isEmpty() || success.wait(kPatienceMs);
}

} // namespace

/// The time limits of the service's programs.
class ToolTimeoutsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void format_and_both_checks_have_time_limits();
    void a_format_at_the_start_has_the_same_time_limit();
    void a_relocation_has_no_time_limit();
    void a_preparing_script_may_take_ten_minutes();
    void the_run_level_query_may_take_ten_seconds();
    void each_list_of_open_files_may_take_ten_seconds();

private:
    TestBus mBus;
};

void ToolTimeoutsTest::initTestCase()
{
    CardImage::prepareSysfs();
    ToolStandIn::putFirst();
}

void ToolTimeoutsTest::cleanup()
{
    SystemCalls::reset();
    CardImage::remove();
    TestDevice::remove("/media");
    ProcessWaits::take();
}

void ToolTimeoutsTest::format_and_both_checks_have_time_limits()
{
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 99");
    ToolStandIn::place(ToolStandIn::kE2fsck, "[ $1 = -p ] && exit 4\nexit 0");
    SystemCalls::fail(Call::Mount, 0);
    MountingHarness state;
    QCOMPARE(state.run().last(), QString("START_PREPARE"));
    QCOMPARE(ProcessWaits::take(), waitsFor("tavo-create-sdcardFS.sh", 150000) +
                                       waitsFor("e2fsck -p /card/mmcblk0p1", 300000) +
                                       waitsFor("e2fsck -f -y -v -c /card/mmcblk0p1", 3600000));
}

void ToolTimeoutsTest::a_format_at_the_start_has_the_same_time_limit()
{
    ControllerDevice device(mBus);
    CardImage::listMmcCard();
    CardImage::writeDisk({});
    device.construct();
    QCOMPARE(ProcessWaits::take(), waitsFor("tavo-create-sdcardFS.sh", 150000));
}

void ToolTimeoutsTest::a_relocation_has_no_time_limit()
{
    TestDevice::writeFile("/media/sdcard/PindleLogger.db", "database");
    TestDevice::writeFile("/media/sdcard/csv/media/sdcard/csv/day/file", "values");
    QVERIFY(prepare());
    QCOMPARE(TestDevice::readFile("/media/sdcard/logger/PindleLogger.db"), QByteArray("database"));
    QCOMPARE(TestDevice::readFile("/media/sdcard/csv/file"), QByteArray("values"));
    const QRegularExpression limited(": (start|end) (?!-1$)");
    QCOMPARE(ProcessWaits::take().filter(limited), QStringList());
}

void ToolTimeoutsTest::a_preparing_script_may_take_ten_minutes()
{
    ToolStandIn::place(ControllerDevice::kJobDirectory + "/job", "");
    QVERIFY(prepare());
    TestDevice::remove(ControllerDevice::kJobDirectory);
    QCOMPARE(ProcessWaits::take(), waitsFor("job logger=/logger csv=/csv", 600000));
}

void ToolTimeoutsTest::the_run_level_query_may_take_ten_seconds()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    ProcessWaits::take();
    controller.cardInsertedTriggered();
    QCOMPARE(ProcessWaits::take(), waitsFor("runlevel", 10000));
}

void ToolTimeoutsTest::each_list_of_open_files_may_take_ten_seconds()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    ToolStandIn::place(ToolStandIn::kLsof, "echo 4194305");
    ProcessWaits::take();
    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles("/media/sdcard", ids, Sdcard::eLogLevel::Files), 0);
    QCOMPARE(ProcessWaits::take(),
             waitsFor("lsof -t -Q /media/sdcard", 10000) + waitsFor("lsof -F -p 4194305", 10000));
}

TEST_DEVICE_MAIN(ToolTimeoutsTest)
#include "ToolTimeoutsTest.moc"
