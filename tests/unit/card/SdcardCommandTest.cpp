#include <csignal>
#include <thread>

#include <QProcess>
#include <QTest>

#include "ControllerDevice.h"
#include "LogCapture.h"
#include "TestDevice.h"

/// How the service runs a program: with its output logged, and with its output captured.
class SdcardCommandTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();
    void a_run_has_this_result_and_these_records_data();
    void a_run_has_this_result_and_these_records();
    void a_capture_has_this_result_and_these_records_data();
    void a_capture_has_this_result_and_these_records();
    void the_command_line_is_logged_on_request_data();
    void the_command_line_is_logged_on_request();
    void records_that_are_off_are_not_written_and_failures_still_count();
    void a_worker_runs_commands_with_its_own_logger();
    void no_process_object_outlives_a_capture();

private:
    TestBus mBus;
};

namespace {

const QString kTool = QStringLiteral("/opt/tool");
const QString kPidFile = QStringLiteral("/run/tool.pid");
// exec, so that the shell leaves no child.
const QByteArray kHang = "echo $$ > /run/tool.pid; exec sleep 1000";
const QString kExecuting = QStringLiteral("INFO Executing '/opt/tool'...");
const QString kNotStarted = QStringLiteral("ERROR Starting command failed (exitstatus:0)");
const QString kCrashed = QStringLiteral("ERROR QProcess::CrashExit: Process crashed");
const QString kTooLong =
    QStringLiteral("ERROR Wait until command finished failed (error or timeout)");

log4cxx::LoggerPtr worker()
{
    return log4cxx::Logger::getLogger("worker");
}

// Without a script the program does not exist.
void placeTool(const QByteArray& script)
{
    if (!script.isEmpty()) {
        TestDevice::writeScript(kTool, "#!/bin/sh\n" + script);
    }
}

int run(const QByteArray& script, bool verbose, int timeoutMs = 10000)
{
    placeTool(script);
    return Sdcard::runCMD(worker(), kTool, {}, verbose, timeoutMs);
}

bool hasHangingTool()
{
    const QByteArray processId = TestDevice::readFile(kPidFile).trimmed();
    return !processId.isEmpty() && ::kill(processId.toInt(), 0) == 0;
}

// Level and text of each record; all of them have the same channel and origin.
void compareRecords(const LogCapture& log, const QString& channel, const QString& function,
                    const QStringList& expected)
{
    QStringList texts;
    for (const LogRecord& record : log.records()) {
        QCOMPARE(record.channel, channel);
        QCOMPARE(record.source, QString("sdcard"));
        QVERIFY2(record.function.startsWith(function), qPrintable(record.function));
        texts.append((record.level == LogLevel::Error ? "ERROR " : "INFO ") + record.message);
    }
    QCOMPARE(texts, expected);
    QCOMPARE(log.errorCount(), static_cast<unsigned int>(expected.filter("ERROR ").size()));
}

} // namespace

void SdcardCommandTest::cleanup()
{
    TestDevice::remove(kTool);
    TestDevice::remove(kPidFile);
}

void SdcardCommandTest::a_run_has_this_result_and_these_records_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<bool>("verbose");
    QTest::addColumn<int>("timeoutMs");
    QTest::addColumn<int>("code");
    QTest::addColumn<QStringList>("records");
    const auto row = [](const char* name, const QByteArray& script, bool verbose, int code,
                        QStringList records, int timeoutMs = 10000) {
        if (verbose) {
            records.prepend(kExecuting);
        }
        QTest::newRow(name) << script << verbose << timeoutMs << code << records;
    };
    row("success", "exit 0", true, 0, {});
    row("success in silence", "echo out; echo err >&2", false, 0, {});
    row("an exit code", "exit 99", true, 99, {});
    row("the largest exit code in silence", "exit 255", false, 255, {});
    row("output line by line", "echo one; echo; printf two", true, 0,
        {"INFO one", "INFO ", "INFO two"});
    row("errors after the output", "echo bad >&2; echo good; echo worse >&2", true, 0,
        {"INFO good", "ERROR bad", "ERROR worse"});
    row("output up to a NUL byte", R"(printf 'a\nb\0c\nd\n'; printf 'e\0f' >&2)", true, 0,
        {"INFO a", "INFO b", "ERROR e"});
    row("UTF-8", "printf 'Gr\\303\\266\\303\\237e\\n'", true, 0,
        {QString::fromUtf8("INFO Gr\303\266\303\237e")});
    row("no program", "", true, -1, {kNotStarted});
    row("no program, in silence", "", false, -1, {kNotStarted});
    row("a crash", "echo out; echo err >&2; kill -9 $$", true, -1,
        {"INFO out", "ERROR err", kCrashed});
    row("a crash in silence", "kill -SEGV $$", false, -1, {kCrashed});
    row("too long", "echo out; echo err >&2; " + kHang, true, -1,
        {"INFO out", "ERROR err", kTooLong}, 500);
    row("a wait for input that never comes", "read line; echo $line", false, -1, {kTooLong}, 200);
}

