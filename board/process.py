"""A program that runs on a board."""

import os
import select
import signal
import threading
from collections.abc import Callable
from contextlib import contextmanager
from typing import IO, Iterator

CRASH_SIGNALS = {signal.SIGSEGV, signal.SIGBUS, signal.SIGILL, signal.SIGFPE, signal.SIGABRT}
SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
                   "runtime error:")


class Process:
    """A program on a board. Its output is kept in memory; its wait status comes through a pipe."""

    def __init__(self, arguments: list[str], standard_input: bytes,
                 kill: Callable[[int, int], None]) -> None:
        self.arguments = arguments
        self.pid = 0  # on the board
        self._kill = kill
        self._wait_status: int | None = None
        self._input = _memory_file("stdin")
        self._output = _memory_file("stdout")
        self._errors = _memory_file("stderr")
        self._input.write(standard_input)
        self._input.seek(0)
        self._status_pipe: IO[bytes] | None = None
        self._status_lock = threading.Lock()

    @contextmanager
    def status_pipe_writer(self) -> Iterator[IO[bytes]]:
        """The pipe's end for the board; closed on this side when the block ends."""
        reader, writer = os.pipe2(os.O_CLOEXEC)
        self._status_pipe = os.fdopen(reader, "rb", buffering=0)
        with os.fdopen(writer, "wb", buffering=0) as pipe:
            yield pipe

    def standard_descriptors(self) -> list[int]:
        """The descriptors that are the program's standard input, output and error."""
        return [self._input.fileno(), self._output.fileno(), self._errors.fileno()]

    @property
    def exit_status(self) -> int | None:
        """None while it runs, -N when signal N ended it, otherwise its exit status."""
        self._read_status(0)
        return None if self._wait_status is None else os.waitstatus_to_exitcode(self._wait_status)

    @property
    def running(self) -> bool:
        """Whether it has not ended yet."""
        return self.exit_status is None

    @property
    def output(self) -> str:
        """What it has written to standard output so far."""
        return _content(self._output)

    @property
    def output_bytes(self) -> bytes:
        """The same as bytes."""
        return _bytes(self._output)

    @property
    def errors(self) -> str:
        """What it has written to standard error so far."""
        return _content(self._errors)

    @property
    def crashed(self) -> bool:
        """Whether a crash signal ended it or a sanitizer reported an error."""
        status = self.exit_status
        return ((status is not None and -status in CRASH_SIGNALS)
                or any(mark in self.errors for mark in SANITIZER_MARKS))

    def wait(self, within: float = 10) -> int:
        """Waits for its end and returns its exit status; TimeoutError after @p within seconds."""
        self._read_status(within)
        status = self.exit_status
        if status is None:
            raise TimeoutError(f"{self.arguments[0]} still runs after {within} s")
        return status

    def send_signal(self, number: int = signal.SIGTERM) -> None:
        """Sends a signal; does nothing when the program has ended."""
        if self.running:
            self._kill(self.pid, number)

    def stop(self, number: int = signal.SIGTERM, within: float = 10) -> int:
        """Sends a signal, waits until the program has ended and returns its exit status."""
        self.send_signal(number)
        return self.wait(within)

    def _read_status(self, seconds: float) -> None:
        if self._wait_status is not None or self._status_pipe is None:
            return
        if not select.select([self._status_pipe], [], [], max(0.0, seconds))[0]:
            return
        # Several threads may have waited; the first reads the pipe, and the pipe stays open for the others.
        with self._status_lock:
            if self._wait_status is None:
                text = self._status_pipe.read(16)
                # The pipe was closed without a status: the board was switched off.
                self._wait_status = int(text) if text else int(signal.SIGKILL)


def _memory_file(name: str) -> IO[bytes]:
    return os.fdopen(os.memfd_create(name), "w+b", buffering=0)


def _content(file: IO[bytes]) -> str:
    return _bytes(file).decode(errors="replace")


def _bytes(file: IO[bytes]) -> bytes:
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0)
