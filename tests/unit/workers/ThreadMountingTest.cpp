#include <cerrno>

#include <QFileInfo>
#include <QTest>

#include <unistd.h>

#include "EffectRecorder.h"
#include "LogCapture.h"
#include "MountTableText.h"
#include "MountingHarness.h"

using SystemCalls::Call;

namespace {

const QString kCard = QStringLiteral("/media/sdcard");
const QString kDevice = QStringLiteral("/dev/mmcblk0p1");
const QString kInfo = QStringLiteral("INFO St:Mounting StateMounting: ");
const QString kWarn = QStringLiteral("WARN St:Mounting StateMounting: ");
const QString kError = QStringLiteral("ERROR St:Mounting StateMounting: ");
const QString kQuickCheck = QStringLiteral("e2fsck -p /dev/mmcblk0p1");
const QString kDeepCheck = QStringLiteral("e2fsck -f -y -v -c /dev/mmcblk0p1");
const QString kCorrected = kInfo + "Corrected some file system errors on SD Card!";
const QByteArray kReadOnly = "/dev/mmcblk0p1 /media/sdcard ext4 ro,noatime 0 0\n";

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

Outcome mountDevice(bool corruptBefore = false, LogLevel level = LogLevel::Debug)
{
    const ConfigHandler config;
    const ThreadMounting worker(config, nullptr);
    const LogCapture log(level);
    bool isCorrupt = corruptBefore;
    const bool isMounted = worker.mountDevice(kDevice, kCard, "ext4", isCorrupt);
    return {isMounted, isCorrupt, describe(log.records()), log.errorCount()};
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
    void a_card_is_checked_as_thoroughly_as_needed_and_mounted_data();
    void a_card_is_checked_as_thoroughly_as_needed_and_mounted();
    void a_check_that_does_not_start_counts_as_a_correction_data();
    void a_check_that_does_not_start_counts_as_a_correction();
    void failures_count_even_if_their_level_is_off();
    void an_interrupted_mount_is_repeated_data();
    void an_interrupted_mount_is_repeated();
    void a_card_that_is_in_the_mount_table_is_only_remounted_data();
    void a_card_that_is_in_the_mount_table_is_only_remounted();
    void a_mount_point_is_created_with_its_parents();
    void a_card_that_cannot_be_marked_is_mounted();
};

void ThreadMountingTest::initTestCase()
{
    ToolStandIn::putFirst();
}

void ThreadMountingTest::init()
{
    prepareForMounting();
}

void ThreadMountingTest::cleanup()
{
    cleanUpAfterMounting();
}

void ThreadMountingTest::a_card_is_checked_as_thoroughly_as_needed_and_mounted_data()
{
    const QString crash = "ERROR St:Mounting sdcard: QProcess::CrashExit: Process crashed";
    QTest::addColumn<QByteArray>("quick");
    QTest::addColumn<QByteArray>("deep");
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("records"); // of the last check
    QTest::addColumn<bool>("isCorrected");
    const auto row = [](const char* name, const QByteArray& quick, const QByteArray& deep,
                        int result, const QStringList& records, bool isCorrected) {
        QTest::newRow(name) << quick << deep << result << records << isCorrected;
    };
    row("clean", "exit 0", "", 0, {}, false);
    row("corrected", "exit 1", "", 1, {}, true);
    row("a crash", "kill -KILL $$", "", -1, {crash}, true);
    row("reboot advised, then clean", "exit 2", "exit 0", 0, {}, false);
    row("errors left, then corrected", "exit 4", "exit 1", 1, {}, true);
    row("errors left, then reboot advised", "exit 4", "exit 2", 2, {}, true);
    row("errors left twice", "exit 4", "exit 4", 4, {}, false);
    row("errors left, then some corrected", "exit 4", "exit 5", 5, {}, true);
    row("operational errors", "exit 8", "exit 8", 8, {}, false);
    row("all at once", "exit 255", "exit 12", 12, {}, false);
    row("errors left, then a crash", "exit 4", "kill -KILL $$", -1, {crash}, true);
    row("output of the second", "echo not seen; exit 4", "echo out; echo err >&2; exit 0", 0,
        {"INFO St:Mounting sdcard: out", "ERROR St:Mounting sdcard: err"}, false);
}

void ThreadMountingTest::a_card_is_checked_as_thoroughly_as_needed_and_mounted()
{
    QFETCH(const QByteArray, quick);
    QFETCH(const QByteArray, deep);
    QFETCH(const int, result);
    QFETCH(QStringList, records);
    QFETCH(const bool, isCorrected);
    ToolStandIn::place(ToolStandIn::kE2fsck, "if [ $1 = -p ]; then\n" + quick + "\nfi\n" + deep);
    QStringList calls{kQuickCheck};
    if (!deep.isEmpty()) {
        calls.append(kDeepCheck);
        records = QStringList{kInfo + "Run deeply file system check",
                              "INFO St:Mounting sdcard: Executing '" + kDeepCheck + "'..."} +
                  records + QStringList{kInfo + "Pass2 check result: " + QString::number(result)};
    }
    {
        const ConfigHandler config;
        const ThreadMounting worker(config, nullptr);
        QCOMPARE(static_cast<int>(worker.checkAndRepairFS(kDevice)), result);
        QCOMPARE(ToolStandIn::takeCalls(), calls);
    }
    const Outcome outcome = mountDevice(true);
    QVERIFY(outcome.isMounted);
    QVERIFY(!outcome.isCorrupt);
    QCOMPARE(outcome.records, records + (isCorrected ? QStringList{kCorrected} : QStringList()));
    QCOMPARE(takeMountCalls(), QStringList{mountCall(1024)});
}

void ThreadMountingTest::a_check_that_does_not_start_counts_as_a_correction_data()
{
    QTest::addColumn<QByteArray>("check");
    QTest::addColumn<int>("infos");
    QTest::newRow("the first") << QByteArray() << 0;
    QTest::newRow("the second") << QByteArray("/bin/rm \"$0\"; exit 4") << 3;
}

void ThreadMountingTest::a_check_that_does_not_start_counts_as_a_correction()
{
    QFETCH(const QByteArray, check);
    QFETCH(const int, infos);
    // The machine has a real e2fsck.
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", "/opt/stand-ins");
    if (check.isEmpty()) {
        TestDevice::remove(ToolStandIn::kE2fsck);
    } else {
        ToolStandIn::place(ToolStandIn::kE2fsck, check);
    }
    const Outcome outcome = mountDevice();
    qputenv("PATH", path);
    QVERIFY(outcome.isMounted);
    QCOMPARE(outcome.records.size(), infos + 2);
    QVERIFY(outcome.records.contains(
        "ERROR St:Mounting sdcard: Starting command failed (exitstatus:0)"));
    QCOMPARE(outcome.records.last(), kCorrected);
    QCOMPARE(outcome.errors, 1U);
}

void ThreadMountingTest::failures_count_even_if_their_level_is_off()
{
    SystemCalls::fail(Call::Mount, EIO);
    const Outcome outcome = mountDevice(false, LogLevel::Off);
    QVERIFY(!outcome.isMounted);
    QVERIFY(outcome.isCorrupt);
    QCOMPARE(outcome.errors, 1U);
    QCOMPARE(outcome.records, QStringList());
}

void ThreadMountingTest::an_interrupted_mount_is_repeated_data()
{
    QTest::addColumn<QByteArray>("table");
    QTest::addColumn<int>("flags");
    QTest::newRow("mount") << QByteArray("\n") << 1024;
    QTest::newRow("remount") << kReadOnly << 1056;
}

void ThreadMountingTest::an_interrupted_mount_is_repeated()
{
    QFETCH(const QByteArray, table);
    QFETCH(const int, flags);
    SystemCalls::reset();
    const MountTable mountTable(table);
    SystemCalls::reset();
    // Later calls reach the system, which has no such device.
    SystemCalls::fail(Call::Mount, EINTR, 3);
    QVERIFY(!mountDevice().isMounted);
    const QString call = mountCall(flags);
    QCOMPARE(takeMountCalls(), (QStringList{call, call, call, call}));
}

void ThreadMountingTest::a_card_that_is_in_the_mount_table_is_only_remounted_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("error");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<bool>("isMounted");
    QTest::addColumn<QStringList>("records");
    const QStringList remount{mountCall(1056)};
    QTest::newRow("writable") << QByteArray("rw") << 0 << QStringList() << true << QStringList();
    QTest::newRow("read-only") << QByteArray("ro") << 0 << remount << true << QStringList();
    QTest::newRow("read-only for good")
        << QByteArray("ro") << EROFS << remount << false
        << QStringList{kError + "Mount failed: Read-only file system"};
    QTest::newRow("unclear") << QByteArray("noatime") << 0 << QStringList() << false
                             << QStringList{kError + "Mount failed: "};
}

