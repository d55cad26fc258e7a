#include <tavoutil/SignalHandler.h>

#include <array>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <tavoutil/AlternateSignalStack.h>

namespace {

enum class SystemLog
{
    Absent,
    Listening,
    Stuck
};

struct Outcome
{
    int waitStatus = 0;
    QStringList systemLog;
    QStringList standardError;
    qint64 milliseconds = 0;
};

constexpr int kLongestRun = 30000;

// A mount namespace gives the program its own /dev, with the test's socket or nothing as the system
// log. If the test does not run as root, a user namespace gives it the right to do so.
const QByteArray kScript = R"(
mount -t tmpfs none /dev || exit 125
if [ -S log ]; then ln -s "$PWD/log" /dev/log; fi
ulimit -c unlimited
exec "$@"
)";

/// A running crash test program; wait() gives its end.
class CrashTest
{
public:
    CrashTest(const QStringList& arguments, SystemLog systemLog) : mSystemLog(systemLog)
    {
        mTimer.start();
        if (systemLog != SystemLog::Absent) {
            bindSystemLog();
        }
        QByteArrayList words{"unshare", "--mount"};
        if (geteuid() != 0) {
            words << "--user"
                  << "--map-root-user";
        }
        words << "sh"
              << "-c" << kScript << "sh" << CRASHING_PROGRAM;
        for (const QString& argument : arguments) {
            words << argument.toUtf8();
        }
        spawn(words);
    }

    ~CrashTest()
    {
        if (mSocket >= 0) {
            close(mSocket);
        }
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
    }

    CrashTest(const CrashTest&) = delete;
    CrashTest(CrashTest&&) = delete;
    CrashTest& operator=(const CrashTest&) = delete;
    CrashTest& operator=(CrashTest&&) = delete;

    pid_t pid() const { return mPid; }

    QString standardOutput() const { return linesOf("out").join('\n'); }

    Outcome wait()
    {
        Outcome outcome;
        while (mPid > 0 && waitpid(mPid, &outcome.waitStatus, WNOHANG) == 0) {
            if (mTimer.elapsed() > kLongestRun) {
                qWarning("The crash test program does not end.");
                return outcome;
            }
            readSystemLog(outcome.systemLog);
            QTest::qSleep(2);
        }
        mPid = -1;
        outcome.milliseconds = mTimer.elapsed();
        mSystemLog = SystemLog::Listening;
        readSystemLog(outcome.systemLog);
        outcome.standardError = linesOf("err");
        return outcome;
    }

private:
    void bindSystemLog()
    {
        sockaddr_un address{AF_UNIX, ""};
        const QByteArray path = QFile::encodeName(mDirectory.filePath("log"));
        Q_ASSERT(path.size() < static_cast<int>(sizeof(address.sun_path)));
        std::memcpy(static_cast<char*>(address.sun_path), path.constData(),
                    static_cast<std::size_t>(path.size()));
        mSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (bind(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            qFatal("cannot bind the system log's socket");
        }
    }

    void spawn(QByteArrayList words)
    {
        std::vector<char*> argv;
        for (QByteArray& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        std::vector<char*> environment;
        for (char** variable = environ; *variable != nullptr; ++variable) {
            environment.push_back(*variable);
        }
        // The sanitizers' own handlers would end the program without a handler.
        const std::string options = "handle_segv=0:handle_sigbus=0:handle_sigill=0:"
                                    "handle_sigfpe=0:handle_abort=0:use_sigaltstack=0";
        std::string addressSanitizer = "ASAN_OPTIONS=" + options;
        std::string threadSanitizer = "TSAN_OPTIONS=" + options;
        environment.push_back(addressSanitizer.data());
        environment.push_back(threadSanitizer.data());
        environment.push_back(nullptr);

        const QByteArray directory = QFile::encodeName(mDirectory.path());
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, directory.constData());
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "out", kFlags, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "err", kFlags, 0600);
        if (posix_spawnp(&mPid, argv.front(), &actions, nullptr, argv.data(), environment.data()) !=
            0) {
            qFatal("cannot start %s", argv.front());
        }
        posix_spawn_file_actions_destroy(&actions);
    }

    void readSystemLog(QStringList& lines) const
    {
        if (mSystemLog != SystemLog::Listening || mSocket < 0) {
            return;
        }
        std::array<char, 1024> line{};
        ssize_t length = 0;
        while ((length = recv(mSocket, line.data(), line.size(), 0)) > 0) {
            lines << QString::fromUtf8(line.data(), static_cast<int>(length));
        }
    }

