#include <QTest>
#include <QTimer>

#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "TestDevice.h"

class SdcardEventsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void an_insertion_is_delayed_by_a_second_and_a_removal_drops_it()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("noSdCard");
        const QTimer& delay = ControllerDevice::timer(controller, "insert delay timer");
        device.service().InsertCard();
        QVERIFY(delay.isActive());
        QCOMPARE(delay.interval(), 1000);
        QTRY_VERIFY(delay.remainingTime() < 980);
        device.service().InsertCard();
        QVERIFY(delay.remainingTime() > 980);
        device.service().RemoveCard();
        QVERIFY(!delay.isActive());
        QCOMPARE(device.effects().take(),
                 (QStringList{"CardInserted", "ADD_DEVICE", "CardInserted", "ADD_DEVICE",
                              "CardRemoved", "SD_REMOVE", "REMOVE_DEVICE"}));
    }

    void a_held_button_ejects_the_card()
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

    void the_count_starts_anew_with_each_mounting()
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

    void the_run_level_shows_a_reboot_data()
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
        QTest::newRow("missing") << QByteArray() << false
                                 << QStringList{"ERROR sdcard sdcard: Starting command failed "
                                                "(exitstatus:0)"};
        QTest::newRow("unknown") << QByteArray("echo unknown; exit 1") << false << none;
    }

    void the_run_level_shows_a_reboot()
    {
        QFETCH(const QByteArray, runlevel);
        QFETCH(const bool, isRebooting);
        QFETCH(const QStringList, records);
        ControllerDevice device(mBus);
        Sdcard& controller = device.startIn("noSdCard");
        ToolStandIn::place(ToolStandIn::kRunlevel, runlevel);
        ToolStandIn::takeCalls();
        const QByteArray path = qgetenv("PATH");
        if (runlevel.isNull()) {
            qputenv("PATH", "/nowhere");
        }
        controller.cardInsertedTriggered();
        qputenv("PATH", path);
        QCOMPARE(ToolStandIn::takeCalls(),
                 runlevel.isNull() ? QStringList() : QStringList{"runlevel"});
        QCOMPARE(device.service().transition(), isRebooting ? 0 : 1);
        QCOMPARE(device.effects().errorCount(), static_cast<unsigned int>(records.size()));
        QCOMPARE(device.effects().take(), records);

        Q_EMIT controller.SD_INSERT();
        QVERIFY(device.waitForState("mounting"));
    }

    void a_removal_that_comes_while_runlevel_runs_is_handled_afterwards()
    {
        ControllerDevice device(mBus);
        device.startIn("noSdCard");
        ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);
        ToolStandIn::place(ToolStandIn::kRunlevel,
                           "dbus-send --bus='" + mBus.address().toUtf8() +
                               "' --type=method_call --dest=tavo.SDCard1 /tavo/sdcard "
                               "tavo.SDCardController1.RemoveCard; echo N 5");
        device.insertCard();
        QTRY_VERIFY(device.effects().properties().filter("REMOVE_DEVICE").size() == 1);
        QCOMPARE(device.effects().takeParts().signalNames,
                 (QStringList{"CardInserted", "ADD_DEVICE", "SD_INSERT", "CardRemoved", "SD_REMOVE",
                              "REMOVE_DEVICE"}));
        QCOMPARE(device.service().transition(), 2);
        QCOMPARE(device.machineState(), QString("noSdCard"));
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardEventsTest)
#include "SdcardEventsTest.moc"
