#include <QTest>
#include <QTimer>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardEventsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_card_that_is_present_at_start_is_inserted();
    void without_a_card_at_start_nothing_is_inserted();
    void an_insertion_is_delayed_by_a_second();
    void a_second_insertion_starts_the_delay_anew();
    void a_removal_within_the_delay_drops_the_insertion();
    void a_held_button_brings_the_card_out();
    void the_count_starts_anew_with_each_mounting();
    void a_rebooting_system_is_told_by_its_run_level_data();
    void a_rebooting_system_is_told_by_its_run_level();
    void without_runlevel_the_system_is_not_rebooting();

private:
    TestBus mBus;
};

static const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");

void SdcardEventsTest::a_card_that_is_present_at_start_is_inserted()
{
    ControllerDevice device(mBus);
    TestDevice::writeFile(CardImage::kPartition, {});
    ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);
    device.construct();
    QVERIFY(device.waitForState("mounting"));
    const QStringList effects = device.effects().take();
    const int at = effects.indexOf("SD_INSERT");
    QVERIFY(at > 0);
    QCOMPARE(effects.at(at - 1), kInfo + "SD Card is already present");
    QCOMPARE(device.service().transition(), 1);
    QVERIFY(!effects.contains("ADD_DEVICE"));
}

void SdcardEventsTest::without_a_card_at_start_nothing_is_inserted()
{
    ControllerDevice device(mBus);
    device.start();
    QCOMPARE(device.machineState(), QString("noSdCard"));
    QCOMPARE(device.effects().takeParts().signalNames, QStringList{"MemStateChanged 1"});
}

void SdcardEventsTest::an_insertion_is_delayed_by_a_second()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    device.service().InsertCard();
    QCOMPARE(device.effects().take(), (QStringList{"ADD_DEVICE", "CardInserted"}));
    QTimer& delay = ControllerDevice::timer(controller, "insert delay timer");
    QVERIFY(delay.isActive());
    QCOMPARE(delay.interval(), 1000);
    QCOMPARE(device.service().transition(), 0);

    ControllerDevice::expire(delay);
    QCOMPARE(device.effects().take().first(), QString("SD_INSERT"));
    QCOMPARE(device.service().transition(), 1);
    QCOMPARE(device.machineState(), QString("mounting"));
}

void SdcardEventsTest::a_second_insertion_starts_the_delay_anew()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    const QTimer& delay = ControllerDevice::timer(controller, "insert delay timer");
    controller.addBlockDevice();
    QTRY_VERIFY(delay.remainingTime() < 980);
    controller.addBlockDevice();
    QVERIFY(delay.remainingTime() > 980);
}

void SdcardEventsTest::a_removal_within_the_delay_drops_the_insertion()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    device.service().InsertCard();
    device.service().RemoveCard();
    QVERIFY(!ControllerDevice::timer(controller, "insert delay timer").isActive());
    QCOMPARE(device.effects().take(), (QStringList{"ADD_DEVICE", "CardInserted", "SD_REMOVE",
                                                   "REMOVE_DEVICE", "CardRemoved"}));
}

void SdcardEventsTest::a_held_button_brings_the_card_out()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("mounted");
    QTimer& poll = ControllerDevice::timer(controller, "eject poll timer");
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    poll.setInterval(1);
    QVERIFY(device.waitForState("unmounting"));
    QVERIFY(!poll.isActive());
    QCOMPARE(device.effects().take().filter("SD_EJECT").size(), 1);
}

void SdcardEventsTest::the_count_starts_anew_with_each_mounting()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    TestDevice::writeFile(ControllerDevice::kEjectButton, "1\n");
    controller.readInputDevice();
    QVERIFY(ControllerDevice::mountCard());
    controller.mounted();
    device.effects().take();
    for (int reading = 0; reading < 24; ++reading) {
        controller.readInputDevice();
    }
    QCOMPARE(device.effects().take(), QStringList());
}

void SdcardEventsTest::a_rebooting_system_is_told_by_its_run_level_data()
{
    QTest::addColumn<QByteArray>("runlevel");
    QTest::addColumn<bool>("isRebooting");
    QTest::addColumn<QStringList>("records");
    const QStringList none;
    const QStringList ignored{
        "ERROR sdcard sdcard: Ignoring SD Card insert event because of System is rebooting"};
    const QStringList crashed{"ERROR sdcard sdcard: QProcess::CrashExit: Process crashed"};
    QTest::newRow("5") << QByteArray("echo N 5") << false << none;
    QTest::newRow("6") << QByteArray("echo 5 6") << true << ignored;
    QTest::newRow("6 before") << QByteArray("echo 6 5") << true << ignored;
    QTest::newRow("6 anywhere") << QByteArray("echo at 16:05 N 5") << true << ignored;
    QTest::newRow("6 on standard error") << QByteArray("echo N 6 >&2") << false << none;
    QTest::newRow("failing") << QByteArray("echo N 6; exit 1") << true << ignored;
    QTest::newRow("crashing") << QByteArray("echo N 6; kill -9 $$") << false << crashed;
    QTest::newRow("unknown") << QByteArray("echo unknown; exit 1") << false << none;
}

void SdcardEventsTest::a_rebooting_system_is_told_by_its_run_level()
{
    QFETCH(const QByteArray, runlevel);
    QFETCH(const bool, isRebooting);
    QFETCH(const QStringList, records);
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    ToolStandIn::place(ToolStandIn::kRunlevel, runlevel);
    ToolStandIn::takeCalls();
    controller.cardInsertedTriggered();
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"runlevel"});
    QCOMPARE(device.service().transition(), isRebooting ? 0 : 1);
    QCOMPARE(device.effects().errorCount(), static_cast<unsigned int>(records.size()));
    QCOMPARE(device.effects().take(), records);

    Q_EMIT controller.SD_INSERT();
    QVERIFY(device.waitForState("mounting"));
}

void SdcardEventsTest::without_runlevel_the_system_is_not_rebooting()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("noSdCard");
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", "/nowhere");
    controller.cardInsertedTriggered();
    qputenv("PATH", path);
    QCOMPARE(device.service().transition(), 1);
    QCOMPARE(device.effects().take(),
             QStringList{"ERROR sdcard sdcard: Starting command failed (exitstatus:0)"});
}

TEST_DEVICE_MAIN(SdcardEventsTest)
#include "SdcardEventsTest.moc"