    QStringList linesOf(const char* file) const
    {
        QFile written(mDirectory.filePath(file));
        if (!written.open(QIODevice::ReadOnly)) {
            return {};
        }
        return QString::fromUtf8(written.readAll()).split('\n', Qt::SkipEmptyParts);
    }

    QTemporaryDir mDirectory;
    QElapsedTimer mTimer;
    SystemLog mSystemLog;
    int mSocket = -1;
    pid_t mPid = -1;
};

Outcome crash(const QStringList& arguments, SystemLog systemLog)
{
    return CrashTest(arguments, systemLog).wait();
}

/// The report's lines without the program's name and process id.
QStringList withoutPrefix(const QStringList& lines, const QString& priority)
{
    const QRegularExpression prefix("^" + priority + "crash-test\\[[0-9]+\\]: ");
    QStringList texts;
    for (const QString& line : lines) {
        if (!prefix.match(line).hasMatch()) {
            return {"not a line of the report: " + line};
        }
        texts << QString(line).remove(prefix);
    }
    return texts;
}

} // namespace

class SignalHandlerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_crash_is_reported_and_ends_the_process_as_without_a_handler_data();
    void a_crash_is_reported_and_ends_the_process_as_without_a_handler();
    void without_a_system_log_the_report_goes_to_standard_error();
    void a_stuck_system_log_does_not_keep_the_process_from_ending();
    void the_backtrace_leads_to_the_crashing_function();
    void a_signal_from_another_process_names_its_sender();
    void two_threads_that_crash_at_once_give_one_report();
    void a_stack_overflow_without_an_alternate_stack_ends_the_process();
    void a_thread_gets_its_earlier_alternate_stack_back();
    void the_installation_fails_without_a_file_descriptor();
};

void SignalHandlerTest::a_crash_is_reported_and_ends_the_process_as_without_a_handler_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("firstLine");

    const QString thread = ", thread [0-9]+$";
    const QString anywhere = " at fault address 0x[0-9a-f]+" + thread;
    QTest::newRow("null") << SIGSEGV << "^Crash: SIGSEGV at fault address 0x0" + thread;
    QTest::newRow("address") << SIGSEGV << "^Crash: SIGSEGV at fault address 0x123" + thread;
    QTest::newRow("abort") << SIGABRT << "^Crash: SIGABRT raised by the program itself" + thread;
#ifdef __arm__
    // The processor does not trap a division by zero, so the compiler's library raises the signal.
    QTest::newRow("division") << SIGFPE << "^Crash: SIGFPE raised by the program itself" + thread;
#else
    QTest::newRow("division") << SIGFPE << "^Crash: SIGFPE" + anywhere;
#endif
    QTest::newRow("illegal") << SIGILL << "^Crash: SIGILL" + anywhere;
    QTest::newRow("bus") << SIGBUS << "^Crash: SIGBUS" + anywhere;
    QTest::newRow("overflow") << SIGSEGV << "^Crash: SIGSEGV" + anywhere;
    QTest::newRow("overflow in a thread") << SIGSEGV << "^Crash: SIGSEGV" + anywhere;
    QTest::newRow("thread") << SIGSEGV << "^Crash: SIGSEGV at fault address 0x0" + thread;
}

void SignalHandlerTest::a_crash_is_reported_and_ends_the_process_as_without_a_handler()
{
    QFETCH(int, signal);
    QFETCH(QString, firstLine);

    const QString kind = QTest::currentDataTag();
    const Outcome outcome = crash({kind}, SystemLog::Listening);
    QVERIFY(WIFSIGNALED(outcome.waitStatus));
    QCOMPARE(WTERMSIG(outcome.waitStatus), signal);
    const QStringList report = withoutPrefix(outcome.systemLog, "<26>");
    QVERIFY(report.size() >= 4);
    QVERIFY2(QRegularExpression(firstLine).match(report.first()).hasMatch(),
             qPrintable(report.first()));
    for (int i = 1; i < report.size(); ++i) {
        QVERIFY2(report.at(i).startsWith(QString("#%1 0x").arg(i - 1)), qPrintable(report.at(i)));
    }
    QCOMPARE(outcome.standardError, QStringList());

    const Outcome bare = crash({kind, "bare"}, SystemLog::Listening);
    QCOMPARE(bare.systemLog, QStringList());
    QCOMPARE(bare.waitStatus, outcome.waitStatus);
}