void SdcardCommandTest::a_run_has_this_result_and_these_records()
{
    QFETCH(const QByteArray, script);
    QFETCH(const bool, verbose);
    QFETCH(const int, timeoutMs);
    QFETCH(const QStringList, records);
    const LogCapture log;
    QTEST(run(script, verbose, timeoutMs), "code");
    compareRecords(log, "worker", "static int Sdcard::runCMD(log4cxx::LoggerPtr,", records);
    QVERIFY(!hasHangingTool());
}

void SdcardCommandTest::a_capture_has_this_result_and_these_records_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<bool>("verbose");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QStringList>("records");
    const QStringList executing{kExecuting};
    const QStringList started = executing + QStringList{"ERROR err"};
    // clang-format off
    QTest::newRow("verbose")     << QByteArray("echo one; echo two; echo err >&2")      << true  << 0  << QByteArray("one\ntwo\n") << started + QStringList{"INFO one", "INFO two"};
    QTest::newRow("silent")      << QByteArray("echo one; echo err >&2; exit 7")        << false << 7  << QByteArray("one\n")      << QStringList();
    QTest::newRow("no output")   << QByteArray("exit 0")                                << false << 0  << QByteArray()             << QStringList();
    QTest::newRow("NUL bytes")   << QByteArray("printf 'a\\0b\\n'")                     << false << 0  << QByteArray("a\0b\n", 4)  << QStringList();
    QTest::newRow("not started") << QByteArray()                                        << true  << -1 << QByteArray("old")        << executing + QStringList{kNotStarted};
    QTest::newRow("a crash")     << QByteArray("echo x; echo err >&2; kill -9 $$")      << true  << -1 << QByteArray("old")        << started + QStringList{kCrashed};
    QTest::newRow("too long")    << QByteArray("echo x; echo err >&2; " + kHang)        << true  << -1 << QByteArray("old")        << started + QStringList{kTooLong};
    // clang-format on
}

void SdcardCommandTest::a_capture_has_this_result_and_these_records()
{
    QFETCH(const QByteArray, script);
    QFETCH(const bool, verbose);
    QFETCH(const QStringList, records);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    placeTool(script);
    const LogCapture log;
    QByteArray output("old");
    QTEST(controller.runCMD(kTool, {}, output, verbose, 1000), "code");
    QTEST(output, "output");
    compareRecords(log, "sdcard", "int Sdcard::runCMD(const QString&,", records);
    QVERIFY(!hasHangingTool());
}

void SdcardCommandTest::the_command_line_is_logged_on_request_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << QStringList() << "Executing '/bin/true'...";
    QTest::newRow("one") << QStringList{"-x"} << "Executing '/bin/true -x'...";
    QTest::newRow("nothing is for a shell") << QStringList{"a b", "$HOME", "*", "", "';'"}
                                            << "Executing '/bin/true a b $HOME *  ';''...";
}

void SdcardCommandTest::the_command_line_is_logged_on_request()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, text);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const LogCapture log;
    QByteArray output;
    QCOMPARE(Sdcard::runCMD(worker(), "/bin/true", arguments, true, 10000), 0);
    QCOMPARE(controller.runCMD("/bin/true", arguments, output, true, 10000), 0);
    QCOMPARE(describe(log.records()),
             (QStringList{"INFO worker sdcard: " + text, "INFO sdcard sdcard: " + text}));
}

void SdcardCommandTest::records_that_are_off_are_not_written_and_failures_still_count()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QByteArray output;
    for (const LogLevel level : {LogLevel::Error, LogLevel::Off}) {
        const LogCapture log(level);
        const bool isError = level == LogLevel::Error;
        QCOMPARE(run("echo good; echo bad >&2", true), 0);
        QCOMPARE(controller.runCMD(kTool, {}, output, true, 10000), 0);
        QCOMPARE(output, QByteArray("good\n"));
        QCOMPARE(log.messages(), isError ? QStringList({"bad", "bad"}) : QStringList());
        const unsigned int before = log.errorCount();
        QCOMPARE(before, isError ? 2U : 0U);
        QCOMPARE(run("kill -9 $$", false), -1);
        QCOMPARE(run(kHang, false, 100), -1);
        TestDevice::remove(kTool);
        QCOMPARE(run("", false), -1);
        QCOMPARE(controller.runCMD(kTool, {}, output, false, 10000), -1);
        QCOMPARE(log.errorCount() - before, 4U);
    }
}

void SdcardCommandTest::a_worker_runs_commands_with_its_own_logger()
{
    const LogCapture log;
    int code = -1;
    std::thread([&code] { code = run("echo threaded; exit 3", true); }).join();
    QCOMPARE(code, 3);
    QCOMPARE(log.records().last().channel, QString("worker"));
    QCOMPARE(log.messages().last(), QString("threaded"));
}

void SdcardCommandTest::no_process_object_outlives_a_capture()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    QByteArray output;
    controller.runCMD("/bin/true", {}, output, false, 10000);
    controller.runCMD("/nowhere", {}, output, false, 10000);
    QVERIFY(controller.findChildren<QProcess*>().isEmpty());
}

TEST_DEVICE_MAIN(SdcardCommandTest)
#include "SdcardCommandTest.moc"
