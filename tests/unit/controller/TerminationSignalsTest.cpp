#include "TerminationSignals.h"

#include <cerrno>

#include <QDeadlineTimer>
#include <QSignalSpy>
#include <QTest>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "SystemCalls.h"

using SystemCalls::Call;

namespace {

using Handler = void (*)(int);

Handler setHandler(int signalNumber, Handler handler)
{
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = handler;
    ::sigaction(signalNumber, &action, &previous);
    return previous.sa_handler;
}

struct sigaction actionOf(int signalNumber)
{
    struct sigaction action = {};
    ::sigaction(signalNumber, nullptr, &action);
    return action;
}

void ignore(int /*signalNumber*/) {}

} // namespace

class TerminationSignalsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        for (const int signalNumber : {SIGHUP, SIGTERM, SIGSEGV}) {
            setHandler(signalNumber, ignore);
        }
        SystemCalls::reset();
        mSignals = std::make_unique<TerminationSignals>();
    }

    void cleanup()
    {
        mSignals->tearDown();
        SystemCalls::reset();
    }

    void both_signals_are_handled_alike()
    {
        QCOMPARE(mSignals->setUp(this), QByteArray());
        QCOMPARE(SystemCalls::takeCalls(), (QStringList{"socketpair 1 1 0", "sigaction 1 268435456",
                                                        "sigaction 15 268435456"}));
        const struct sigaction hup = actionOf(SIGHUP);
        const struct sigaction term = actionOf(SIGTERM);
        QVERIFY(hup.sa_handler == term.sa_handler);
        QCOMPARE(hup.sa_flags & SA_RESTART, SA_RESTART);
        for (const int other : {SIGHUP, SIGTERM, SIGINT, SIGCHLD}) {
            QCOMPARE(::sigismember(&hup.sa_mask, other), 0);
            QCOMPARE(::sigismember(&term.sa_mask, other), 0);
        }
        QCOMPARE(mSignals->notifier()->type(), QSocketNotifier::Read);
        QCOMPARE(mSignals->notifier()->parent(), this);
    }

    void a_signal_becomes_one_byte_that_is_never_read()
    {
        QCOMPARE(mSignals->setUp(this), QByteArray());
        const QSignalSpy reports(mSignals->notifier(), SIGNAL(activated(int)));
        static_cast<void>(std::raise(SIGTERM));
        static_cast<void>(std::raise(SIGHUP));
        QTest::qWait(10);
        QCOMPARE(reports.size(), 0);
        mSignals->notifier()->setEnabled(true);
        QTRY_VERIFY(reports.size() > 2);
        std::array<char, 8> bytes{};
        QCOMPARE(::recv(readEnd(), bytes.data(), bytes.size(), MSG_DONTWAIT), ssize_t{2});
        QCOMPARE(int{bytes[0]}, SIGTERM);
        QCOMPARE(int{bytes[1]}, SIGHUP);
    }

    void the_handler_leaves_errno_alone()
    {
        QCOMPARE(mSignals->setUp(this), QByteArray());
        // The handler's write now fails with EPIPE.
        QCOMPARE(::shutdown(readEnd(), SHUT_RD), 0);
        const Handler previous = setHandler(SIGPIPE, SIG_IGN);
        errno = ENOTTY;
        actionOf(SIGTERM).sa_handler(SIGTERM);
        const int afterwards = errno;
        setHandler(SIGPIPE, previous);
        QCOMPARE(afterwards, ENOTTY);
    }

    void signals_do_not_block_when_the_socket_is_full()
    {
        QCOMPARE(mSignals->setUp(this), QByteArray());
        const Handler handler = actionOf(SIGTERM).sa_handler;
        // Interrupts a blocked write, so that the test fails and does not hang.
        setHandler(SIGALRM, ignore);
        constexpr itimerval kPatience{{0, 1000}, {10, 0}};
        ::setitimer(ITIMER_REAL, &kPatience, nullptr);
        const QDeadlineTimer deadline(10000);
        int calls = 0;
        for (; calls < 100'000 && !deadline.hasExpired(); ++calls) {
            handler(SIGTERM);
        }
        const bool isInTime = !deadline.hasExpired();
        constexpr itimerval kNever{};
        ::setitimer(ITIMER_REAL, &kNever, nullptr);
        QVERIFY(isInTime);
        int waiting = 0;
        QCOMPARE(::ioctl(readEnd(), FIONREAD, &waiting), 0);
        QVERIFY(waiting > 0);
        QVERIFY(waiting < calls);
    }

    void no_tool_inherits_the_sockets()
    {
        const auto inherited = [] {
            QVector<int> fds;
            for (int fd = 0; fd < 256; ++fd) {
                const int flags = ::fcntl(fd, F_GETFD);
                if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
                    fds.append(fd);
                }
            }
            return fds;
        };
        const QVector<int> before = inherited();
        QCOMPARE(mSignals->setUp(this), QByteArray());
        QCOMPARE(inherited(), before);
    }

    void a_signal_that_comes_after_the_end_is_ignored()
    {
        QCOMPARE(mSignals->setUp(this), QByteArray());
        const Handler handler = actionOf(SIGTERM).sa_handler;
        mSignals->tearDown();
        // These sockets get the numbers of the closed ones.
        std::array<int, 2> pair{};
        QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
        handler(SIGTERM);
        for (const int fd : pair) {
            char byte = 0;
            QCOMPARE(::recv(fd, &byte, 1, MSG_DONTWAIT), ssize_t{-1});
        }
        ::close(pair[0]);
        ::close(pair[1]);
    }

    void tear_down_restores_everything()
    {
        QCOMPARE(mSignals->setUp(this), QByteArray());
        QVERIFY(actionOf(SIGHUP).sa_handler != ignore);
        const int closed = readEnd();
        const int copy = ::dup(closed);
        mSignals->tearDown();

        QVERIFY(actionOf(SIGHUP).sa_handler == ignore);
        QVERIFY(actionOf(SIGTERM).sa_handler == ignore);
        QVERIFY(actionOf(SIGSEGV).sa_handler == SIG_DFL);
        QVERIFY(mSignals->notifier() == nullptr);
        QCOMPARE(::fcntl(closed, F_GETFD), -1);
        // End of data: nothing has the other end open.
        char byte = 0;
        QCOMPARE(::recv(copy, &byte, 1, MSG_DONTWAIT), ssize_t{0});
        ::close(copy);
    }

    void a_failure_is_reported_and_ends_the_set_up_data()
    {
        QTest::addColumn<int>("callsThatSucceed");
        QTest::addColumn<QByteArray>("failure");
        QTest::addColumn<QStringList>("calls");
        const QStringList all{"socketpair 1 1 0", "sigaction 1 268435456",
                              "sigaction 15 268435456"};
        const QByteArray action("Can't register sigaction (Too many open files)");
        QTest::newRow("socket pair")
            << -1 << QByteArray("Can't create socket pair (Too many open files)")
            << QStringList(all.mid(0, 1));
        QTest::newRow("SIGHUP") << 0 << action << QStringList(all.mid(0, 2));
        QTest::newRow("SIGTERM") << 1 << action << all;
    }

    void a_failure_is_reported_and_ends_the_set_up()
    {
        QFETCH(const int, callsThatSucceed);
        QFETCH(const QByteArray, failure);
        const bool hasSockets = callsThatSucceed >= 0;
        SystemCalls::fail(hasSockets ? Call::SignalAction : Call::SocketPair, EMFILE, 1,
                          qMax(0, callsThatSucceed));
        QCOMPARE(mSignals->setUp(this), failure);
        QTEST(SystemCalls::takeCalls(), "calls");
        QCOMPARE(mSignals->notifier() != nullptr, hasSockets);
        QVERIFY(actionOf(SIGTERM).sa_handler == ignore);
        mSignals->tearDown();
        QVERIFY(actionOf(SIGHUP).sa_handler == ignore);
        QVERIFY(actionOf(SIGTERM).sa_handler == ignore);
    }

private:
    int readEnd() const { return static_cast<int>(mSignals->notifier()->socket()); }

    std::unique_ptr<TerminationSignals> mSignals;
};

QTEST_GUILESS_MAIN(TerminationSignalsTest)
#include "TerminationSignalsTest.moc"
