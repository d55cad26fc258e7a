#include "TracedProcess.h"

#include <algorithm>

#include <QDataStream>
#include <QFile>

#include <csignal>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kSystemCallStop = SIGTRAP | 0x80;

// The system call behind fstatat(). The library uses the second one if a time stamp needs more bits
// than a long.
// long.
#ifdef SYS_newfstatat
constexpr long kFstatat = SYS_newfstatat;
#else
constexpr long kFstatat = SYS_fstatat64;
#endif
constexpr long kStatx = SYS_statx;

[[noreturn]] void runChild(const std::function<QStringList()>& work, int outputFile)
{
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 || ::raise(SIGSTOP) != 0) {
        ::_exit(EXIT_FAILURE);
    }
    const QStringList result = work();
    QFile output;
    if (!output.open(outputFile, QIODevice::WriteOnly)) {
        ::_exit(EXIT_FAILURE);
    }
    QDataStream stream(&output);
    stream << result;
    output.close();
    ::_exit(EXIT_SUCCESS);
}

} // namespace

QByteArray TracedProcess::Call::text(int argument) const
{
    QByteArray result;
    quint64 address = arguments.at(static_cast<std::size_t>(argument));
    for (;;) {
        // Not beyond the page, because the next one may not be mapped.
        constexpr quint64 kPage = 4096;
        QByteArray piece(static_cast<int>(kPage - address % kPage), '\0');
        iovec local{piece.data(), static_cast<std::size_t>(piece.size())};
        // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
        iovec remote{reinterpret_cast<void*>(static_cast<quintptr>(address)), local.iov_len};
        if (::process_vm_readv(process, &local, 1, &remote, 1, 0) <= 0) {
            return result;
        }
        const int end = piece.indexOf('\0');
        if (end >= 0) {
            return result + piece.left(end);
        }
        result += piece;
        address += static_cast<quint64>(piece.size());
    }
}

QByteArray TracedProcess::Call::statusPath() const
{
    return number == kFstatat || number == kStatx ? text(1) : QByteArray();
}

quint64 TracedProcess::Call::statusFlags() const
{
    if (number == kStatx) {
        return arguments[2];
    }
    return number == kFstatat ? arguments[3] : 0;
}

TracedProcess::TracedProcess(const std::function<QStringList()>& work, const Observer& onCall)
{
    const int outputFile = ::memfd_create("output", MFD_CLOEXEC);
    const pid_t process = ::fork();
    if (process == 0) {
        runChild(work, outputFile);
    }
    if (process > 0) {
        follow(process, onCall);
    }
    QFile output;
    if (mIsFinished && output.open(outputFile, QIODevice::ReadOnly, QFile::AutoCloseHandle)) {
        output.seek(0);
        QDataStream stream(&output);
        stream >> mOutput;
    } else {
        ::close(outputFile);
    }
}

void TracedProcess::follow(pid_t process, const Observer& onCall)
{
    int status = 0;
    if (::waitpid(process, &status, 0) != process || !WIFSTOPPED(status)) {
        return;
    }
    ::ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    long signal = 0;
    while (::ptrace(PTRACE_SYSCALL, process, nullptr, signal) == 0 &&
           ::waitpid(process, &status, 0) == process && WIFSTOPPED(status)) {
        signal = 0;
        if (WSTOPSIG(status) != kSystemCallStop) {
            signal = WSTOPSIG(status);
            continue;
        }
        __ptrace_syscall_info info{};
        // The size is in the place of an address.
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        auto* const size = reinterpret_cast<void*>(sizeof info);
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, process, size, &info) <= 0 ||
            info.op != PTRACE_SYSCALL_INFO_ENTRY) {
            continue;
        }
        Call call{static_cast<long>(info.entry.nr), {}, 0, process};
        call.count = ++mCounts[call.number];
        std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
        if (onCall) {
            onCall(call);
        }
    }
    mIsFinished = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}
