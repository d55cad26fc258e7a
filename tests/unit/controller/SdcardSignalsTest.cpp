#include <array>
#include <cerrno>
#include <csignal>

#include <QDeadlineTimer>
#include <QSocketNotifier>
#include <QStateMachine>
#include <QTest>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "CardImage.h"
#include "ControllerDevice.h"
#include "SDCardImpl.h"
#include "SystemCalls.h"
#include "TestDevice.h"

using SystemCalls::Call;

class SdcardSignalsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { SystemCalls::reset(); }

    void both_signals_are_handled_alike();
    void a_signal_becomes_one_byte_that_is_never_read();
    void the_handler_leaves_errno_alone();
    void signals_beyond_what_the_socket_holds_do_not_block();
    void no_tool_inherits_the_bridge();
    void a_signal_that_comes_after_the_end_is_ignored();
    void the_destructor_gives_everything_back();
    void without_a_socket_pair_there_is_no_bridge();
    void a_refused_signal_action_is_reported_data();
    void a_refused_signal_action_is_reported();
    void hup_ends_the_service_like_term_data();
    void hup_ends_the_service_like_term();
    void a_request_waits_until_mounting_has_ended_data();
    void a_request_waits_until_mounting_has_ended();

private:
    TestBus mBus;
};

namespace {

struct sigaction actionOf(int signalNumber)
{
    struct sigaction action = {};
    ::sigaction(signalNumber, nullptr, &action);
    return action;
}

QSocketNotifier* notifierOf(Sdcard& controller)
{
    return controller.machine().findChild<QSocketNotifier*>();
}

} // namespace

void SdcardSignalsTest::both_signals_are_handled_alike()
{
    ControllerDevice device(mBus);
    SystemCalls::reset();
    device.construct();
    QCOMPARE(SystemCalls::takeCalls(),
             (QStringList{"socketpair 1 1 0", "sigaction 1 268435456", "sigaction 15 268435456"}));
    const struct sigaction hup = actionOf(SIGHUP);
    const struct sigaction term = actionOf(SIGTERM);
    QVERIFY(hup.sa_handler == term.sa_handler);
    QCOMPARE(hup.sa_flags & SA_RESTART, SA_RESTART);
    for (const int other : {SIGHUP, SIGTERM, SIGINT, SIGCHLD}) {
        QCOMPARE(::sigismember(&hup.sa_mask, other), 0);
        QCOMPARE(::sigismember(&term.sa_mask, other), 0);
    }
}

void SdcardSignalsTest::a_signal_becomes_one_byte_that_is_never_read()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("corrupted");
    QCOMPARE(notifierOf(controller)->type(), QSocketNotifier::Read);
    device.sendSignal(SIGTERM);
    device.sendSignal(SIGHUP);
    std::array<char, 8> bytes{};
    const auto fd = static_cast<int>(notifierOf(controller)->socket());
    QCOMPARE(::recv(fd, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT), ssize_t{2});
    QCOMPARE(int{bytes[0]}, SIGTERM);
    QCOMPARE(int{bytes[1]}, SIGHUP);
}

void SdcardSignalsTest::the_handler_leaves_errno_alone()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("corrupted");
    const auto fd = static_cast<int>(notifierOf(controller)->socket());
    QCOMPARE(::shutdown(fd, SHUT_RD), 0);
    // The handler's write now fails with EPIPE.
    const struct sigaction ignore = {};
    struct sigaction previous = {};
    struct sigaction ignoring = ignore;
    ignoring.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignoring, &previous);
    errno = ENOTTY;
    actionOf(SIGTERM).sa_handler(SIGTERM);
    const int afterwards = errno;
    ::sigaction(SIGPIPE, &previous, nullptr);
    QCOMPARE(afterwards, ENOTTY);
}

