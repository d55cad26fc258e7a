#include <memory>

#include <QDir>
#include <QSignalSpy>
#include <QTest>

#include "CardConfig.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "StateHarness.h"
#include "StatePreparing.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

namespace {

constexpr int kPatienceMs = 30000;

const QString kCard = QStringLiteral("/media/sdcard");
const QString kDoubled = QStringLiteral("/media/sdcard/csv/media/sdcard/csv");
const QString kScripts = QStringLiteral("/opt/tavo/share/tavo-sdcard/preparing");
const QByteArray kLayout = "<dir size='10'>logger</dir><dir size='10'>csv</dir>";

const QString kInfo = QStringLiteral("INFO St:Preparing StatePreparing: ");
const QString kLoggerDirectory = kInfo + "Logger directory is '/media/sdcard/logger'";

QString executing(const QString& script, const QString& arguments = "logger=/logger csv=/csv")
{
    return "INFO St:Preparing sdcard: Executing '" + kScripts + "/" + script +
           (arguments.isEmpty() ? QString() : " " + arguments) + "'...";
}

/// The state in a machine, entered over and over.
class Preparing
{
public:
    explicit Preparing(const QByteArray& children = kLayout)
        : mConfig(CardConfig::withChildren(children)), mState(new StatePreparing(mConfig)),
          mHarness(mState), mSuccess(mState, &StatePreparing::MOUNT_SUCCESS)
    {}

    void enter() { Q_EMIT mHarness.enter(); }
    void leave()
    {
        Q_EMIT mHarness.leave();
        QVERIFY(QTest::qWaitFor([this] { return !mHarness.isActive(); }, kPatienceMs));
    }
    bool waitForSuccess(int times = 1)
    {
        return QTest::qWaitFor([this, times] { return mSuccess.size() >= times; }, kPatienceMs) &&
               mSuccess.size() == times;
    }
    int successes() const { return mSuccess.size(); }
    ThreadPreparing& worker() { return *mState->findChild<ThreadPreparing*>(); }
    bool waitForWorker()
    {
        const bool isFinished = worker().wait(kPatienceMs);
        // What it has sent arrives.
        QCoreApplication::processEvents();
        return isFinished;
    }

private:
    ConfigHandler mConfig;
    StatePreparing* mState;
    StateHarness mHarness;
    QSignalSpy mSuccess;
};

bool waitForCall(const QString& call)
{
    return QTest::qWaitFor([&call] { return ToolStandIn::calls().contains(call); }, kPatienceMs);
}

} // namespace

class StatePreparingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void the_worker_is_named_after_the_state();
    void the_steps_follow_each_other();
    void a_layout_that_cannot_be_applied_is_told_and_the_rest_is_done();
    void executable_files_run_in_the_order_of_their_names();
    void a_script_gets_each_directory_with_its_path();
    void a_script_without_configured_directories_gets_nothing();
    void a_script_that_fails_does_not_stop_the_next();
    void without_scripts_nothing_runs_data();
    void without_scripts_nothing_runs();
    void no_step_follows_a_stop_request_data();
    void no_step_follows_a_stop_request();
    void a_script_runs_to_its_end_when_the_state_is_left();
    void a_state_that_is_left_emits_nothing();
    void a_state_that_is_entered_again_starts_anew();
    void each_entry_runs_everything();
};

void StatePreparingTest::init()
{
    QVERIFY(QDir().mkpath(kCard));
    ToolStandIn::holdBack();
    ToolStandIn::place(kScripts + "/job", "");
    ToolStandIn::takeCalls();
}

void StatePreparingTest::cleanup()
{
    ToolStandIn::letGo();
    TestDevice::remove(kScripts);
    TestDevice::remove("/media");
}

void StatePreparingTest::the_worker_is_named_after_the_state()
{
    Preparing state;
    QCOMPARE(state.worker().objectName(), QString("St:Preparing"));
    QCOMPARE(QString::fromStdString(state.worker().logger()->getName()), QString("St:Preparing"));
}

