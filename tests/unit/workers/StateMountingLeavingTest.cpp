#include <cerrno>
#include <cstring>

#include <QCoreApplication>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CardImage.h"
#include "LogCapture.h"
#include "MountTableText.h"
#include "MountingHarness.h"

using SystemCalls::Call;

namespace {

constexpr int kPatienceMs = 30000;
const QString kFormatCall = QStringLiteral("tavo-create-sdcardFS.sh");
const QString kCheckCall = QStringLiteral("e2fsck -p /card/mmcblk0p1");

bool waitForCall(const QString& call)
{
    return QTest::qWaitFor([&call] { return ToolStandIn::calls().contains(call); }, kPatienceMs);
}

// What is seen of the state before it is left.
const QStringList kActive{"mountingStateActive"};

/// Stops the thread that makes one kind of call until it may go on.
class HeldCall
{
public:
    explicit HeldCall(Call call)
    {
        SystemCalls::during(call, [this] {
            mHasBegun.release();
            mMayGoOn.acquire();
        });
    }
    bool waitFor()
    {
        return QTest::qWaitFor([this] { return mHasBegun.tryAcquire(); }, kPatienceMs);
    }
    void letGo() { mMayGoOn.release(); }

private:
    QSemaphore mHasBegun;
    QSemaphore mMayGoOn;
};

/// A mount table whose reader waits until it gets the content.
class LateMountTable
{
public:
    LateMountTable()
    {
        if (::mkfifo("/proc/mounts", 0600) != 0) {
            qFatal("cannot create the mount table: %s", std::strerror(errno));
        }
    }
    ~LateMountTable()
    {
        if (mEnd >= 0) {
            ::close(mEnd);
        }
    }
    LateMountTable(const LateMountTable&) = delete;
    LateMountTable(LateMountTable&&) = delete;
    LateMountTable& operator=(const LateMountTable&) = delete;
    LateMountTable& operator=(LateMountTable&&) = delete;

    bool waitForReader()
    {
        return QTest::qWaitFor(
            [this] {
                mEnd = ::open("/proc/mounts", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                return mEnd >= 0;
            },
            kPatienceMs);
    }
    bool give(const QByteArray& content)
    {
        const bool isWritten = ::write(mEnd, content.constData(),
                                       static_cast<std::size_t>(content.size())) == content.size();
        ::close(mEnd);
        mEnd = -1;
        return isWritten;
    }

private:
    const MountTable mDirectory{QByteArray()};
    int mEnd = -1;
};

} // namespace

/// The end of mounting: by a result, by none, and before there is any.
class StateMountingLeavingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void a_state_that_is_left_during_the_look_at_the_mount_table_touches_nothing_data();
    void a_state_that_is_left_during_the_look_at_the_mount_table_touches_nothing();
    void a_state_that_is_left_during_the_inspection_only_formats_data();
    void a_state_that_is_left_during_the_inspection_only_formats();
    void a_state_that_is_left_during_a_program_does_not_mount_data();
    void a_state_that_is_left_during_a_program_does_not_mount();
    void what_was_mounted_too_late_is_unmounted_or_prepared_next_data();
    void what_was_mounted_too_late_is_unmounted_or_prepared_next();
    void a_state_that_is_left_at_once_emits_nothing();
    void a_state_that_is_entered_again_starts_anew();
    void a_run_without_a_result_repeats_the_last_data();
    void a_run_without_a_result_repeats_the_last();
};

void StateMountingLeavingTest::initTestCase()
{
    CardImage::prepareSysfs();
    ToolStandIn::putFirst();
}

void StateMountingLeavingTest::init()
{
    prepareForMounting();
}

void StateMountingLeavingTest::cleanup()
{
    cleanUpAfterMounting();
}

void StateMountingLeavingTest::
    a_state_that_is_left_during_the_look_at_the_mount_table_touches_nothing_data()
{
    QTest::addColumn<QByteArray>("table");
    QTest::addColumn<QVector<int>>("reports");
    QTest::newRow("not mounted") << QByteArray("/dev/root / ext4 rw 0 0\n") << QVector<int>();
    // There is nothing that could be stopped.
    QTest::newRow("mounted") << QByteArray("/card/mmcblk0p1 /media/sdcard ext4 rw 0 0\n")
                             << QVector<int>{StateMounting::MountSuccess};
}

