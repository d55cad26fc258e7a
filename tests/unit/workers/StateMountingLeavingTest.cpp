#include <cerrno>

#include <QCoreApplication>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>

#include "CardImage.h"
#include "LogCapture.h"
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

// The events before the state is left.
const QStringList kActive{"mountingStateActive"};

/// Blocks a thread at one place until it may continue.
class Hold
{
public:
    Hold() = default;
    explicit Hold(Call call)
    {
        SystemCalls::during(call, [this] { stay(); });
    }

    void stay()
    {
        mHasBegun.release();
        mMayGoOn.acquire();
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

} // namespace

/// The end of mounting: with a result, without one, and before there is one.
class StateMountingLeavingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void a_state_that_is_left_before_the_mount_table_is_read_touches_nothing_data();
    void a_state_that_is_left_before_the_mount_table_is_read_touches_nothing();
    void a_state_that_is_left_during_the_inspection_only_formats_data();
    void a_state_that_is_left_during_the_inspection_only_formats();
    void a_state_that_is_left_during_a_program_does_not_mount_data();
    void a_state_that_is_left_during_a_program_does_not_mount();
    void a_late_mount_is_undone_or_prepared_next_data();
    void a_late_mount_is_undone_or_prepared_next();
    void a_state_that_is_left_at_once_emits_nothing();
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
    a_state_that_is_left_before_the_mount_table_is_read_touches_nothing_data()
{
    QTest::addColumn<bool>("isMounted");
    QTest::addColumn<QVector<int>>("reports");
    QTest::newRow("not mounted") << false << QVector<int>();
    // Nothing has started yet that could be stopped.
    QTest::newRow("mounted") << true << QVector<int>{StateMounting::MountSuccess};
}

void StateMountingLeavingTest::a_state_that_is_left_before_the_mount_table_is_read_touches_nothing()
{
    QFETCH(const bool, isMounted);
    SystemCalls::reset();
    QVERIFY(!isMounted || TestDevice::mountTmpfs("/media/sdcard", 1 << 20));
    SystemCalls::reset();
    MountingHarness state;
    const LogCapture log;
    Hold start;
    connect(
        &state.worker(), &QThread::started, this, [&start] { start.stay(); }, Qt::DirectConnection);
    state.enter();
    QVERIFY(start.waitFor());
    state.leave();
    start.letGo();
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
    Hold inspection(Call::AssignDisk);
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
    // The program runs to its end.
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

void StateMountingLeavingTest::a_late_mount_is_undone_or_prepared_next_data()
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

void StateMountingLeavingTest::a_late_mount_is_undone_or_prepared_next()
{
    QFETCH(const int, mountError);
    QFETCH(const int, unmountError);
    QFETCH(const bool, isMarked);
    SystemCalls::fail(Call::Mount, mountError);
    SystemCalls::fail(Call::Unmount, unmountError);
    Hold mount(Call::Mount);
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
        // Everything that the run sends until its end is queued behind this.
        state.leaveLater();
        QVERIFY(state.worker().wait(kPatienceMs));
    });
    state.enter();
    QTRY_COMPARE(entered.size(), 1);
    QTRY_VERIFY(!state.state().active());
    QCoreApplication::processEvents();
    QCOMPARE(state.signalNames(), QStringList());
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
    QFETCH(const QStringList, signalNames);
    Hold inspection(Call::AssignDisk);
    MountingHarness state;
    QSignalSpy finished(&state.state(), &QState::finished);
    // The result of an earlier run.
    state.state().setTransitionChangeSignal(StateMounting::MountFailed);
    state.enter();
    QVERIFY(inspection.waitFor());
    QTRY_COMPARE(state.signalNames(), kActive);
    for (const int report : reports) {
        Q_EMIT state.worker().setTransitionChangeSignal(
            static_cast<StateMounting::eTransitionChangeSignalType>(report));
    }
    state.worker().requestStop();
    inspection.letGo();
    QVERIFY(!finished.isEmpty() || finished.wait(kPatienceMs));
    QCoreApplication::processEvents();
    QCOMPARE(state.signalNames(), kActive + signalNames);
    QVERIFY(state.state().active());
}

TEST_DEVICE_MAIN(StateMountingLeavingTest)
#include "StateMountingLeavingTest.moc"
