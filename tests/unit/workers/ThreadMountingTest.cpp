#include <cerrno>

#include <QDir>
#include <QTest>

#include "EffectRecorder.h"
#include "LogCapture.h"
#include "MountTableText.h"
#include "ThreadMounting.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

using SystemCalls::Call;

namespace {

const QString kCard = QStringLiteral("/media/sdcard");
const QString kDevice = QStringLiteral("/dev/mmcblk0p1");
const QString kInfo = QStringLiteral("INFO St:Mounting StateMounting: ");
const QString kError = QStringLiteral("ERROR St:Mounting StateMounting: ");
const QString kQuickCheck = QStringLiteral("e2fsck -p /dev/mmcblk0p1");
const QString kDeepCheck = QStringLiteral("e2fsck -f -y -v -c /dev/mmcblk0p1");
const QString kCorrected = kInfo + "Corrected some file system errors on SD Card!";

QString mountCall(int flags)
{
    return QString("mount /dev/mmcblk0p1 /media/sdcard ext4 %1 "
                   "data=journal,nodelalloc,journal_checksum")
        .arg(flags);
}

struct Outcome
{
    bool isMounted;
    bool isCorrupt;
    QStringList records;
    unsigned int errors;
};

Outcome mountDevice(bool corruptBefore = false)
{
    const ConfigHandler config;
    const ThreadMounting worker(config, nullptr);
    const LogCapture log;
    bool isCorrupt = corruptBefore;
    const bool isMounted = worker.mountDevice(kDevice, kCard, "ext4", isCorrupt);
    return {isMounted, isCorrupt, describe(log.records()), log.errorCount()};
}

// From here on every mount seems to succeed.
void pretendMounts()
{
    SystemCalls::reset();
    SystemCalls::fail(Call::Mount, 0, 100);
}

QStringList mountCalls()
{
    return SystemCalls::takeCalls().filter("mount ");
}

// Lets e2fsck end with these codes.
void placeCheck(int quick, int deep)
{
    ToolStandIn::place(ToolStandIn::kE2fsck, "[ $1 = -p ] && exit " + QByteArray::number(quick) +
                                                 "\nexit " + QByteArray::number(deep));
}

} // namespace

/// The check and the mount.
class ThreadMountingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void a_file_system_is_checked_as_thoroughly_as_needed_data();
    void a_file_system_is_checked_as_thoroughly_as_needed();
    void the_thorough_checks_output_is_logged();
    void a_card_is_mounted_after_any_check_data();
    void a_card_is_mounted_after_any_check();
    void a_check_that_cannot_be_run_passes_for_a_correction();
    void a_mount_that_fails_leaves_no_mount_point();
    void an_interrupted_mount_is_repeated();
    void a_card_that_is_mounted_already_is_not_mounted_again();
    void a_read_only_card_is_remounted();
    void a_remount_that_fails_does_not_mean_a_corrupt_card();
    void an_interrupted_remount_is_repeated();
    void an_unclear_mount_is_a_failure();
    void a_mount_point_that_is_no_directory_is_a_silent_failure();
    void a_mount_point_is_created_with_its_parents();
    void failures_count_where_their_level_is_off();
};

void ThreadMountingTest::initTestCase()
{
    ToolStandIn::putFirst();
}

void ThreadMountingTest::init()
{
    placeCheck(0, 0);
    ToolStandIn::takeCalls();
    SystemCalls::reset();
}

void ThreadMountingTest::cleanup()
{
    SystemCalls::reset();
    TestDevice::unmountAll(kCard);
    TestDevice::remove("/media");
    TestDevice::remove(ToolStandIn::kE2fsck);
}

void ThreadMountingTest::a_file_system_is_checked_as_thoroughly_as_needed_data()
{
    QTest::addColumn<int>("quick");
    QTest::addColumn<int>("deep");
    QTest::addColumn<int>("result");
    QTest::newRow("clean") << 0 << 99 << 0;
    QTest::newRow("corrected") << 1 << 99 << 1;
    QTest::newRow("reboot advised") << 2 << 0 << 0;
    QTest::newRow("errors left") << 4 << 1 << 1;
    QTest::newRow("errors left again") << 4 << 4 << 4;
    QTest::newRow("operational error") << 8 << 8 << 8;
    QTest::newRow("all at once") << 255 << 12 << 12;
}