void SdcardSignalsTest::signals_beyond_what_the_socket_holds_do_not_block()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.startIn("corrupted");
    auto* const handler = actionOf(SIGTERM).sa_handler;
    // A write that blocks is interrupted, and fails the test instead of holding it.
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int /*signalNumber*/) {
    };
    struct sigaction previous = {};
    ::sigaction(SIGALRM, &interrupt, &previous);
    constexpr itimerval kPatience{{0, 1000}, {10, 0}};
    ::setitimer(ITIMER_REAL, &kPatience, nullptr);
    const QDeadlineTimer deadline(10000);
    int calls = 0;
    while (calls < 100'000 && !deadline.hasExpired()) {
        handler(SIGTERM);
        ++calls;
    }
    const bool isInTime = !deadline.hasExpired();
    constexpr itimerval kNever{};
    ::setitimer(ITIMER_REAL, &kNever, nullptr);
    ::sigaction(SIGALRM, &previous, nullptr);
    QVERIFY(isInTime);
    int waiting = 0;
    QCOMPARE(::ioctl(static_cast<int>(notifierOf(controller)->socket()), FIONREAD, &waiting), 0);
    QVERIFY(waiting > 0);
    QVERIFY(waiting < calls);
}

void SdcardSignalsTest::no_tool_inherits_the_bridge()
{
    const auto isInherited = [](int fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        return flags >= 0 && (flags & FD_CLOEXEC) == 0;
    };
    constexpr int kDescriptors = 256;
    QVector<int> before;
    for (int fd = 0; fd < kDescriptors; ++fd) {
        if (isInherited(fd)) {
            before.append(fd);
        }
    }
    ControllerDevice device(mBus);
    device.startIn("corrupted");
    for (int fd = 0; fd < kDescriptors; ++fd) {
        QVERIFY(before.contains(fd) || !isInherited(fd));
    }
}

void SdcardSignalsTest::a_signal_that_comes_after_the_end_is_ignored()
{
    ControllerDevice device(mBus);
    device.construct();
    auto* const handler = actionOf(SIGTERM).sa_handler;
    device.destroy();

    // These sockets get the numbers that the bridge had.
    std::array<std::array<int, 2>, 8> pairs{};
    for (std::array<int, 2>& pair : pairs) {
        QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
    }
    handler(SIGTERM);
    for (const std::array<int, 2>& pair : pairs) {
        for (const int fd : pair) {
            char byte = 0;
            QCOMPARE(::recv(fd, &byte, 1, MSG_DONTWAIT), ssize_t{-1});
        }
        ::close(pair[0]);
        ::close(pair[1]);
    }
}

void SdcardSignalsTest::the_destructor_gives_everything_back()
{
    ControllerDevice device(mBus);
    const struct sigaction hupBefore = actionOf(SIGHUP);
    const struct sigaction termBefore = actionOf(SIGTERM);
    device.construct();
    QVERIFY(actionOf(SIGHUP).sa_handler != hupBefore.sa_handler);
    const auto readEnd = static_cast<int>(notifierOf(device.controller())->socket());
    const int readEndHeldOpen = ::dup(readEnd);

    struct sigaction crash = {};
    crash.sa_handler = [](int /*signalNumber*/) {
    };
    ::sigaction(SIGSEGV, &crash, nullptr);
    device.destroy();

    QVERIFY(actionOf(SIGHUP).sa_handler == hupBefore.sa_handler);
    QVERIFY(actionOf(SIGTERM).sa_handler == termBefore.sa_handler);
    QVERIFY(actionOf(SIGSEGV).sa_handler == SIG_DFL);
    QCOMPARE(::fcntl(readEnd, F_GETFD), -1);
    // The end of the data: nothing has the other end open.
    char byte = 0;
    QCOMPARE(::recv(readEndHeldOpen, &byte, 1, MSG_DONTWAIT), ssize_t{0});
    ::close(readEndHeldOpen);
}

void SdcardSignalsTest::without_a_socket_pair_there_is_no_bridge()
{
    ControllerDevice device(mBus);
    const struct sigaction before = actionOf(SIGTERM);
    SystemCalls::reset();
    SystemCalls::fail(Call::SocketPair, EMFILE);
    Sdcard& controller = device.start();
    QCOMPARE(SystemCalls::takeCalls(), QStringList{"socketpair 1 1 0"});
    QCOMPARE(device.effects().errorCount(), 1U);
    QCOMPARE(device.effects().takeParts().logRecords.filter("ERROR"),
             QStringList{"ERROR sdcard sdcard: Can't create socket pair (Too many open files)"});
    QVERIFY(notifierOf(controller) == nullptr);
    QVERIFY(actionOf(SIGTERM).sa_handler == before.sa_handler);
    QCOMPARE(device.machineState(), QString("noSdCard"));

    device.destroy();
    QVERIFY(actionOf(SIGTERM).sa_handler == before.sa_handler);
}