void StatePreparingTest::the_steps_follow_each_other()
{
    TestDevice::writeFile(kCard + "/PindleLogger.db", "content");
    TestDevice::writeFile(kDoubled + "/day/file", "content");
    Preparing state;
    const LogCapture log;
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(describe(log.records()),
             (QStringList{
                 kLoggerDirectory,
                 kInfo + "Succesffully moved logger database into new location",
                 kInfo + "move File From " + kDoubled + " to /media/sdcard/csv",
                 kInfo + "Succesffully moved csv files into new location",
                 kInfo + "Delete old Folder: /media/sdcard/csv/media",
                 kInfo + "Succesffully removed old csv directory",
                 executing("job"),
             }));
    // Into a directory that the layout created.
    QVERIFY(QFile::exists(kCard + "/logger/PindleLogger.db"));
    QVERIFY(QFile::exists(kCard + "/csv/file"));
    QCOMPARE(log.errorCount(), 0U);
}

void StatePreparingTest::a_layout_that_cannot_be_applied_is_told_and_the_rest_is_done()
{
    Preparing state("<dir size='10'>missing/logger</dir>");
    const LogCapture log;
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(log.messages(LogLevel::Error).size(), 2);
    const QStringList records = describe(log.records()).mid(2);
    QCOMPARE(records, (QStringList{
                          "WARN St:Preparing StatePreparing: Cannot apply sdcard layout",
                          executing("job", "missing/logger=/missing/logger"),
                      }));
    QCOMPARE(log.records().at(2).function, QString("virtual void ThreadPreparing::run()"));
    QCOMPARE(log.errorCount(), 2U);
}

void StatePreparingTest::executable_files_run_in_the_order_of_their_names()
{
    for (const char* const name : {"20-b", "10-a", "3", "Upper"}) {
        ToolStandIn::place(kScripts + "/" + name, "");
    }
    ToolStandIn::place(kScripts + "/.hidden", "");
    ToolStandIn::place(kScripts + "/directory/script", "");
    ToolStandIn::place("/opt/elsewhere", "");
    QVERIFY(QFile::link("/opt/elsewhere", kScripts + "/link"));
    ToolStandIn::place(kScripts + "/not-executable", "");
    QVERIFY(QFile::setPermissions(kScripts + "/not-executable", QFile::ReadOwner));
    Preparing state("");
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(ToolStandIn::takeCalls(), (QStringList{"10-a", "20-b", "3", "Upper", "job"}));
}

void StatePreparingTest::a_script_gets_each_directory_with_its_path()
{
    ToolStandIn::place(kScripts + "/job", "for a; do echo \"<$a>\"; done");
    Preparing state("<dir size='50'>with blank<dir size='10'>$(inner)</dir></dir>"
                    "<symlink target='x'>link</symlink><dir size='1'>z</dir>");
    const LogCapture log;
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(
        log.messages(LogLevel::Info).mid(1),
        (QStringList{"<with blank=/with blank>", "<$(inner)=/with blank/$(inner)>", "<z=/z>"}));
}

void StatePreparingTest::a_script_without_configured_directories_gets_nothing()
{
    Preparing state("");
    const LogCapture log;
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(describe(log.records()), QStringList{executing("job", "")});
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"job"});
}

void StatePreparingTest::a_script_that_fails_does_not_stop_the_next()
{
    ToolStandIn::place(kScripts + "/1", "exit 1");
    ToolStandIn::place(kScripts + "/2", "kill -KILL $$");
    TestDevice::writeScript(kScripts + "/3", "#!/no/such/interpreter\n");
    Preparing state("");
    const LogCapture log;
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(ToolStandIn::takeCalls(), (QStringList{"1", "2", "job"}));
    const QStringList errors = log.messages(LogLevel::Error);
    QCOMPARE(errors.size(), 2);
    QVERIFY(errors.at(0).startsWith("QProcess::CrashExit: "));
    QCOMPARE(errors.at(1), QString("Starting command failed (exitstatus:0)"));
    QCOMPARE(log.errorCount(), 2U);
}