void ThreadMountingTest::a_file_system_is_checked_as_thoroughly_as_needed()
{
    QFETCH(const int, quick);
    QFETCH(const int, deep);
    placeCheck(quick, deep);
    const ConfigHandler config;
    const ThreadMounting worker(config, nullptr);
    const LogCapture log;
    QTEST(static_cast<int>(worker.checkAndRepairFS(kDevice)), "result");
    if (quick <= 1) {
        QCOMPARE(ToolStandIn::takeCalls(), QStringList{kQuickCheck});
        QCOMPARE(log.messages(), QStringList());
    } else {
        QCOMPARE(ToolStandIn::takeCalls(), (QStringList{kQuickCheck, kDeepCheck}));
        QCOMPARE(describe(log.records()),
                 (QStringList{
                     kInfo + "Run deeply file system check",
                     "INFO St:Mounting sdcard: Executing '" + kDeepCheck + "'...",
                     kInfo + "Pass2 check result: " + QString::number(deep),
                 }));
    }
    QCOMPARE(log.errorCount(), 0U);
}

void ThreadMountingTest::the_thorough_checks_output_is_logged()
{
    ToolStandIn::place(ToolStandIn::kE2fsck,
                       "echo $1 out\necho $1 err >&2\n[ $1 = -p ] && exit 4\nexit 0");
    const ConfigHandler config;
    const ThreadMounting worker(config, nullptr);
    const LogCapture log;
    worker.checkAndRepairFS(kDevice);
    QCOMPARE(describe(log.records()).mid(2),
             (QStringList{"INFO St:Mounting sdcard: -f out", "ERROR St:Mounting sdcard: -f err",
                          kInfo + "Pass2 check result: 0"}));
}

void ThreadMountingTest::a_card_is_mounted_after_any_check_data()
{
    QTest::addColumn<int>("quick");
    QTest::addColumn<int>("deep");
    QTest::addColumn<bool>("isCorrected");
    QTest::newRow("clean") << 0 << 0 << false;
    QTest::newRow("corrected") << 1 << 0 << true;
    QTest::newRow("clean in the end") << 4 << 0 << false;
    QTest::newRow("corrected in the end") << 4 << 1 << true;
    QTest::newRow("reboot advised in the end") << 4 << 2 << true;
    QTest::newRow("errors left") << 4 << 4 << false;
    QTest::newRow("corrected with errors left") << 4 << 5 << true;
    QTest::newRow("operational error") << 8 << 8 << false;
}

void ThreadMountingTest::a_card_is_mounted_after_any_check()
{
    QFETCH(const int, quick);
    QFETCH(const int, deep);
    QFETCH(const bool, isCorrected);
    placeCheck(quick, deep);
    pretendMounts();
    const Outcome outcome = mountDevice(true);
    QVERIFY(outcome.isMounted);
    QVERIFY(!outcome.isCorrupt);
    QCOMPARE(outcome.records.contains(kCorrected), isCorrected);
    QCOMPARE(outcome.errors, 0U);
    QCOMPARE(mountCalls(), QStringList{mountCall(1024)});
    QVERIFY(QFileInfo(kCard).isDir());
}

void ThreadMountingTest::a_check_that_cannot_be_run_passes_for_a_correction()
{
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", "/opt/stand-ins");
    TestDevice::remove(ToolStandIn::kE2fsck);
    pretendMounts();
    const Outcome outcome = mountDevice();
    qputenv("PATH", path);
    QVERIFY(outcome.isMounted);
    QCOMPARE(outcome.records,
             (QStringList{"ERROR St:Mounting sdcard: Starting command failed (exitstatus:0)",
                          kCorrected}));
    QCOMPARE(outcome.errors, 1U);
}

void ThreadMountingTest::a_mount_that_fails_leaves_no_mount_point()
{
    TestDevice::writeFile(kCard + "/left/behind", "content");
    SystemCalls::fail(Call::Mount, EIO);
    const Outcome outcome = mountDevice();
    QVERIFY(!outcome.isMounted);
    QVERIFY(outcome.isCorrupt);
    QCOMPARE(outcome.records, QStringList{kError + "Mount failed: Input/output error"});
    QCOMPARE(outcome.errors, 1U);
    QVERIFY(!QFile::exists(kCard));
    QVERIFY(QFile::exists("/media"));
}

void ThreadMountingTest::an_interrupted_mount_is_repeated()
{
    SystemCalls::fail(Call::Mount, EINTR, 3);
    // What comes after that reaches the system, which knows no such device.
    const Outcome outcome = mountDevice();
    QCOMPARE(mountCalls(),
             (QStringList{mountCall(1024), mountCall(1024), mountCall(1024), mountCall(1024)}));
    QVERIFY(!outcome.isMounted);
    QCOMPARE(outcome.records, QStringList{kError + "Mount failed: No such file or directory"});
}

