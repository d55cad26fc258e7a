#include <csignal>
#include <thread>

#include <QProcess>
#include <QTest>

#include "ControllerDevice.h"
#include "LogCapture.h"
#include "TestDevice.h"

class SdcardCommandTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_exit_code_is_returned_and_judged_by_nobody_data();
    void the_exit_code_is_returned_and_judged_by_nobody();
    void arguments_reach_the_program_without_a_shell();
    void the_command_line_is_logged_where_asked_for_data();
    void the_command_line_is_logged_where_asked_for();
    void a_quiet_run_logs_nothing();
    void output_is_logged_line_by_line();
    void each_logged_error_line_counts_as_an_error();
    void without_info_records_only_errors_are_logged();
    void without_error_records_failures_still_count();
    void output_is_logged_up_to_a_nul_byte();
    void output_is_read_as_utf_8();
    void a_program_that_does_not_exist_is_reported();
    void a_program_that_crashes_is_reported();
    void a_program_that_takes_too_long_is_gone_afterwards();
    void a_crash_and_what_was_written_before_are_logged_in_this_order();
    void a_program_that_waits_for_input_gets_none();
    void a_worker_runs_commands_with_its_own_logger();

    void the_whole_output_replaces_what_was_there();
    void captured_output_is_logged_where_asked_for();
    void captured_output_keeps_its_nul_bytes();
    void captured_output_without_info_records_is_not_logged();
    void a_failed_capture_leaves_the_output_alone_data();
    void a_failed_capture_leaves_the_output_alone();
    void no_process_object_outlives_a_capture();

private:
    static int run(const QByteArray& script, bool verbose, int timeoutMs = 10000);

    TestBus mBus;
};

namespace {

const QString kTool = QStringLiteral("/opt/tool");
const QString kPidFile = QStringLiteral("/run/tool.pid");
// exec, so that no child of the shell's own is left.
const QByteArray kHang = "echo $$ > /run/tool.pid; exec sleep 1000";
const QString kExecuting = QStringLiteral("INFO worker sdcard: Executing '/opt/tool'...");

log4cxx::LoggerPtr worker()
{
    return log4cxx::Logger::getLogger("worker");
}

bool isRunning(const QByteArray& processId)
{
    return ::kill(processId.trimmed().toInt(), 0) == 0;
}

} // namespace

int SdcardCommandTest::run(const QByteArray& script, bool verbose, int timeoutMs)
{
    TestDevice::writeScript(kTool, "#!/bin/sh\n" + script);
    return Sdcard::runCMD(worker(), kTool, {}, verbose, timeoutMs);
}

void SdcardCommandTest::the_exit_code_is_returned_and_judged_by_nobody_data()
{
    QTest::addColumn<int>("code");
    for (const int code : {0, 1, 99, 255}) {
        QTest::addRow("%d", code) << code;
    }
}

void SdcardCommandTest::the_exit_code_is_returned_and_judged_by_nobody()
{
    QFETCH(const int, code);
    const LogCapture log;
    const QByteArray script = "exit " + QByteArray::number(code);
    QCOMPARE(run(script, false), code);
    QCOMPARE(log.records().size(), 0);
    QCOMPARE(run(script, true), code);
    QCOMPARE(describe(log.records()), QStringList{kExecuting});
    QCOMPARE(log.errorCount(), 0U);
}

void SdcardCommandTest::arguments_reach_the_program_without_a_shell()
{
    const LogCapture log;
    TestDevice::writeScript(kTool, "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done");
    QCOMPARE(Sdcard::runCMD(worker(), kTool, {"a b", "$HOME", "*", "", "';'"}, true, 10000), 0);
    QCOMPARE(log.messages(), (QStringList{"Executing '/opt/tool a b $HOME *  ';''...", "[a b]",
                                          "[$HOME]", "[*]", "[]", "[';']"}));
}

void SdcardCommandTest::the_command_line_is_logged_where_asked_for_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("text");
    QTest::newRow("none") << QStringList() << "Executing '/bin/true'...";
    QTest::newRow("one") << QStringList{"-x"} << "Executing '/bin/true -x'...";
    QTest::newRow("two") << QStringList{"-x", "y z"} << "Executing '/bin/true -x y z'...";
}

void SdcardCommandTest::the_command_line_is_logged_where_asked_for()
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

void SdcardCommandTest::a_quiet_run_logs_nothing()
{
    const LogCapture log;
    QCOMPARE(run("echo out; echo err >&2", false), 0);
    QCOMPARE(log.records().size(), 0);
    QCOMPARE(log.errorCount(), 0U);
}

