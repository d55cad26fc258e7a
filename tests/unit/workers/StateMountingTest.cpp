#include <cerrno>

#include <QSignalSpy>
#include <QTest>

#include "CardImage.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "MetaMethods.h"
#include "MountingHarness.h"

using SystemCalls::Call;

namespace {

const QString kCard = QStringLiteral("/media/sdcard");
const QString kInfo = QStringLiteral("INFO St:Mounting StateMounting: ");
const QString kError = QStringLiteral("ERROR St:Mounting StateMounting: ");
const QString kFormatting = QStringLiteral("INFO St:Mounting sdcard: "
                                           "Executing '/opt/tavo/bin/tavo-create-sdcardFS.sh'...");
const QString kFormatCall = QStringLiteral("tavo-create-sdcardFS.sh");
const QString kCheckCall = QStringLiteral("e2fsck -p /card/mmcblk0p1");
const QString kMountCall = QStringLiteral("mount /card/mmcblk0p1 /media/sdcard ext4 1024 "
                                          "data=journal,nodelalloc,journal_checksum");

} // namespace

/// How the worker judges the card, and the signals that the state then emits.
class StateMountingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void signals_and_slots_have_this_order();
    void the_worker_is_named_after_the_state();
    void each_result_has_its_signal_data();
    void each_result_has_its_signal();
    void results_pass_through_queued_connections();
    void the_card_decides_the_result_data();
    void the_card_decides_the_result();
    void a_new_file_system_is_announced_before_its_record();
    void a_mounted_card_is_prepared_only_if_marked_data();
    void a_mounted_card_is_prepared_only_if_marked();
    void a_mount_of_a_removed_card_fails();
};

void StateMountingTest::initTestCase()
{
    CardImage::prepareSysfs();
    ToolStandIn::putFirst();
}

void StateMountingTest::init()
{
    prepareForMounting();
}

void StateMountingTest::cleanup()
{
    cleanUpAfterMounting();
}

void StateMountingTest::signals_and_slots_have_this_order()
{
    const QMetaObject& state = StateMounting::staticMetaObject;
    const QMetaObject& worker = ThreadMounting::staticMetaObject;
    QCOMPARE(methodsOf(state, QMetaMethod::Signal),
             (QStringList{"START_PREPARE()", "MOUNT_SUCCESS()", "MOUNT_FAILED()", "MOUNT_CORRUPT()",
                          "newFsBirthDate(QDateTime)", "mountingStateActive()"}));
    QCOMPARE(methodsOf(state, QMetaMethod::Slot),
             (QStringList{"setTransitionChangeSignal(eTransitionChangeSignalType)",
                          "emitTransitionChangeSignal()"}));
    QCOMPARE(methodsOf(worker, QMetaMethod::Signal),
             QStringList{"setTransitionChangeSignal(StateMounting::eTransitionChangeSignalType)"});
    QCOMPARE(methodsOf(worker, QMetaMethod::Slot), QStringList());
    QCOMPARE(state.superClass(), &QState::staticMetaObject);
    QCOMPARE(worker.superClass(), &QThread::staticMetaObject);
}

void StateMountingTest::the_worker_is_named_after_the_state()
{
    MountingHarness state;
    QCOMPARE(state.worker().objectName(), QString("St:Mounting"));
    QCOMPARE(QString::fromStdString(state.worker().logger()->getName()), QString("St:Mounting"));
}

void StateMountingTest::each_result_has_its_signal_data()
{
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("signalNames");
    QTest::newRow("IgnoreEmit") << 0 << QStringList();
    QTest::newRow("StartPrepare") << 1 << QStringList{"START_PREPARE"};
    QTest::newRow("MountSuccess") << 2 << QStringList{"MOUNT_SUCCESS"};
    QTest::newRow("MountFailed") << 3 << QStringList{"MOUNT_FAILED"};
    QTest::newRow("MountCorupt") << 4 << QStringList{"MOUNT_CORRUPT"};
    QTest::newRow("") << 5 << QStringList();
    QTest::newRow("") << 7 << QStringList();
}

void StateMountingTest::each_result_has_its_signal()
{
    QFETCH(const int, result);
    QFETCH(const QStringList, signalNames);
    const QMetaEnum results = QMetaEnum::fromType<StateMounting::eTransitionChangeSignalType>();
    QCOMPARE(QString(results.valueToKey(result)), QString(QTest::currentDataTag()));
    MountingHarness state;
    state.state().setTransitionChangeSignal(
        static_cast<StateMounting::eTransitionChangeSignalType>(result));
    QCOMPARE(state.signalNames(), QStringList());
    state.state().emitTransitionChangeSignal();
    QCOMPARE(state.signalNames(), signalNames);
    // It stays until the next report.
    state.state().emitTransitionChangeSignal();
    QCOMPARE(state.signalNames(), signalNames + signalNames);
}

void StateMountingTest::results_pass_through_queued_connections()
{
    const MountingHarness state;
    QVERIFY(QMetaType::type("StateMounting::eTransitionChangeSignalType") !=
            QMetaType::UnknownType);
}