void ThreadMountingTest::a_card_that_is_mounted_already_is_not_mounted_again()
{
    QVERIFY(TestDevice::mountTmpfs(kCard, 1 << 20));
    pretendMounts();
    const Outcome outcome = mountDevice();
    QVERIFY(outcome.isMounted);
    QVERIFY(!outcome.isCorrupt);
    QCOMPARE(outcome.records, QStringList());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QCOMPARE(mountCalls(), QStringList());
}

void ThreadMountingTest::a_read_only_card_is_remounted()
{
    const MountTable table("/dev/mmcblk0p1 /media/sdcard ext4 ro,noatime 0 0\n");
    pretendMounts();
    for (const bool corruptBefore : {false, true}) {
        const Outcome outcome = mountDevice(corruptBefore);
        QVERIFY(outcome.isMounted);
        QCOMPARE(outcome.isCorrupt, corruptBefore);
        QCOMPARE(outcome.records, QStringList());
        QCOMPARE(mountCalls(), QStringList{mountCall(1056)});
        QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    }
}

void ThreadMountingTest::a_remount_that_fails_does_not_mean_a_corrupt_card()
{
    const MountTable table("/dev/mmcblk0p1 /media/sdcard ext4 ro,noatime 0 0\n");
    pretendMounts();
    SystemCalls::fail(Call::Mount, EROFS);
    const Outcome outcome = mountDevice();
    QVERIFY(!outcome.isMounted);
    QVERIFY(!outcome.isCorrupt);
    QCOMPARE(outcome.records, QStringList{kError + "Mount failed: Read-only file system"});
    QCOMPARE(outcome.errors, 1U);
    // What is mounted is not to be emptied.
    QVERIFY(QFile::exists(kCard));
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
}

void ThreadMountingTest::an_interrupted_remount_is_repeated()
{
    const MountTable table("/dev/mmcblk0p1 /media/sdcard ext4 ro,noatime 0 0\n");
    pretendMounts();
    SystemCalls::fail(Call::Mount, EINTR, 2);
    mountDevice();
    QCOMPARE(mountCalls(), (QStringList{mountCall(1056), mountCall(1056), mountCall(1056)}));
}

void ThreadMountingTest::an_unclear_mount_is_a_failure()
{
    const MountTable table("/dev/mmcblk0p1 /media/sdcard ext4 noatime 0 0\n");
    pretendMounts();
    const Outcome outcome = mountDevice();
    QVERIFY(!outcome.isMounted);
    QVERIFY(!outcome.isCorrupt);
    QCOMPARE(outcome.records.size(), 1);
    QVERIFY(outcome.records.at(0).startsWith(kError + "Mount failed: "));
    QCOMPARE(outcome.errors, 1U);
    QCOMPARE(mountCalls(), QStringList());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QVERIFY(QFile::exists(kCard));
}

void ThreadMountingTest::a_mount_point_that_is_no_directory_is_a_silent_failure()
{
    TestDevice::writeFile(kCard, "content");
    pretendMounts();
    for (const bool corruptBefore : {false, true}) {
        const Outcome outcome = mountDevice(corruptBefore);
        QVERIFY(!outcome.isMounted);
        QCOMPARE(outcome.isCorrupt, corruptBefore);
        QCOMPARE(outcome.records, QStringList());
        QCOMPARE(outcome.errors, 0U);
    }
    QCOMPARE(TestDevice::readFile(kCard), QByteArray("content"));
    QCOMPARE(mountCalls(), QStringList());
}

void ThreadMountingTest::a_mount_point_is_created_with_its_parents()
{
    TestDevice::remove("/media");
    pretendMounts();
    QVERIFY(mountDevice().isMounted);
    QVERIFY(QFileInfo(kCard).isDir());
}

void ThreadMountingTest::failures_count_where_their_level_is_off()
{
    SystemCalls::fail(Call::Mount, EIO);
    const ConfigHandler config;
    const ThreadMounting worker(config, nullptr);
    const LogCapture log(LogLevel::Off);
    bool isCorrupt = false;
    QVERIFY(!worker.mountDevice(kDevice, kCard, "ext4", isCorrupt));
    QCOMPARE(log.errorCount(), 1U);
    QCOMPARE(log.messages(), QStringList());
}

TEST_DEVICE_MAIN(ThreadMountingTest)
#include "ThreadMountingTest.moc"