void StateMountingLeavingTest::
    a_state_that_is_left_during_the_look_at_the_mount_table_touches_nothing()
{
    QFETCH(const QByteArray, table);
    SystemCalls::reset();
    LateMountTable mountTable;
    SystemCalls::reset();
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(mountTable.waitForReader());
    state.leave();
    QVERIFY(mountTable.give(table));
    QVERIFY(state.waitForWorker());
    QTEST(state.reports(), "reports");
    QCOMPARE(state.signalNames(), QStringList());
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(ToolStandIn::takeCalls() + SystemCalls::takeCalls(), QStringList());
}

void StateMountingLeavingTest::a_state_that_is_left_during_the_inspection_only_formats_data()
{
    QTest::addColumn<bool>("hasTable");
    QTest::addColumn<bool>("hasPartition");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<QString>("lastRecord");
    QTest::newRow("a good card") << true << true << QStringList() << QString();
    QTest::newRow("no table") << false << false << QStringList()
                              << "FDisk: Failed to read partition table of device '/card/mmcblk0'";
    QTest::newRow("a foreign card") << true << false << QStringList{kFormatCall}
                                    << "Executing '/opt/tavo/bin/tavo-create-sdcardFS.sh'...";
}

void StateMountingLeavingTest::a_state_that_is_left_during_the_inspection_only_formats()
{
    QFETCH(const bool, hasTable);
    QFETCH(const bool, hasPartition);
    QFETCH(const QString, lastRecord);
    if (!hasTable) {
        CardImage::writeBlankDisk();
    } else if (!hasPartition) {
        CardImage::writeDisk({});
    }
    HeldCall inspection(Call::AssignDisk);
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(inspection.waitFor());
    QTRY_COMPARE(state.signalNames(), kActive);
    state.leave();
    inspection.letGo();
    QVERIFY(state.waitForWorker());
    QTEST(ToolStandIn::takeCalls(), "calls");
    QCOMPARE(log.messages().isEmpty() ? QString() : log.messages().last(), lastRecord);
    QCOMPARE(takeMountCalls(), QStringList());
    QCOMPARE(state.reports(), QVector<int>());
    QCOMPARE(state.signalNames(), kActive);
}

void StateMountingLeavingTest::a_state_that_is_left_during_a_program_does_not_mount_data()
{
    QTest::addColumn<QByteArray>("check");
    QTest::addColumn<QByteArray>("format");
    QTest::addColumn<QString>("heldCall");
    QTest::addColumn<QString>("lastRecord");
    QTest::newRow("format") << QByteArray() << ToolStandIn::kWait + "exit 99" << kFormatCall
                            << "Executing '/opt/tavo/bin/tavo-create-sdcardFS.sh'...";
    QTest::newRow("quick check") << ToolStandIn::kWait + "exit 1" << QByteArray() << kCheckCall
                                 << "Corrected some file system errors on SD Card!";
    // It runs to its end.
    QTest::newRow("thorough check") << "[ $1 = -p ] && exit 4\n" + ToolStandIn::kWait + "exit 0"
                                    << QByteArray() << "e2fsck -f -y -v -c /card/mmcblk0p1"
                                    << "Pass2 check result: 0";
}

void StateMountingLeavingTest::a_state_that_is_left_during_a_program_does_not_mount()
{
    QFETCH(const QByteArray, check);
    QFETCH(const QByteArray, format);
    QFETCH(const QString, heldCall);
    QFETCH(const QString, lastRecord);
    ToolStandIn::place(ToolStandIn::kE2fsck, check);
    if (!format.isEmpty()) {
        CardImage::writeDisk({});
        ToolStandIn::place(ToolStandIn::kFormatScript, format);
    }
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall(heldCall));
    QTRY_COMPARE(state.signalNames(), kActive);
    state.leave();
    QVERIFY(state.worker().isRunning());
    ToolStandIn::letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(log.messages().last(), lastRecord);
    QCOMPARE(ToolStandIn::takeCalls().last(), heldCall);
    QCOMPARE(takeMountCalls(), QStringList());
    QVERIFY(!QFile::exists("/media/sdcard"));
    QCOMPARE(state.reports(), QVector<int>());
    QCOMPARE(state.signalNames(), kActive);
}

