#include <cerrno>

#include <QFile>
#include <QTest>

#include <sys/mount.h>

#include "ControllerDevice.h"
#include "MountTableText.h"
#include "SDCardImpl.h"
#include "SystemCalls.h"
#include "TestDevice.h"

using SystemCalls::Call;

using Slot = void (Sdcard::*)();
Q_DECLARE_METATYPE(Slot)

namespace {

const QString kError = QStringLiteral("ERROR sdcard sdcard: ");
const QString kMountPoint = QStringLiteral("/media/sdcard");

log4cxx::LoggerPtr channel()
{
    return log4cxx::Logger::getLogger("sdcard");
}

int stateOf(const QString& mountPoint)
{
    return static_cast<int>(Sdcard::getMountState(channel(), mountPoint));
}

} // namespace

class SdcardUnmountTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { SystemCalls::reset(); }

    void the_first_line_with_the_mount_point_decides_data()
    {
        QTest::addColumn<QByteArray>("table");
        QTest::addColumn<int>("state");
        QTest::newRow("empty") << QByteArray("\n") << 1;
        QTest::newRow("other") << QByteArray("a /media/usb ext4 rw 0 0\n") << 1;
        QTest::newRow("other case") << QByteArray("a /media/SDcard ext4 rw 0 0\n") << 1;
        QTest::newRow("writable") << QByteArray("a /media/sdcard ext4 rw 0 0\n") << 3;
        QTest::newRow("read-only") << QByteArray("a /media/sdcard ext4 ro 0 0\n") << 2;
        QTest::newRow("neither") << QByteArray("a /media/sdcard ext4 noatime 0 0\n") << 0;
        QTest::newRow("no end of line") << QByteArray("a /media/sdcard ext4 ro 0 0") << 2;
        QTest::newRow("rw in the device's name")
            << QByteArray("/dev/rw0 /media/sdcard ext4 ro 0 0\n") << 3;
        QTest::newRow("ro in the type's name") << QByteArray("a /media/sdcard erofs x 0 0\n") << 2;
        QTest::newRow("part of another") << QByteArray("a /media/sdcard2 ext4 rw 0 0\n") << 3;
        QTest::newRow("the first of two")
            << QByteArray("a /media/sdcard ext4 ro 0 0\nb /media/sdcard ext4 rw 0 0\n") << 2;
        QTest::newRow("after others")
            << QByteArray("a / ext4 rw 0 0\n\nb /media/sdcard ext4 ro 0 0\n") << 2;
    }

    void the_first_line_with_the_mount_point_decides()
    {
        QFETCH(const QByteArray, table);
        QFETCH(const int, state);
        const MountTable mountTable(table);
        QCOMPARE(stateOf(kMountPoint), state);
    }

    void without_a_mount_table_nothing_is_mounted()
    {
        QVERIFY(TestDevice::mountTmpfs(kMountPoint, 1 << 20));
        {
            const MountTable noTable{QByteArray()};
            QCOMPARE(stateOf(kMountPoint), 1);
        }
        QCOMPARE(stateOf(kMountPoint), 3);
        TestDevice::unmountAll(kMountPoint);
    }

    void an_unmount_removes_the_mount_point_with_its_content()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        TestDevice::writeFile(kMountPoint + "/below/file", "x");
        QVERIFY(ControllerDevice::mountCard());
        QVERIFY(controller.umountDevice(kMountPoint, false));
        QVERIFY(!QFile::exists(kMountPoint));
        QVERIFY(QFile::exists("/media"));
        QCOMPARE(device.effects().take(), QStringList());
    }

    void a_mount_point_that_cannot_be_removed_is_a_failure()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        const QString parent = "/media/fixed";
        QVERIFY(TestDevice::mountTmpfs(parent, 1 << 20));
        QVERIFY(TestDevice::mountTmpfs(parent + "/card", 1 << 20));
        QCOMPARE(::mount("", "/media/fixed", "", MS_REMOUNT | MS_RDONLY, ""), 0);
        QVERIFY(!controller.umountDevice(parent + "/card", false));
        QCOMPARE(stateOf(parent + "/card"), 1);
        TestDevice::unmountAll(parent);
        QCOMPARE(device.effects().take(), QStringList());
    }

    void an_interrupted_unmount_is_repeated_without_a_limit()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.effects().take();
        QVERIFY(ControllerDevice::mountCard());
        SystemCalls::reset();
        SystemCalls::fail(Call::Unmount, EINTR, 5000);
        QVERIFY(controller.umountDevice(kMountPoint, false));
        const QStringList calls = SystemCalls::takeCalls();
        QCOMPARE(calls.size(), 5001);
        QCOMPARE(calls.count("umount2 /media/sdcard 0"), 5001);
        QCOMPARE(device.effects().take(), QStringList());
    }

    void paths_are_utf_8()
    {
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        const QString mountPoint = QString::fromUtf8("/media/k\303\244rte");
        QVERIFY(TestDevice::mountTmpfs(mountPoint, 1 << 20));
        QCOMPARE(stateOf(mountPoint), 3);
        SystemCalls::reset();
        QVERIFY(controller.umountDevice(mountPoint, false));
        QCOMPARE(SystemCalls::takeCalls(), QStringList{"umount2 " + mountPoint + " 0"});
        QVERIFY(!QFile::exists(mountPoint));
    }

    void what_the_mount_table_shows_decides_data()
    {
        QTest::addColumn<Slot>("slot");
        QTest::addColumn<QByteArray>("table");
        QTest::addColumn<int>("error");
        QTest::addColumn<QStringList>("effects");
        const QStringList unmounted =
            LedWrites::kBusy + QStringList{"CardUnmounted"} + LedWrites::kUnmounted;
        const auto failed = [](const char* why) {
            return LedWrites::kBusy +
                   QStringList{kError + "Umount failed: error code '" + why + "'",
                               "UNMOUNT_FAILED"};
        };
        for (const auto& [name, slot] : {std::pair{"eject", &Sdcard::unmounting},
                                         std::pair{"by force", &Sdcard::forced_unmounting}}) {
            const auto row = [name = name, slot = slot](const char* mount, const char* table,
                                                        int error, const QStringList& effects) {
                QTest::addRow("%s, %s", name, mount)
                    << slot << QByteArray(table) << error << effects;
            };
            row("not mounted", "a /media/usb ext4 rw 0 0\n", 0, {"UMOUNT_SUCCESS"});
            row("writable", "a /media/sdcard ext4 rw 0 0\n", 0, unmounted);
            row("read-only", "a /media/sdcard ext4 ro 0 0\n", 0, unmounted);
            row("unclear", "a /media/sdcard ext4 noatime 0 0\n", 0, unmounted);
            row("another's name", "a /media/sdcard2 ext4 rw 0 0\n", EINVAL,
                failed("Invalid argument"));
            row("busy", "a /media/sdcard ext4 rw 0 0\n", EBUSY, failed("Device or resource busy"));
        }
    }

    void what_the_mount_table_shows_decides()
    {
        QFETCH(const Slot, slot);
        QFETCH(const QByteArray, table);
        QFETCH(const int, error);
        QFETCH(const QStringList, effects);
        ControllerDevice device(mBus);
        Sdcard& controller = device.construct();
        device.service().setMemState(1);
        device.effects().take();
        SystemCalls::reset();
        SystemCalls::fail(Call::Unmount, error);
        QStringList calls;
        {
            const MountTable mountTable(table);
            (controller.*slot)();
            calls = SystemCalls::takeCalls().filter("umount2");
            SystemCalls::reset();
        }
        QCOMPARE(calls,
                 effects.size() == 1 ? QStringList() : QStringList{"umount2 /media/sdcard 0"});
        QStringList seen = device.effects().take();
        seen.removeAll("INFO sdcard sdcard: Number of processes with open files: 0");
        seen.removeAll("INFO sdcard sdcard: SD Card is successfully unmounted");
        QCOMPARE(seen, effects);
        QCOMPARE(device.service().state(), effects.size() == 1 ? 0 : error != 0 ? 7 : 4);
    }

private:
    TestBus mBus;
};

TEST_DEVICE_MAIN(SdcardUnmountTest)
#include "SdcardUnmountTest.moc"
