#include <memory>

#include <QDir>
#include <QSignalSpy>
#include <QTest>

#include "CardConfig.h"
#include "EffectRecorder.h"
#include "LogCapture.h"
#include "MetaMethods.h"
#include "StateHarness.h"
#include "StatePreparing.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

namespace {

constexpr int kPatienceMs = 30000;

const QString kCard = QStringLiteral("/media/sdcard");
const QString kDoubled = QStringLiteral("/media/sdcard/csv/media/sdcard/csv");
const QString kScripts = QStringLiteral("/opt/tavo/share/tavo-sdcard/preparing");
const QString kUnpreparedMark = QStringLiteral("/run/sdcardd-unprepared");
const QByteArray kLayout = "<dir size='10'>logger</dir><dir size='10'>csv</dir>";

const QString kInfo = QStringLiteral("INFO St:Preparing StatePreparing: ");
const QString kLoggerDirectory = kInfo + "Logger directory is '/media/sdcard/logger'";

QString executing(const QString& script, const QString& arguments = "logger=/logger csv=/csv")
{
    return "INFO St:Preparing sdcard: Executing '" + kScripts + "/" + script +
           (arguments.isEmpty() ? QString() : " " + arguments) + "'...";
}

/// The state in a machine that enters it repeatedly.
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
        // Delivers the events that it has sent.
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
    void signals_and_slots_have_this_order();
    void the_worker_is_named_after_the_state();
    void a_script_without_configured_directories_gets_nothing();
    void without_scripts_nothing_runs_data();
    void without_scripts_nothing_runs();
    void no_step_follows_a_stop_request_data();
    void no_step_follows_a_stop_request();
    void a_prepared_card_loses_its_mark_data();
    void a_prepared_card_loses_its_mark();
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
    TestDevice::remove(kUnpreparedMark);
}

void StatePreparingTest::signals_and_slots_have_this_order()
{
    const QMetaObject& state = StatePreparing::staticMetaObject;
    const QMetaObject& worker = ThreadPreparing::staticMetaObject;
    QCOMPARE(methodsOf(state, QMetaMethod::Signal), QStringList{"MOUNT_SUCCESS()"});
    QCOMPARE(methodsOf(state, QMetaMethod::Slot), QStringList());
    QCOMPARE(methodsOf(worker, QMetaMethod::Signal), QStringList());
    QCOMPARE(methodsOf(worker, QMetaMethod::Slot), QStringList());
    QCOMPARE(state.superClass(), &QState::staticMetaObject);
    QCOMPARE(worker.superClass(), &QThread::staticMetaObject);
}

void StatePreparingTest::the_worker_is_named_after_the_state()
{
    Preparing state;
    QCOMPARE(state.worker().objectName(), QString("St:Preparing"));
    QCOMPARE(QString::fromStdString(state.worker().logger()->getName()), QString("St:Preparing"));
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

void StatePreparingTest::a_prepared_card_loses_its_mark_data()
{
    QTest::addColumn<bool>("isLeft");
    QTest::newRow("prepared") << false;
    // The last script runs to its end.
    QTest::newRow("left") << true;
}

void StatePreparingTest::a_prepared_card_loses_its_mark()
{
    QFETCH(const bool, isLeft);
    TestDevice::writeFile(kUnpreparedMark, {});
    ToolStandIn::place(kScripts + "/job", ToolStandIn::kWait + "echo end");
    Preparing state("");
    const LogCapture log;
    state.enter();
    QVERIFY(waitForCall("job"));
    QVERIFY(QFile::exists(kUnpreparedMark));
    if (isLeft) {
        state.leave();
    }
    ToolStandIn::letGo();
    QVERIFY(state.waitForWorker());
    QCOMPARE(log.messages().last(), QString("end"));
    QCOMPARE(QFile::exists(kUnpreparedMark), isLeft);
    QCOMPARE(state.successes(), isLeft ? 0 : 1);
}

TEST_DEVICE_MAIN(StatePreparingTest)
#include "StatePreparingTest.moc"