void StateMountingLeavingTest::what_was_mounted_too_late_is_unmounted_or_prepared_next_data()
{
    QTest::addColumn<int>("mountError");
    QTest::addColumn<int>("unmountError");
    QTest::addColumn<QStringList>("warnings");
    QTest::addColumn<bool>("isMarked");
    const QString cannot = "Cannot unmount the card that was mounted too late: ";
    QTest::newRow("unmounted") << 0 << 0 << QStringList() << false;
    QTest::newRow("busy") << 0 << EBUSY << QStringList{cannot + "Device or resource busy"} << true;
    QTest::newRow("unmounted by others") << 0 << EINVAL << QStringList() << false;
    QTest::newRow("not mounted") << EIO << -1 << QStringList() << false;
}

void StateMountingLeavingTest::what_was_mounted_too_late_is_unmounted_or_prepared_next()
{
    QFETCH(const int, mountError);
    QFETCH(const int, unmountError);
    QFETCH(const bool, isMarked);
    SystemCalls::fail(Call::Mount, mountError);
    SystemCalls::fail(Call::Unmount, unmountError);
    HeldCall mount(Call::Mount);
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(mount.waitFor());
    state.leave();
    mount.letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(takeMountCalls().mid(1),
             unmountError < 0 ? QStringList() : QStringList{"umount2 /media/sdcard 0"});
    QTEST(log.messages(LogLevel::Warn), "warnings");
    QCOMPARE(QFile::exists(kUnpreparedMark), isMarked);
    QCOMPARE(QFile::exists("/media/sdcard"), isMarked);
    QCOMPARE(state.reports(), QVector<int>());
}

void StateMountingLeavingTest::a_state_that_is_left_at_once_emits_nothing()
{
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 99");
    MountingHarness state;
    QSignalSpy entered(state.state().initialState(), &QState::entered);
    connect(state.state().initialState(), &QState::entered, this, [&state] {
        // What the run sends until its end waits behind this.
        state.leaveLater();
        QVERIFY(state.worker().wait(kPatienceMs));
    });
    state.enter();
    QTRY_COMPARE(entered.size(), 1);
    QTRY_VERIFY(!state.state().active());
    QCoreApplication::processEvents();
    QCOMPARE(state.signalNames(), QStringList());
}

void StateMountingLeavingTest::a_state_that_is_entered_again_starts_anew()
{
    ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall(kCheckCall));
    QTRY_COMPARE(state.signalNames(), kActive);
    ToolStandIn::takeCalls();
    state.leave();
    state.enter();
    QVERIFY(waitForCall(kCheckCall));
    QTRY_COMPARE(state.signalNames(), kActive + kActive);
    ToolStandIn::letGo();
    QTRY_COMPARE_WITH_TIMEOUT(state.signalNames().size(), 3, kPatienceMs);
    QCOMPARE(state.signalNames().last(), QString("START_PREPARE"));
    // Nothing of the first check, which was killed.
    const QString ok = "SD Card Linux Ext4 format is ok";
    QCOMPARE(log.messages(), (QStringList{ok, ok}));
}

void StateMountingLeavingTest::a_run_without_a_result_repeats_the_last_data()
{
    QTest::addColumn<QVector<int>>("reports");
    QTest::addColumn<QStringList>("signalNames");
    QTest::newRow("no report") << QVector<int>() << QStringList{"MOUNT_FAILED"};
    QTest::newRow("an empty report") << QVector<int>{StateMounting::IgnoreEmit} << QStringList();
}

void StateMountingLeavingTest::a_run_without_a_result_repeats_the_last()
{
    QFETCH(const QVector<int>, reports);
    SystemCalls::reset();
    LateMountTable mountTable;
    SystemCalls::reset();
    MountingHarness state;
    QSignalSpy finished(&state.state(), &QState::finished);
    // Of a run before.
    state.state().setTransitionChangeSignal(StateMounting::MountFailed);
    state.enter();
    QVERIFY(mountTable.waitForReader());
    for (const int report : reports) {
        Q_EMIT state.worker().setTransitionChangeSignal(
            static_cast<StateMounting::eTransitionChangeSignalType>(report));
    }
    state.worker().requestStop();
    QVERIFY(mountTable.give("\n"));
    QVERIFY(!finished.isEmpty() || finished.wait(kPatienceMs));
    QCoreApplication::processEvents();
    QTEST(state.signalNames(), "signalNames");
    QVERIFY(state.state().active());
}

TEST_DEVICE_MAIN(StateMountingLeavingTest)
#include "StateMountingLeavingTest.moc"
