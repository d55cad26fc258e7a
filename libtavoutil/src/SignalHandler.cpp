#include <tavoutil/SignalHandler.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <string_view>

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <QByteArray>

#include <tavoutil/AlternateSignalStack.h>
#include <tavoutil/SystemError.h>

#include "InterruptedBacktrace.h"

namespace {

struct CrashSignal
{
    int number;
    const char* name;
};

constexpr std::array<CrashSignal, 5> kCrashSignals{{{SIGSEGV, "SIGSEGV"},
                                                    {SIGBUS, "SIGBUS"},
                                                    {SIGILL, "SIGILL"},
                                                    {SIGFPE, "SIGFPE"},
                                                    {SIGABRT, "SIGABRT"}}};
constexpr sockaddr_un kSystemLog{AF_UNIX, "/dev/log"};
constexpr int kMaxFrames = 64;

// Prepared at the installation, because the handler must not allocate or lock.
std::array<char, 64> sProgramName;
int sSocket = -1;
bool sSystemLogAnswers = true;
std::atomic_flag sCrashed = ATOMIC_FLAG_INIT;

/// A line of the report, cut off at the end of the buffer. Async-signal-safe.
class ReportLine
{
public:
    ReportLine()
    {
        *this << "<" << LOG_DAEMON + LOG_CRIT << ">";
        mPriorityLength = mLength;
        *this << sProgramName.data() << "[" << getpid() << "]: ";
    }

    ReportLine& operator<<(std::string_view text)
    {
        const std::size_t length = std::min(text.size(), mText.size() - mLength);
        std::copy_n(text.begin(), length, mText.begin() + mLength);
        mLength += length;
        return *this;
    }

    ReportLine& operator<<(int number)
    {
        std::array<char, 16> digits{};
        const char* const end = std::to_chars(digits.begin(), digits.end(), number).ptr;
        return *this << std::string_view(digits.data(),
                                         static_cast<std::size_t>(end - digits.begin()));
    }

    ReportLine& operator<<(std::uintptr_t address)
    {
        std::array<char, 2 * sizeof(address)> digits{};
        const char* const end = std::to_chars(digits.begin(), digits.end(), address, 16).ptr;
        return *this << "0x"
                     << std::string_view(digits.data(),
                                         static_cast<std::size_t>(end - digits.begin()));
    }

    void send()
    {
        sSystemLogAnswers = sSystemLogAnswers && sendToSystemLog();
        if (!sSystemLogAnswers) {
            writeToStandardError();
        }
    }

private:
    bool sendToSystemLog() const
    {
        return sendto(sSocket, mText.data(), mLength, MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&kSystemLog), sizeof(kSystemLog)) >= 0;
    }

    void writeToStandardError()
    {
        // A reader that no longer reads must not block the end of the process.
        pollfd ready{STDERR_FILENO, POLLOUT, 0};
        if (poll(&ready, 1, 0) != 1) {
            return;
        }
        mLength = std::min(mLength, mText.size() - 1);
        *this << "\n";
        const ssize_t written =
            write(STDERR_FILENO, mText.data() + mPriorityLength, mLength - mPriorityLength);
        static_cast<void>(written); // There is nowhere else to report to.
    }

    std::array<char, 512> mText{};
    std::size_t mLength = 0;
    std::size_t mPriorityLength = 0;
};

std::uintptr_t toInteger(const void* address)
{
    return reinterpret_cast<std::uintptr_t>(address);
}

const char* signalName(int number)
{
    for (const CrashSignal& signal : kCrashSignals) {
        if (signal.number == number) {
            return signal.name;
        }
    }
    return "unknown signal";
}

void reportSignal(int number, const siginfo_t& info)
{
    ReportLine line;
    line << "Crash: " << signalName(number);
    if (info.si_code > 0) {
        line << " at fault address " << toInteger(info.si_addr);
    } else if (info.si_pid == getpid()) {
        line << " raised by the program itself";
    } else {
        line << " sent by process " << info.si_pid;
    }
    line << ", thread " << static_cast<int>(syscall(SYS_gettid));
    line.send();
}

int takeBacktrace(const void* context, std::array<void*, kMaxFrames>& frames)
{
#ifdef __arm__
    return interruptedBacktrace(static_cast<const ucontext_t*>(context)->uc_mcontext, frames.data(),
                                kMaxFrames);
#else
    static_cast<void>(context);
    return backtrace(frames.data(), kMaxFrames);
#endif
}

void reportBacktrace(const void* context)
{
    std::array<void*, kMaxFrames> frames{};
    const int count = takeBacktrace(context, frames);
    for (int i = 0; i < count; ++i) {
        void* const address = frames.at(static_cast<std::size_t>(i));
        ReportLine line;
        line << "#" << i << " " << toInteger(address);
        // Unlike dladdr() and backtrace_symbols_fd(), this look-up takes no lock.
        dl_find_object object{};
        if (_dl_find_object(address, &object) == 0) {
            const link_map& module = *object.dlfo_link_map;
            line << " " << (*module.l_name == '\0' ? sProgramName.data() : module.l_name) << "(+"
                 << toInteger(address) - module.l_addr << ")";
        }
        line.send();
    }
}

/// Lets the default action end the process as soon as the handler returns.
void passOn(int number, siginfo_t* info)
{
    struct sigaction defaultAction
    {};
    defaultAction.sa_handler = SIG_DFL;
    sigaction(number, &defaultAction, nullptr);
    // Keeps the original information, so that a core dump contains the fault address.
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), number, info) != 0) {
        static_cast<void>(raise(number));
    }
}

void handleCrash(int number, siginfo_t* info, void* context)
{
    if (sCrashed.test_and_set()) {
        // Another thread is reporting its crash and will end the process.
        for (;;) {
            pause();
        }
    }
    reportSignal(number, *info);
    reportBacktrace(context);
    passOn(number, info);
}

bool openSocket()
{
    if (sSocket < 0) {
        sSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    // A system log that no longer reads must not block the end of the process.
    constexpr timeval kPatience{1, 0};
    return sSocket >= 0 &&
           setsockopt(sSocket, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience)) == 0;
}

bool useAlternateStack()
{
    // Never destroyed: the process may crash while it destroys its static objects.
    static const auto* const stack = new tavoutil::AlternateSignalStack;
    return stack->isInstalled();
}

bool catchCrashSignals()
{
    struct sigaction action
    {};
    action.sa_sigaction = handleCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    // A crash inside the handler finds its signal blocked, which ends the process at once.
    sigfillset(&action.sa_mask);
    return std::all_of(kCrashSignals.begin(), kCrashSignals.end(),
                       [&action](const CrashSignal& signal) {
                           return sigaction(signal.number, &action, nullptr) == 0;
                       });
}

} // namespace

int installSignalHandler(const QString& name)
{
    const QByteArray programName = name.toUtf8().left(static_cast<int>(sProgramName.size()) - 1);
    sProgramName.fill('\0');
    std::copy(programName.begin(), programName.end(), sProgramName.begin());

    // The first call loads and initializes the unwinder, which allocates.
    std::array<void*, 1> frame{};
    backtrace(frame.data(), static_cast<int>(frame.size()));

    if (!openSocket() || !useAlternateStack() || !catchCrashSignals()) {
        const QByteArray reason = tavoutil::systemErrorText(errno);
        syslog(LOG_DAEMON | LOG_ERR, "%s: cannot install the crash handler: %s",
               sProgramName.data(), reason.constData());
        return -1;
    }
    return 0;
}