void ThreadMountingTest::a_card_that_is_in_the_mount_table_is_only_remounted()
{
    QFETCH(const QByteArray, options);
    QFETCH(const int, error);
    QFETCH(const QStringList, calls);
    QFETCH(const QStringList, records);
    SystemCalls::reset();
    const MountTable table("/dev/mmcblk0p1 /media/sdcard ext4 " + options + " 0 0\n");
    for (const bool corruptBefore : {false, true}) {
        SystemCalls::reset();
        SystemCalls::fail(Call::Mount, error);
        const Outcome outcome = mountDevice(corruptBefore);
        QTEST(outcome.isMounted, "isMounted");
        QCOMPARE(outcome.isCorrupt, corruptBefore);
        QCOMPARE(outcome.records.size(), records.size());
        QVERIFY(records.isEmpty() || outcome.records.first().startsWith(records.first()));
        QCOMPARE(outcome.errors, static_cast<unsigned int>(records.size()));
        QCOMPARE(ToolStandIn::takeCalls() + takeMountCalls(), calls);
        // A mounted card must not be emptied.
        QVERIFY(QFile::exists(kCard));
    }
}

void ThreadMountingTest::a_mount_point_is_created_with_its_parents()
{
    TestDevice::remove("/media");
    QVERIFY(mountDevice().isMounted);
    QVERIFY(QFileInfo(kCard).isDir());
}

void ThreadMountingTest::a_card_that_cannot_be_marked_is_mounted()
{
    QCOMPARE(::symlink("/nowhere", kUnpreparedMark.toUtf8()), 0);
    const Outcome outcome = mountDevice();
    QVERIFY(outcome.isMounted);
    QCOMPARE(outcome.records, QStringList{kWarn + "Cannot mark the card as unprepared: Too many "
                                                  "levels of symbolic links"});
}

TEST_DEVICE_MAIN(ThreadMountingTest)
#include "ThreadMountingTest.moc"