void StatePreparingTest::without_scripts_nothing_runs_data()
{
    QTest::addColumn<bool>("isThere");
    QTest::newRow("empty directory") << true;
    QTest::newRow("no directory") << false;
}

void StatePreparingTest::without_scripts_nothing_runs()
{
    QFETCH(const bool, isThere);
    TestDevice::remove(kScripts);
    if (isThere) {
        QVERIFY(QDir().mkpath(kScripts));
    }
    Preparing state("");
    const LogCapture log;
    state.enter();
    QVERIFY(state.waitForSuccess());
    QCOMPARE(log.messages(), QStringList());
}

void StatePreparingTest::no_step_follows_a_stop_request_data()
{
    QTest::addColumn<QString>("heldAt");
    QTest::addColumn<QString>("last");
    const QString layout = "Correct directory mode '' for '/media/sdcard/logger'";
    const QString logger = "Logger directory is '/media/sdcard/logger'";
    const QString csv = "Succesffully removed old csv directory";
    QTest::newRow("layout") << layout << layout;
    QTest::newRow("database") << logger << logger;
    QTest::newRow("csv files") << "move File From " + kDoubled + " to /media/sdcard/csv" << csv;
}

void StatePreparingTest::no_step_follows_a_stop_request()
{
    QFETCH(const QString, heldAt);
    QFETCH(const QString, last);
    QVERIFY(QDir().mkpath(kCard + "/logger"));
    QVERIFY(QFile::setPermissions(kCard + "/logger", QFile::ReadOwner));
    TestDevice::writeFile(kDoubled + "/day/file", "content");
    Preparing state;
    LogCapture log;
    log.holdAt(heldAt);
    state.enter();
    QVERIFY(QTest::qWaitFor([&state] { return state.worker().isRunning(); }, kPatienceMs));
    QVERIFY(log.waitUntilHeld());
    state.leave();
    log.letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(log.messages().last(), last);
    QCOMPARE(state.successes(), 0);
}

void StatePreparingTest::a_script_runs_to_its_end_when_the_state_is_left()
{
    ToolStandIn::place(kScripts + "/1", ToolStandIn::kWait + "echo end");
    ToolStandIn::place(kScripts + "/2", "");
    Preparing state("");
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall("1"));
    state.leave();
    QVERIFY(state.worker().isRunning());
    ToolStandIn::letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"1"});
    QCOMPARE(log.messages().last(), QString("end"));
}

void StatePreparingTest::a_state_that_is_left_emits_nothing()
{
    ToolStandIn::place(kScripts + "/job", ToolStandIn::kWait);
    Preparing state("");
    state.enter();
    QVERIFY(waitForCall("job"));
    state.leave();
    ToolStandIn::letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(state.successes(), 0);
}

void StatePreparingTest::a_state_that_is_entered_again_starts_anew()
{
    ToolStandIn::place(kScripts + "/job", ToolStandIn::kWait);
    Preparing state("");
    state.enter();
    QVERIFY(waitForCall("job"));
    ToolStandIn::takeCalls();
    state.leave();
    state.enter();
    QVERIFY(waitForCall("job"));
    // The first run's end has been told by now.
    QCoreApplication::processEvents();
    QCOMPARE(state.successes(), 0);
    ToolStandIn::letGo();
    QVERIFY(state.waitForSuccess());
}

void StatePreparingTest::each_entry_runs_everything()
{
    Preparing state;
    for (int entry = 1; entry <= 3; ++entry) {
        LogCapture log;
        state.enter();
        QVERIFY(state.waitForSuccess(entry));
        QCOMPARE(describe(log.take()), (QStringList{kLoggerDirectory, executing("job")}));
        state.leave();
    }
}

TEST_DEVICE_MAIN(StatePreparingTest)
#include "StatePreparingTest.moc"
