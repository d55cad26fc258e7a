"""A board as a computer: its programs, its files, and the leftovers of a service."""

import os
import shlex
import signal
import subprocess
import threading
import time
from abc import ABC, abstractmethod
from collections.abc import Callable
from pathlib import Path

from . import tools
from .names import (BOARD_DIRECTORY, ENVIRONMENT, MEDIA_CONFIGURATION, MOUNT_POINT, MOUNT_RESTRICTION, RUN_LEVEL_FILE,
                    SYSTEM_LOG, TOOL_CALLS_FILE, TRACKING_CONFIGURATION)
from .process import Process

RUN_SECONDS = 60
POLL_SECONDS = 0.03


class Computer(ABC):
    """Programs and files. A kind of board implements the abstract operations at the end of the class."""

    # All time limits of tests are multiplied by it.
    patience = 1
    _dpkg_options: tuple[str, ...] = ()
    # A command (sh) that ends when the kernel's events have been handled.
    _settle = ":"

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._started: list[Process] = []

    # Programs

    @property
    def started(self) -> list[Process]:
        """Every program that start() and hold_file_open() have started."""
        return list(self._started)

    def run(self, *command: str, input: str | bytes = "", user: str | None = None, within: float = RUN_SECONDS,
            check: bool = False, as_bytes: bool = False) -> subprocess.CompletedProcess:
        """Runs a program to its end; with @p as_bytes its standard output is bytes instead of text.

        @p check raises AssertionError for an exit status other than 0. Raises FileNotFoundError, and TimeoutError
        after @p within seconds.
        """
        process = self._start(list(command), ENVIRONMENT, user, input if isinstance(input, bytes) else input.encode())
        try:
            status = process.wait(within * self.patience)
        except TimeoutError:
            process.stop(signal.SIGKILL)
            raise
        output = process.output_bytes if as_bytes else process.output
        result = subprocess.CompletedProcess(list(command), status, output, process.errors)
        if check and status != 0:
            raise AssertionError(f"'{shlex.join(command)}' ended with {status}: {result.stdout}{result.stderr}")
        return result

    def start(self, *command: str, user: str | None = None) -> Process:
        """Starts a program, which runs until it ends or the board is closed."""
        process = self._start(list(command), ENVIRONMENT, user, b"")
        self._started.append(process)
        return process

    def hold_file_open(self, path: str = MOUNT_POINT + "/held", ignore_sigterm: bool = False) -> Process:
        """Starts a program that keeps a file open, and returns when the file is open."""
        program = ("import signal, sys, time\n"
                   "if sys.argv[2] == 'stubborn': signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
                   "held = open(sys.argv[1], 'a')\n"
                   "print('open', flush=True)\n"
                   "time.sleep(100000)\n")
        process = self.start("/usr/bin/python3", "-I", "-S", "-c", program, path,
                             "stubborn" if ignore_sigterm else "polite")
        self._until(lambda: "open" in process.output or not process.running, RUN_SECONDS)
        assert process.running, process.errors
        return process

    # Files

    def read_file(self, path: str) -> str:
        """A file's text. Raises AssertionError when it cannot be read."""
        return self.run("cat", path, check=True).stdout

    def write_file(self, path: str, text: str, mode: int = 0o644) -> None:
        """Writes a file, and creates its directory if it is missing."""
        script = 'mkdir -p "${1%/*}/" && rm -f "$1" && cat >"$1" && chmod "$2" "$1"'
        self.run("sh", "-c", script, "sh", path, f"{mode:o}", input=text, check=True)

    def remove_file(self, path: str) -> None:
        """Removes a file, or a directory with its content."""
        self.run("rm", "-rf", path, check=True)

    def exists(self, path: str) -> bool:
        """Whether a file or directory exists."""
        return self.run("test", "-e", path).returncode == 0

    def mounts(self) -> list[str]:
        """The lines of /proc/mounts that mention the card or its mount point."""
        return _card_mounts(self.read_file("/proc/mounts"))

    # Tools of the system, replaced in order to record their calls or to fail

    def replace_tool(self, path: str, body: str = 'exec "$ORIGINAL" "$@"') -> None:
        """Replaces a program by a script that records its arguments and then runs @p body (sh).

        "$ORIGINAL" in the body is the real program, which the default body runs.
        """
        original = tools.original_of(path)
        keep = 'mkdir -p "${2%/*}" && { [ -e "$2" ] || [ ! -e "$1" ] || cp -p "$(readlink -f "$1")" "$2"; }'
        self.run("sh", "-c", keep, "sh", path, original, check=True)
        self.write_file(path, tools.recording_script(path, body), 0o755)

    def restore_tool(self, path: str) -> None:
        """Restores the real program."""
        self.run("mv", tools.original_of(path), path, check=True)

    def remove_tool(self, path: str) -> None:
        """Removes a program."""
        self.run("rm", path, check=True)

    def tool_calls(self, name: str) -> list[list[str]]:
        """The arguments of every call of a replaced tool, in order."""
        return tools.parse_calls(self._board_file(TOOL_CALLS_FILE), name)

    # The system

    @property
    def system_log(self) -> list[str]:
        """Every entry of the system log since the board was started."""
        return self._board_file(SYSTEM_LOG).splitlines()

    def set_runlevel(self, level: int) -> None:
        """Sets the run level that `runlevel` prints; 6 is a reboot."""
        self.write_file(RUN_LEVEL_FILE, f"N {level}\n")

    def install_program(self, program: Path, path: str) -> None:
        """Copies a program of this machine to a path of the board."""
        self.run("sh", "-c", 'cat >"$1" && chmod 755 "$1"', "sh", path, input=program.read_bytes(), check=True)

    def install_package(self, package: str | os.PathLike, start: bool = False) -> None:
        """Installs a Debian package; @p start lets it start its service. Raises AssertionError."""
        copy = f"{BOARD_DIRECTORY}/package.deb"
        self.run("sh", "-c", 'cat >"$1"', "sh", copy, input=Path(package).read_bytes(), check=True)
        self.write_file("/usr/sbin/policy-rc.d", f"#!/bin/sh\nexit {0 if start else 101}\n", 0o755)
        self.run("dpkg", *self._dpkg_options, "--install", "--force-confold", copy, check=True)

    def _install_product(self, package: str | os.PathLike, media_config: str | None, track_config: str | None) -> None:
        self.install_package(package)
        self.remove_file(TRACKING_CONFIGURATION)
        # Every mount would differ from one on a board without the package.
        self.remove_file(MOUNT_RESTRICTION)
        if track_config is not None:
            self.write_file(TRACKING_CONFIGURATION, track_config)
        if media_config is not None:
            self.write_file(MEDIA_CONFIGURATION, media_config)

    # Leftovers

    def leftovers(self) -> list[str]:
        """Describes the leftovers.

        Of an open board: what the service left on the board when it ended. Of a closed board: what the
        board left on this machine.
        """
        return self._remains_on_board() if self.is_open else self._remains_of_board()

    def _remains_on_board(self) -> list[str]:
        own = {str(process.pid) for process in self._started}
        # One command, because each program start takes time on a slow board.
        look = (f"{self._settle}; ps -e -o pid=,ppid=,stat=,args=; echo; cat /proc/mounts; echo; "
                f"[ ! -e {MOUNT_POINT} ] || echo {MOUNT_POINT}")
        processes, mounts, directory = self.run("sh", "-c", look).stdout.split("\n\n")
        remains = []
        for line in processes.splitlines():
            pid, parent, state, arguments = line.split(None, 3)
            if (pid == "1" or pid in own or parent in own or arguments == f"sh -c {look}"
                    or self._is_system_process(parent, arguments)):
                continue
            remains.append(f"process {pid} ({state}): {arguments}")
        remains += [f"mount: {line}" for line in _card_mounts(mounts)]
        if directory:
            remains.append(f"directory: {directory.strip()}")
        return remains

    def _is_system_process(self, _parent: str, arguments: str) -> bool:
        return arguments.startswith(("ps -e", "dbus-daemon "))

    # Waiting

    def _until(self, condition: Callable[[], bool], within: float) -> bool:
        """Waits until a condition is true; it is evaluated after each signal and LED change, and by polling."""
        deadline = time.monotonic() + within * self.patience
        pause = POLL_SECONDS
        while True:
            # Read before the condition: this process may be delayed between the two.
            is_late = time.monotonic() > deadline
            if condition():
                return True
            if is_late:
                return False
            with self._changed:
                self._changed.wait(pause)
            # Each evaluation takes time on a slow board that its service needs.
            pause = min(1.5 * pause, POLL_SECONDS * self.patience)

    def _notify(self) -> None:
        with self._changed:
            self._changed.notify_all()

    # Operations of each kind of board

    @property
    @abstractmethod
    def is_open(self) -> bool:
        """Whether close() has not been called yet."""

    @abstractmethod
    def close(self) -> None:
        """Switches the board off and removes everything of it; closing twice does nothing."""

    @property
    @abstractmethod
    def is_powered(self) -> bool:
        """Whether the open board still runs."""

    @abstractmethod
    def open_terminal(self, command: str) -> int:
        """Connects this terminal to a command (sh) on the board until that ends; returns its exit status."""

    @abstractmethod
    def _start(self, command: list[str], environment: dict[str, str], user: str | None,
               standard_input: bytes) -> Process:
        """Starts a program with only this environment."""

    @abstractmethod
    def _board_file(self, path: str) -> str:
        """The text of a file below the board's own directory; empty while it does not exist."""

    @abstractmethod
    def _remains_of_board(self) -> list[str]:
        """What the closed board left on this machine."""


def _card_mounts(mounts: str) -> list[str]:
    return [line for line in mounts.splitlines() if line.startswith("/dev/mmcblk0") or f" {MOUNT_POINT}" in line]