void StateMountingTest::the_card_decides_the_result_data()
{
    using Types = std::vector<unsigned char>;
    const QString ok = kInfo + "SD Card Linux Ext4 format is ok";
    const QString created = kInfo + "SD Card Linux Ext4 format was new initialized";
    const QStringList isNew{kInfo + "New SD Card detected", kFormatting};
    const auto failed = [](const char* code) {
        return kError + "SD Card MMC formatting failed (exit code: " + code + ")";
    };
    const QStringList good{"START_PREPARE"};
    const QStringList bad{"MOUNT_FAILED"};
    const QStringList check{kCheckCall, kMountCall};
    const QStringList formatAndCheck{kFormatCall, kCheckCall, kMountCall};

    QTest::addColumn<std::vector<unsigned char>>("types");
    QTest::addColumn<QByteArray>("formatScript");
    QTest::addColumn<int>("mountError");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<QStringList>("records");
    QTest::addColumn<QStringList>("result");
    // clang-format off
    QTest::newRow("one of Linux")     << Types{0x83}       << QByteArray()                << 0   << check          << QStringList{ok}                << good;
    QTest::newRow("no partition")     << Types{}           << QByteArray("exit 99")       << 0   << formatAndCheck << isNew + QStringList{created}   << QStringList{"newFsBirthDate"} + good;
    QTest::newRow("FAT")              << Types{0x0c}       << QByteArray("exit 99")       << 0   << formatAndCheck << isNew + QStringList{created}   << QStringList{"newFsBirthDate"} + good;
    QTest::newRow("two of Linux")     << Types{0x83, 0x83} << QByteArray("exit 0")        << 0   << formatAndCheck << isNew + QStringList{ok}        << good;
    QTest::newRow("Linux and FAT")    << Types{0x83, 0x0c} << QByteArray("exit 0")        << 0   << formatAndCheck << isNew + QStringList{ok}        << good;
    QTest::newRow("a failing format") << Types{}           << QByteArray("exit 255")      << 0   << QStringList{kFormatCall} << isNew + QStringList{failed("255")} << bad;
    QTest::newRow("a crashed format") << Types{}           << QByteArray("kill -KILL $$") << 0   << QStringList{kFormatCall}
        << isNew + QStringList{"ERROR St:Mounting sdcard: QProcess::CrashExit: Process crashed", failed("-1")} << bad;
    QTest::newRow("a failing mount")  << Types{0x83}       << QByteArray()                << EIO << check
        << QStringList{ok, kError + "Mount failed: Input/output error"} << QStringList{"MOUNT_CORRUPT"};
    // clang-format on
}

void StateMountingTest::the_card_decides_the_result()
{
    QFETCH(const std::vector<unsigned char>, types);
    QFETCH(const QByteArray, formatScript);
    QFETCH(const int, mountError);
    QFETCH(const QStringList, records);
    QFETCH(const QStringList, result);
    CardImage::writeDisk(types);
    ToolStandIn::place(ToolStandIn::kFormatScript, formatScript);
    SystemCalls::fail(Call::Mount, mountError);
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), QStringList{"mountingStateActive"} + result);
    QVERIFY(state.isInMainThread());
    QCOMPARE(describe(log.records()), records);
    QTEST(ToolStandIn::takeCalls() + takeMountCalls(), "calls");
    QCOMPARE(log.errorCount(), static_cast<unsigned int>(records.filter("ERROR ").size()));
    // The mark of a mounted card that still needs its preparation.
    QCOMPARE(QFile::exists(kUnpreparedMark), result.contains("START_PREPARE"));
}

void StateMountingTest::a_new_file_system_is_announced_before_its_record()
{
    CardImage::writeDisk({});
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 99");
    MountingHarness state;
    const QSignalSpy births(&state.state(), &StateMounting::newFsBirthDate);
    LogCapture log;
    log.holdAt("SD Card Linux Ext4 format was new initialized");
    const QDateTime before = QDateTime::currentDateTime();
    state.enter();
    QTRY_VERIFY(state.worker().isRunning());
    QVERIFY(log.waitUntilHeld());
    QCoreApplication::processEvents();
    QCOMPARE(births.size(), 1);
    const QDateTime birth = births.at(0).at(0).toDateTime();
    QVERIFY(birth >= before && birth <= QDateTime::currentDateTime());
    log.letGo();
    QVERIFY(state.waitForWorker());
}

void StateMountingTest::a_mounted_card_is_prepared_only_if_marked_data()
{
    QTest::addColumn<bool>("isMarked");
    QTest::addColumn<QStringList>("result");
    QTest::newRow("prepared") << false << QStringList{"MOUNT_SUCCESS"};
    QTest::newRow("preparation cut short") << true << QStringList{"START_PREPARE"};
}

void StateMountingTest::a_mounted_card_is_prepared_only_if_marked()
{
    QFETCH(const bool, isMarked);
    SystemCalls::reset();
    QVERIFY(TestDevice::mountTmpfs(kCard, 1 << 20));
    SystemCalls::reset();
    if (isMarked) {
        TestDevice::writeFile(kUnpreparedMark, {});
    }
    MountingHarness state;
    const LogCapture log;
    QTEST(state.run(), "result");
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(ToolStandIn::takeCalls() + takeMountCalls(), QStringList());
}

void StateMountingTest::a_mount_of_a_removed_card_fails()
{
    SystemCalls::reset();
    QVERIFY(CardImage::createPartition());
    QVERIFY(CardImage::mountPartition(kCard));
    MountingHarness state;
    const LogCapture log;
    QCOMPARE(state.run(), QStringList{"MOUNT_SUCCESS"});
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(TestDevice::mountTmpfs("/sys/dev/block", 4096));
    state.leave();
    const QStringList afterwards = state.run().mid(1);
    TestDevice::unmountAll("/sys/dev/block");
    QCOMPARE(afterwards, QStringList{"MOUNT_FAILED"});
    QCOMPARE(describe(log.records()),
             QStringList{kError + "The card that is mounted at '/media/sdcard' is no longer there, "
                                  "a program still uses it"});
    QCOMPARE(log.errorCount(), 1U);
}

TEST_DEVICE_MAIN(StateMountingTest)
#include "StateMountingTest.moc"
