#include "PeakMemory.h"

#include <array>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

qint64 peakBytes()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return qint64{usage.ru_maxrss} * 1024;
}

} // namespace

qint64 PeakMemory::of(const std::function<bool()>& work)
{
    ::malloc_trim(0);
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        return -1;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const qint64 before = peakBytes();
        qint64 grown = -1;
        if (work()) {
            grown = peakBytes() - before;
        }
        ::_exit(::write(ends[1], &grown, sizeof grown) == sizeof grown ? 0 : 1);
    }
    qint64 grown = -1;
    ::close(ends[1]);
    if (child < 0 || ::read(ends[0], &grown, sizeof grown) != sizeof grown) {
        grown = -1;
    }
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return grown;
}