void SignalHandlerTest::without_a_system_log_the_report_goes_to_standard_error()
{
    const Outcome outcome = crash({"null"}, SystemLog::Absent);
    QCOMPARE(WTERMSIG(outcome.waitStatus), SIGSEGV);
    const QStringList report = withoutPrefix(outcome.standardError, "");
    QVERIFY(report.size() >= 4);
    QVERIFY2(report.first().startsWith("Crash: SIGSEGV at fault address 0x0, thread "),
             qPrintable(report.first()));
    QVERIFY(report.at(1).startsWith("#0 0x"));
}

void SignalHandlerTest::a_stuck_system_log_does_not_keep_the_process_from_ending()
{
    const Outcome outcome = crash({"overflow"}, SystemLog::Stuck);
    QCOMPARE(WTERMSIG(outcome.waitStatus), SIGSEGV);
    QVERIFY(outcome.milliseconds < kLongestRun / 3);
    QVERIFY(outcome.systemLog.first().contains("Crash: SIGSEGV"));
    // The lines above are the whole report.
    QCOMPARE((outcome.systemLog + outcome.standardError).size(), 1 + 64);
}

void SignalHandlerTest::the_backtrace_leads_to_the_crashing_function()
{
    const Outcome outcome = crash({"null"}, SystemLog::Listening);
    const QRegularExpression ownFrame(R"(crash-test\(\+(0x[0-9a-f]+)\)$)");
    QStringList arguments{"-f", "-C", "-e", CRASHING_PROGRAM};
    for (const QString& line : outcome.systemLog) {
        const QRegularExpressionMatch match = ownFrame.match(line);
        if (match.hasMatch()) {
            arguments << match.captured(1);
        }
    }
    QVERIFY(arguments.last() != CRASHING_PROGRAM);
    QProcess addr2line;
    addr2line.start("addr2line", arguments);
    QVERIFY(addr2line.waitForFinished());
    const QStringList functions = QString::fromUtf8(addr2line.readAll()).split('\n');
    QVERIFY2(functions.contains("dereferenceNull()"), qPrintable(functions.join(' ')));
    QVERIFY2(functions.contains("main"), qPrintable(functions.join(' ')));
}

void SignalHandlerTest::a_signal_from_another_process_names_its_sender()
{
    CrashTest program({"wait"}, SystemLog::Listening);
    QTRY_COMPARE(program.standardOutput(), QString("ready"));
    QCOMPARE(kill(program.pid(), SIGSEGV), 0);
    const Outcome outcome = program.wait();
    QVERIFY(WIFSIGNALED(outcome.waitStatus));
    QCOMPARE(WTERMSIG(outcome.waitStatus), SIGSEGV);
    const QString expected = QString("Crash: SIGSEGV sent by process %1, thread ").arg(getpid());
    QVERIFY2(outcome.systemLog.value(0).contains(expected), qPrintable(outcome.systemLog.value(0)));
}

void SignalHandlerTest::two_threads_that_crash_at_once_give_one_report()
{
    const Outcome outcome = crash({"all threads"}, SystemLog::Listening);
    QCOMPARE(WTERMSIG(outcome.waitStatus), SIGSEGV);
    QCOMPARE(outcome.systemLog.filter("Crash: ").size(), 1);
    QVERIFY(outcome.systemLog.size() >= 4);
}

void SignalHandlerTest::a_stack_overflow_without_an_alternate_stack_ends_the_process()
{
    const Outcome outcome = crash({"overflow in a bare thread"}, SystemLog::Listening);
    QVERIFY(WIFSIGNALED(outcome.waitStatus));
    QCOMPARE(WTERMSIG(outcome.waitStatus), SIGSEGV);
}

void SignalHandlerTest::a_thread_gets_its_earlier_alternate_stack_back()
{
    const tavoutil::AlternateSignalStack outer;
    stack_t before{};
    sigaltstack(nullptr, &before);
    {
        const tavoutil::AlternateSignalStack inner;
        stack_t during{};
        sigaltstack(nullptr, &during);
        QVERIFY(during.ss_sp != before.ss_sp);
    }
    stack_t after{};
    sigaltstack(nullptr, &after);
    QCOMPARE(after.ss_sp, before.ss_sp);
    QCOMPARE(after.ss_size, before.ss_size);
}

void SignalHandlerTest::the_installation_fails_without_a_file_descriptor()
{
    const Outcome outcome = crash({"no file descriptors"}, SystemLog::Listening);
    QVERIFY(WIFEXITED(outcome.waitStatus));
    QCOMPARE(WEXITSTATUS(outcome.waitStatus), 0);
}

QTEST_GUILESS_MAIN(SignalHandlerTest)
#include "SignalHandlerTest.moc"