void SdcardSignalsTest::a_refused_signal_action_is_reported_data()
{
    QTest::addColumn<int>("allowed");
    QTest::addColumn<QStringList>("calls");
    QTest::newRow("SIGHUP") << 0 << QStringList{"sigaction 1 268435456"};
    QTest::newRow("SIGTERM") << 1 << QStringList{"sigaction 1 268435456", "sigaction 15 268435456"};
}

void SdcardSignalsTest::a_refused_signal_action_is_reported()
{
    QFETCH(const int, allowed);
    QFETCH(const QStringList, calls);
    ControllerDevice device(mBus);
    const struct sigaction hupBefore = actionOf(SIGHUP);
    const struct sigaction termBefore = actionOf(SIGTERM);
    SystemCalls::reset();
    SystemCalls::fail(Call::SignalAction, EINVAL, 1, allowed);
    Sdcard& controller = device.start();
    QCOMPARE(SystemCalls::takeCalls().filter("sigaction"), calls);
    QCOMPARE(device.effects().errorCount(), 1U);
    QCOMPARE(device.effects().takeParts().logRecords.filter("ERROR"),
             QStringList{"ERROR sdcard sdcard: Can't register sigaction (Invalid argument)"});
    QVERIFY(notifierOf(controller) != nullptr);
    QVERIFY(actionOf(SIGTERM).sa_handler == termBefore.sa_handler);

    device.destroy();
    QVERIFY(actionOf(SIGHUP).sa_handler == hupBefore.sa_handler);
    QVERIFY(actionOf(SIGTERM).sa_handler == termBefore.sa_handler);
}

void SdcardSignalsTest::hup_ends_the_service_like_term_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGHUP") << SIGHUP;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void SdcardSignalsTest::hup_ends_the_service_like_term()
{
    QFETCH(const int, signalNumber);
    ControllerDevice device(mBus);
    device.startIn("mounted");
    static_cast<void>(std::raise(signalNumber));
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(device.machineState(), QString("terminating"));
    QCOMPARE(device.effects().takeParts().signalNames,
             (QStringList{"EjectPressed", "FILES_CLOSED", "CardUnmounted", "MemLevelChanged 0",
                          "MemStateChanged 1"}));
}

void SdcardSignalsTest::a_request_waits_until_mounting_has_ended_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("passed");
    QTest::newRow("mounted") << "mounting"
                             << "a mount"
                             << "CardMounted: State 3";
    QTest::newRow("prepared") << "preparing"
                              << "a mount"
                              << "CardMounted: State 3";
    QTest::newRow("not mountable") << "mounting"
                                   << "a failed format"
                                   << "CardNotMountable: State 2";
    QTest::newRow("no card") << "mounting"
                             << "a removal"
                             << "SD_REMOVE: State 6";
}

void SdcardSignalsTest::a_request_waits_until_mounting_has_ended()
{
    QFETCH(const QString, state);
    QFETCH(const QString, end);
    QFETCH(const QString, passed);
    ControllerDevice device(mBus);
    if (end == "a failed format") {
        CardImage::writeDisk({});
        ToolStandIn::place(ToolStandIn::kFormatScript, ToolStandIn::kWait + "exit 1");
    }
    device.startIn(state);
    device.sendSignal(SIGTERM);
    QCOMPARE(device.machineState(), state);
    QCOMPARE(device.effects().takeProperties(), QStringList());

    if (end == "a removal") {
        device.removeCard();
    } else {
        QVERIFY(state == "preparing" || CardImage::createPartition());
        ToolStandIn::letGo();
    }
    QVERIFY(device.waitForState("terminating"));
    const QStringList properties = device.effects().takeProperties();
    QCOMPARE(properties.filter(passed).size(), 1);
}

TEST_DEVICE_MAIN(SdcardSignalsTest)
#include "SdcardSignalsTest.moc"