void SdcardCommandTest::output_is_logged_line_by_line()
{
    const LogCapture log;
    QCOMPARE(run("echo one; echo; printf two", true), 0);
    QCOMPARE(describe(log.records()),
             (QStringList{kExecuting, "INFO worker sdcard: one",
                          "INFO worker sdcard: ", "INFO worker sdcard: two"}));
    QVERIFY(log.records().first().function.contains("Sdcard::runCMD("));
}

void SdcardCommandTest::each_logged_error_line_counts_as_an_error()
{
    const LogCapture log;
    QCOMPARE(run("echo bad >&2; echo good; echo worse >&2", true), 0);
    QCOMPARE(describe(log.records()),
             (QStringList{kExecuting, "INFO worker sdcard: good", "ERROR worker sdcard: bad",
                          "ERROR worker sdcard: worse"}));
    QCOMPARE(log.errorCount(), 2U);
}

void SdcardCommandTest::without_info_records_only_errors_are_logged()
{
    const LogCapture log(LogLevel::Error);
    QCOMPARE(run("echo good; echo bad >&2", true), 0);
    QCOMPARE(describe(log.records()), QStringList{"ERROR worker sdcard: bad"});
}

void SdcardCommandTest::without_error_records_failures_still_count()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const LogCapture log(LogLevel::Off);
    QCOMPARE(run("echo bad >&2", true), 0);
    QCOMPARE(log.errorCount(), 0U);
    QCOMPARE(Sdcard::runCMD(worker(), "/nowhere", {}, true, 10000), -1);
    QCOMPARE(log.errorCount(), 1U);
    QCOMPARE(run("kill -9 $$", true), -1);
    QCOMPARE(log.errorCount(), 2U);
    QCOMPARE(run(kHang, true, 100), -1);
    QCOMPARE(log.errorCount(), 3U);
    QByteArray output;
    QCOMPARE(controller.runCMD("/nowhere", {}, output, true, 10000), -1);
    QCOMPARE(log.errorCount(), 4U);
    QCOMPARE(log.records().size(), 0);
}

void SdcardCommandTest::output_is_logged_up_to_a_nul_byte()
{
    const LogCapture log;
    QCOMPARE(run(R"(printf 'a\nb\0c\nd\n'; printf 'e\0f' >&2)", true), 0);
    QCOMPARE(log.messages(), (QStringList{"Executing '/opt/tool'...", "a", "b", "e"}));
}

void SdcardCommandTest::output_is_read_as_utf_8()
{
    const LogCapture log;
    QCOMPARE(run("printf 'Gr\\303\\266\\303\\237e\\n'", true), 0);
    QCOMPARE(log.messages().last(), QString::fromUtf8("Gr\303\266\303\237e"));
}

void SdcardCommandTest::a_program_that_does_not_exist_is_reported()
{
    const LogCapture log;
    QCOMPARE(Sdcard::runCMD(worker(), "/nowhere", {"x"}, false, 10000), -1);
    QCOMPARE(describe(log.records()),
             QStringList{"ERROR worker sdcard: Starting command failed (exitstatus:0)"});
    QCOMPARE(log.errorCount(), 1U);
}

void SdcardCommandTest::a_program_that_crashes_is_reported()
{
    const LogCapture log;
    QCOMPARE(run("kill -SEGV $$", false), -1);
    QCOMPARE(describe(log.records()),
             QStringList{"ERROR worker sdcard: QProcess::CrashExit: Process crashed"});
    QCOMPARE(log.errorCount(), 1U);
}

void SdcardCommandTest::a_program_that_takes_too_long_is_gone_afterwards()
{
    const LogCapture log;
    TestDevice::remove(kPidFile);
    QCOMPARE(run("echo before; echo trouble >&2; " + kHang, true, 500), -1);
    const QByteArray processId = TestDevice::readFile(kPidFile);
    QVERIFY(!processId.isEmpty());
    QVERIFY(!isRunning(processId));
    QCOMPARE(describe(log.records()),
             (QStringList{kExecuting, "INFO worker sdcard: before", "ERROR worker sdcard: trouble",
                          "ERROR worker sdcard: Wait until command finished failed (error or "
                          "timeout)"}));
    QCOMPARE(log.errorCount(), 2U);
}

