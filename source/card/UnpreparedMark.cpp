#include "UnpreparedMark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr auto kPath = "/run/sdcardd-unprepared";

} // namespace

bool UnpreparedMark::set()
{
    const int file = ::open(kPath, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    return file >= 0 && ::close(file) == 0;
}

bool UnpreparedMark::isSet()
{
    return ::access(kPath, F_OK) == 0;
}

void UnpreparedMark::clear()
{
    ::unlink(kPath);
}
