"""Start-ups in which a call fails that does not fail on a device: a preloaded library makes it fail."""

import re
import subprocess

import pytest

pytestmark = pytest.mark.installed

COMPILERS = {"virtual": "g++", "emulated": "arm-linux-gnueabihf-g++"}
LIBRARY = "/run/failing-calls.so"
NO_SOCKET = """
#include <cerrno>
extern "C" int socket(int, int, int)
{
    errno = EMFILE;
    return -1;
}
"""
OPEN_THROWS = """
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static int opened(const char* path, int flags, mode_t mode)
{
    if (std::strcmp(path, "/proc/tavo-logger/suspendudev") == 0) {
        throw 1;
    }
    return ::openat(AT_FDCWD, path, flags, mode);
}

extern "C" int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return opened(path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...) __attribute__((alias("open")));
"""


@pytest.fixture
def start_with(board, tmp_path):
    """Starts the service with a library, given as its source, and waits for its end."""
    def start(source):
        library = tmp_path / "failing-calls.so"
        command = [COMPILERS[board.kind], "-x", "c++", "-shared", "-fPIC", "-o", library, "-"]
        subprocess.run(command, input=source, text=True, check=True)
        board.install_program(library, LIBRARY)
        # A sanitizer would refuse to be loaded after the library.
        service = board.start_service(environment={"LD_PRELOAD": LIBRARY, "ASAN_OPTIONS": "verify_asan_link_order=0"})
        assert service.wait() == 1
        return service
    return start


def test_without_a_signal_handler_the_service_does_not_start(board, start_with):
    service = start_with(NO_SOCKET)
    assert (service.output, service.errors) == (
        "", "Abort. Cannot install signal handler, see systemlog for details.\n")
    assert board.records == []
    # After the time and the name that the C library puts before it.
    entry = re.compile(r"<27>.* sdcardd: sdcardd: cannot install the crash handler: Too many open files")
    board.expect("the reason in the system log", lambda: any(map(entry.fullmatch, board.system_log)))


def test_an_exception_that_nothing_handles_ends_the_service_with_a_record(board, start_with):
    service = start_with(OPEN_THROWS)
    assert (service.output, service.errors) == ("", "")
    assert [(record.level, record.channel, record.source, record.message) for record in board.records[1:]] == [
        ("FATAL", "sdcard", "main", "Unhandled Exception catched!"),
        ("INFO", "sdcard", "main", "Terminating sdcardd with exit code 1")]