void SdcardCommandTest::a_crash_and_what_was_written_before_are_logged_in_this_order()
{
    const LogCapture log;
    QCOMPARE(run("echo out; echo err >&2; kill -9 $$", true), -1);
    QCOMPARE(log.messages(), (QStringList{"Executing '/opt/tool'...", "out", "err",
                                          "QProcess::CrashExit: Process crashed"}));
}

void SdcardCommandTest::a_program_that_waits_for_input_gets_none()
{
    const LogCapture log;
    QCOMPARE(run("read line; echo $line", true, 200), -1);
    QCOMPARE(log.messages(),
             (QStringList{"Executing '/opt/tool'...",
                          "Wait until command finished failed (error or timeout)"}));
}

void SdcardCommandTest::a_worker_runs_commands_with_its_own_logger()
{
    const LogCapture log;
    int code = -1;
    std::thread([&code] { code = run("echo threaded; exit 3", true); }).join();
    QCOMPARE(code, 3);
    QCOMPARE(describe(log.records()), (QStringList{kExecuting, "INFO worker sdcard: threaded"}));
}

void SdcardCommandTest::the_whole_output_replaces_what_was_there()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const LogCapture log;
    TestDevice::writeScript(kTool, "#!/bin/sh\necho one; echo \"$1\"; echo err >&2; exit 7");
    QByteArray output("old");
    QCOMPARE(controller.runCMD(kTool, {"two"}, output, false, 10000), 7);
    QCOMPARE(output, QByteArray("one\ntwo\n"));
    QCOMPARE(log.records().size(), 0);
    QCOMPARE(controller.runCMD("/bin/true", {}, output, false, 10000), 0);
    QCOMPARE(output, QByteArray());
}

void SdcardCommandTest::captured_output_is_logged_where_asked_for()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const LogCapture log;
    TestDevice::writeScript(kTool, "#!/bin/sh\necho one; echo two; echo err >&2");
    QByteArray output;
    QCOMPARE(controller.runCMD(kTool, {}, output, true, 10000), 0);
    QCOMPARE(output, QByteArray("one\ntwo\n"));
    QCOMPARE(
        describe(log.records()),
        (QStringList{"INFO sdcard sdcard: Executing '/opt/tool'...", "ERROR sdcard sdcard: err",
                     "INFO sdcard sdcard: one", "INFO sdcard sdcard: two"}));
    QCOMPARE(log.errorCount(), 1U);
}

void SdcardCommandTest::captured_output_keeps_its_nul_bytes()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    TestDevice::writeScript(kTool, "#!/bin/sh\nprintf 'a\\0b\\n'");
    QByteArray output;
    QCOMPARE(controller.runCMD(kTool, {}, output, false, 10000), 0);
    QCOMPARE(output, QByteArray("a\0b\n", 4));
}

void SdcardCommandTest::captured_output_without_info_records_is_not_logged()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    const LogCapture log(LogLevel::Error);
    QByteArray output;
    QCOMPARE(controller.runCMD("/bin/echo", {"x"}, output, true, 10000), 0);
    QCOMPARE(output, QByteArray("x\n"));
    QCOMPARE(log.records().size(), 0);
}

void SdcardCommandTest::a_failed_capture_leaves_the_output_alone_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QStringList>("records");
    const QString error = "ERROR sdcard sdcard: ";
    const QStringList err{error + "err"};
    QTest::newRow("not started") << QByteArray()
                                 << QStringList{error + "Starting command failed (exitstatus:0)"};
    QTest::newRow("crashed") << QByteArray("#!/bin/sh\necho x; echo err >&2; kill -9 $$")
                             << err + QStringList{error + "QProcess::CrashExit: Process crashed"};
    QTest::newRow("too long")
        << "#!/bin/sh\necho x; echo err >&2; " + kHang
        << err + QStringList{error + "Wait until command finished failed (error or timeout)"};
}

void SdcardCommandTest::a_failed_capture_leaves_the_output_alone()
{
    QFETCH(const QByteArray, script);
    QFETCH(const QStringList, records);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    TestDevice::remove(kTool);
    TestDevice::remove(kPidFile);
    if (!script.isEmpty()) {
        TestDevice::writeScript(kTool, script);
    }
    const LogCapture log;
    QByteArray output("old");
    QCOMPARE(controller.runCMD(kTool, {}, output, true, 500), -1);
    QCOMPARE(output, QByteArray("old"));
    QCOMPARE(describe(log.records()).mid(1), records);
    QCOMPARE(log.errorCount(), static_cast<unsigned int>(records.size()));
    const QByteArray processId = TestDevice::readFile(kPidFile);
    QVERIFY(processId.isEmpty() || !isRunning(processId));
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
