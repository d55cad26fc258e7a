// Keeps the coverage counts of a process that does not end through exit(). Linked into every
// program of the preset `coverage`, and into no other.

#include <csignal>
#include <cstdlib>

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" void __gcov_dump();
extern "C" void __gcov_reset();

namespace {

using SigactionFunction = int (*)(int, const struct sigaction*, struct sigaction*);

SigactionFunction realSigaction()
{
    static const auto kFunction =
        reinterpret_cast<SigactionFunction>(::dlsym(RTLD_NEXT, "sigaction"));
    return kFunction;
}

// A process without privileges cannot write among the counts of root, and would complain on
// standard error. Its counts are lost.
__attribute__((constructor)) void divertUnprivilegedCounts()
{
    if (::geteuid() != 0) {
        ::setenv("GCOV_PREFIX", "/tmp", 0);
    }
}

} // namespace

// Hidden: the libraries go on calling the C library's own functions.
#define HIDDEN __attribute__((visibility("hidden")))

// A forked child ends this way.
extern "C" HIDDEN void _exit(int status)
{
    __gcov_dump();
    for (;;) {
        ::syscall(SYS_exit_group, status);
    }
}

// The crash handler restores the default action before it lets the signal end the process.
extern "C" HIDDEN int sigaction(int number, const struct sigaction* action,
                                struct sigaction* oldAction) noexcept
{
    if (action != nullptr && action->sa_handler == SIG_DFL) {
        __gcov_dump();
        // What is written once is not written again.
        __gcov_reset();
    }
    return realSigaction()(number, action, oldAction);
}
