#include <cerrno>
#include <cstring>

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CardImage.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "MountTableText.h"
#include "MountingHarness.h"
#include "StateMounting.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

using SystemCalls::Call;

namespace {

constexpr int kPatienceMs = 30000;
const QString kInfo = QStringLiteral("INFO St:Mounting StateMounting: ");
const QString kFormatCall = QStringLiteral("tavo-create-sdcardFS.sh");
const QString kCheckCall = QStringLiteral("e2fsck -p /card/mmcblk0p1");

bool waitForCall(const QString& call)
{
    return QTest::qWaitFor([&call] { return ToolStandIn::calls().contains(call); }, kPatienceMs);
}

// From here on every mount seems to succeed.
void pretendMounts()
{
    SystemCalls::fail(Call::Mount, 0, 100);
}

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
    void a_state_that_is_left_during_the_thorough_check_gets_no_report();
    void a_state_that_is_left_during_the_format_does_not_mount();
    void a_state_that_is_entered_again_starts_anew();
    void a_state_whose_run_has_no_result_stays_until_it_is_left();
};

void StateMountingLeavingTest::initTestCase()
{
    CardImage::prepareSysfs();
    ToolStandIn::putFirst();
}

void StateMountingLeavingTest::init()
{
    CardImage::writeDisk({CardImage::kLinux});
    ToolStandIn::place(ToolStandIn::kE2fsck, "");
    ToolStandIn::place(ToolStandIn::kFormatScript, "");
    ToolStandIn::takeCalls();
    ToolStandIn::holdBack();
    SystemCalls::reset();
}

void StateMountingLeavingTest::cleanup()
{
    ToolStandIn::letGo();
    SystemCalls::reset();
    TestDevice::remove("/media");
    CardImage::remove();
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
    LateMountTable mountTable;
    MountingHarness state;
    const LogCapture log;
    SystemCalls::takeCalls();
    state.enter();
    QVERIFY(mountTable.waitForReader());
    state.leave();
    QVERIFY(mountTable.give(table));
    QVERIFY(state.waitForWorker());
    QTEST(state.reports(), "reports");
    QCOMPARE(state.signalNames(), QStringList());
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList());
    QCOMPARE(SystemCalls::takeCalls().filter("mount "), QStringList());
}

void StateMountingLeavingTest::a_state_that_is_left_during_the_thorough_check_gets_no_report()
{
    pretendMounts();
    const QString deepCheck = "e2fsck -f -y -v -c /card/mmcblk0p1";
    ToolStandIn::place(ToolStandIn::kE2fsck,
                       "[ $1 = -p ] && exit 4\n" + ToolStandIn::kWait + "exit 0");
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall(deepCheck));
    QTRY_COMPARE(state.signalNames(), QStringList{"mountingStateActive"});
    state.leave();
    QVERIFY(state.worker().isRunning());
    ToolStandIn::letGo();
    QVERIFY(state.waitForWorker());
    // It came to its end.
    QVERIFY(log.messages().contains("Pass2 check result: 0"));
    QCOMPARE(state.reports(), QVector<int>());
    QCOMPARE(state.signalNames(), QStringList{"mountingStateActive"});
}

void StateMountingLeavingTest::a_state_that_is_left_during_the_format_does_not_mount()
{
    pretendMounts();
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, ToolStandIn::kWait + "exit 99");
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall(kFormatCall));
    QTRY_COMPARE(state.signalNames(), QStringList{"mountingStateActive"});
    state.leave();
    ToolStandIn::letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(describe(log.records()),
             (QStringList{kInfo + "New SD Card detected",
                          "INFO St:Mounting sdcard: "
                          "Executing '/opt/tavo/bin/tavo-create-sdcardFS.sh'..."}));
    QCOMPARE(state.reports(), QVector<int>());
    QCOMPARE(state.signalNames(), QStringList{"mountingStateActive"});
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{kFormatCall});
    QCOMPARE(SystemCalls::takeCalls().filter("mount "), QStringList());
}

void StateMountingLeavingTest::a_state_that_is_entered_again_starts_anew()
{
    pretendMounts();
    ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);
    MountingHarness state;
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall(kCheckCall));
    QTRY_COMPARE(state.signalNames(), QStringList{"mountingStateActive"});
    ToolStandIn::takeCalls();
    state.leave();
    state.enter();
    QVERIFY(waitForCall(kCheckCall));
    QCoreApplication::processEvents();
    QCOMPARE(state.signalNames(), (QStringList{"mountingStateActive", "mountingStateActive"}));
    ToolStandIn::letGo();
    QTRY_COMPARE_WITH_TIMEOUT(state.signalNames().size(), 3, kPatienceMs);
    QCOMPARE(state.signalNames().last(), QString("START_PREPARE"));
}

void StateMountingLeavingTest::a_state_whose_run_has_no_result_stays_until_it_is_left()
{
    LateMountTable mountTable;
    MountingHarness state;
    QSignalSpy finished(&state.state(), &QState::finished);
    // Of a run before.
    state.state().setTransitionChangeSignal(StateMounting::MountFailed);
    state.enter();
    QVERIFY(mountTable.waitForReader());
    Q_EMIT state.worker().setTransitionChangeSignal(StateMounting::IgnoreEmit);
    state.worker().requestStop();
    QVERIFY(mountTable.give("\n"));
    QVERIFY(!finished.isEmpty() || finished.wait(kPatienceMs));
    QCoreApplication::processEvents();
    QCOMPARE(state.reports(), QVector<int>{StateMounting::IgnoreEmit});
    QCOMPARE(state.signalNames(), QStringList());
    QVERIFY(state.state().active());
    state.leave();
    QVERIFY(!state.state().active());
}

TEST_DEVICE_MAIN(StateMountingLeavingTest)
#include "StateMountingLeavingTest.moc"
