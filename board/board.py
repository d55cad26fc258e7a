"""What every board can do, in the words of its user: put a card in, hold the button, watch the lights.

A kind of board implements the abstract operations at the end of the class; everything else stands
on these.
"""

import os
import shlex
import signal
import subprocess
import threading
import time
from abc import ABC, abstractmethod
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TypeVar

from . import tools
from .bus import BusClient, BusError, Signal
from .card import Card
from .expectations import Expectations
from .leds import LedPanel
from .leftovers import Leftovers
from .log_records import LogRecord, parse_records
from .names import (BOARD_DIRECTORY, ENVIRONMENT, LOG_FILE, MEDIA_CONFIGURATION, MOUNT_POINT, RUN_LEVEL_FILE,
                    SERVICE_PROGRAM, SYSTEM_LOG, TOOL_CALLS_FILE, TRACKING_CONFIGURATION, State, Transition)
from .process import Process

RUN_SECONDS = 60
SERVICE_START_SECONDS = 20
POLL_SECONDS = 0.03

# Sanitizers name every finding and go on; a finding is a crash for the tests.
SANITIZER_ENVIRONMENT = {
    "ASAN_OPTIONS": "detect_stack_use_after_return=1:handle_abort=0:abort_on_error=0",
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "TSAN_OPTIONS": "second_deadlock_stack=1",
}

Board_ = TypeVar("Board_", bound="Board")


class Board(Expectations, Leftovers, ABC):
    """A device with a card slot, two LEDs, an eject button and a system bus. Use it in a with statement."""

    # As one speaks of it: a "virtual" board.
    kind: str
    # By how much every time that a test allows for something is longer on this kind of board.
    patience = 1
    _dpkg_options: tuple[str, ...] = ()

    def __init__(self) -> None:
        self.services: list[Process] = []  # every start of the service
        self.card: Card | None = None
        self.bus: BusClient
        self.led_panel: LedPanel
        self.changed = threading.Condition()
        self._started: list[Process] = []

    def __enter__(self: Board_) -> Board_:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    # The card slot

    def insert(self, card: Card, announce: bool = True) -> None:
        """Puts a card into the slot; @p announce tells the service, if one runs, over the bus."""
        self._insert(card)
        self.card = card
        if announce and self.bus.has_service():
            self.bus.announce_insertion()

    def pull(self, announce: bool = True) -> None:
        """Takes the card out at once: whoever uses it gets I/O errors. @p announce as for insert()."""
        self._pull()
        self.card = None
        if announce and self.bus.has_service():
            self.bus.announce_removal()

    @contextmanager
    def unannounced(self) -> Iterator[None]:
        """Keeps the board itself from announcing the cards that come and go meanwhile, with announce=False."""
        yield

    def fsck(self, card: Card) -> subprocess.CompletedProcess:
        """A full check of a card's first partition that changes nothing."""
        return card.check()

    # The eject button

    def press_eject_button(self) -> None:
        """Presses the button until it is released."""
        self._set_eject_button("1\n")

    def release_eject_button(self) -> None:
        """Releases the button."""
        self._set_eject_button("0\n")

    def hold_eject_button(self, seconds: float = 8) -> None:
        """Presses the button for so long; the service needs five seconds, and a busy machine a few more."""
        self.press_eject_button()
        time.sleep(seconds)
        self.release_eject_button()

    # The service

    def start_service(self, *options: str, wait: bool = True, name_only: bool = False,
                      environment: dict[str, str] | None = None) -> Process:
        """Starts the service with the given options.

        With @p wait it returns when the service has begun its work, or only has its name on the bus, or has
        ended.
        """
        variables = ENVIRONMENT | SANITIZER_ENVIRONMENT | (environment or {})
        self.services.append(self._start([SERVICE_PROGRAM, *options], variables, None, b""))
        deadline = time.monotonic() + SERVICE_START_SECONDS * self.patience
        while wait and self.service.running and not (self.bus.has_service() and (name_only or self._has_begun())):
            if time.monotonic() > deadline:
                raise TimeoutError(f"the service is not on the bus after {SERVICE_START_SECONDS * self.patience} s{self.report()}")
            time.sleep(POLL_SECONDS)
        return self.service

    def _has_begun(self) -> bool:
        # The name is there a moment before the object, and that a moment before the state machine.
        try:
            return self.state is not State.UNKNOWN
        except BusError:
            return False

    def stop_service(self, number: int = signal.SIGTERM, within: float = 60) -> int:
        """Sends a signal to the service, waits for its end and returns its exit status."""
        assert self.service is not None, "the service was not started"
        return self.service.stop(number, within * self.patience)

    @property
    def service(self) -> Process | None:
        """The service as it was started last."""
        return self.services[-1] if self.services else None

    @property
    def state(self) -> State:
        """The State property."""
        return State(self.bus.property("State"))

    @property
    def transition(self) -> Transition:
        """The Transition property."""
        return Transition(self.bus.property("Transition"))

    @property
    def signals(self) -> list[Signal]:
        """Every signal of the service since the board was started."""
        return self.bus.signals

    @property
    def records(self) -> list[LogRecord]:
        """Every log record of the service since the board was started."""
        return parse_records(self._board_file(LOG_FILE))

    def lights(self) -> dict[str, bool] | None:
        """Which LED really shines at this moment; None where the LEDs are only files."""
        return None

    @property
    def system_log(self) -> list[str]:
        """Every entry of the system log since the board was started."""
        return self._board_file(SYSTEM_LOG).splitlines()

    # Programs and files

    @property
    def started(self) -> list[Process]:
        """Every program that start() and hold_file_open() have started."""
        return list(self._started)

    def run(self, *command: str, input: str | bytes = "", user: str | None = None, within: float = RUN_SECONDS,
            check: bool = False, as_bytes: bool = False) -> subprocess.CompletedProcess:
        """Runs a program on the board to its end; @p as_bytes: its standard output is no text.

        Raises FileNotFoundError, TimeoutError.
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
        """Starts a program on the board, which runs until it ends or the board is closed."""
        process = self._start(list(command), ENVIRONMENT, user, b"")
        self._started.append(process)
        return process

    def hold_file_open(self, path: str = MOUNT_POINT + "/held", ignore_sigterm: bool = False) -> Process:
        """Starts a program that keeps a file open, and returns when it does so."""
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

    def read_file(self, path: str) -> str:
        """A file's text. Raises AssertionError when it cannot be read."""
        return self.run("cat", path, check=True).stdout

    def write_file(self, path: str, text: str, mode: int = 0o644) -> None:
        """Writes a file, with its directory where that is missing."""
        script = 'mkdir -p "${1%/*}/" && rm -f "$1" && cat >"$1" && chmod "$2" "$1"'
        self.run("sh", "-c", script, "sh", path, f"{mode:o}", input=text, check=True)

    def install_program(self, program: Path, path: str) -> None:
        """Copies a program of this machine to a path of the board."""
        self.run("sh", "-c", 'cat >"$1" && chmod 755 "$1"', "sh", path, input=program.read_bytes(), check=True)

    def remove_file(self, path: str) -> None:
        """Removes a file or a directory with all that it contains."""
        self.run("rm", "-rf", path, check=True)

    def exists(self, path: str) -> bool:
        """Whether something exists at a path."""
        return self.run("test", "-e", path).returncode == 0

    def replace_tool(self, path: str, body: str = 'exec "$ORIGINAL" "$@"') -> None:
        """Puts a script in a program's place: it records its arguments and does @p body (sh).

        Without a body it passes on to the real program, as "$ORIGINAL" does in any body.
        """
        original = tools.original_of(path)
        keep = 'mkdir -p "${2%/*}" && { [ -e "$2" ] || [ ! -e "$1" ] || cp -p "$(readlink -f "$1")" "$2"; }'
        self.run("sh", "-c", keep, "sh", path, original, check=True)
        self.write_file(path, tools.recording_script(path, body), 0o755)

    def restore_tool(self, path: str) -> None:
        """Puts the real program back."""
        self.run("mv", tools.original_of(path), path, check=True)

    def remove_tool(self, path: str) -> None:
        """Takes a program away."""
        self.run("rm", path, check=True)

    def tool_calls(self, name: str) -> list[list[str]]:
        """The arguments of every call of a replaced tool, in order."""
        return tools.parse_calls(self._board_file(TOOL_CALLS_FILE), name)

    def set_runlevel(self, level: int) -> None:
        """Makes the system's run level what `runlevel` then prints; 6 is a reboot."""
        self.write_file(RUN_LEVEL_FILE, f"N {level}\n")

    def mounts(self) -> list[str]:
        """The board's mounts of the card, as /proc/mounts tells them."""
        return self._card_mounts(self.read_file("/proc/mounts"))

    @staticmethod
    def _card_mounts(mounts: str) -> list[str]:
        return [line for line in mounts.splitlines()
                if line.startswith("/dev/mmcblk0") or f" {MOUNT_POINT}" in line]

    def install_package(self, package: str | os.PathLike, start: bool = False) -> None:
        """Installs a Debian package; @p start lets it start its service. Raises AssertionError."""
        copy = f"{BOARD_DIRECTORY}/package.deb"
        self.run("sh", "-c", 'cat >"$1"', "sh", copy, input=Path(package).read_bytes(), check=True)
        self.write_file("/usr/sbin/policy-rc.d", f"#!/bin/sh\nexit {0 if start else 101}\n", 0o755)
        self.run("dpkg", *self._dpkg_options, "--install", "--force-confold", copy, check=True)

    def _install_product(self, package: str | os.PathLike, media_config: str | None, track_config: str | None) -> None:
        self.install_package(package)
        self.remove_file(TRACKING_CONFIGURATION)
        if track_config is not None:
            self.write_file(TRACKING_CONFIGURATION, track_config)
        if media_config is not None:
            self.write_file(MEDIA_CONFIGURATION, media_config)

    def report(self) -> str:
        """The last records and the service's output, for a failed expectation."""
        lines = ["", "last log records:", *(f"  {record}" for record in self.records[-12:])]
        if self.service is not None:
            lines.append(f"service: exit status {self.service.exit_status}")
            lines += [f"  {line}" for line in (self.service.output + self.service.errors).splitlines()[-40:]]
        return "\n".join(lines)

    def _until(self, condition: Callable[[], bool], within: float) -> bool:
        """Waits until a condition holds; asked again after each signal and LED change, else by polling."""
        deadline = time.monotonic() + within * self.patience
        pause = POLL_SECONDS
        while True:
            # Before the condition is asked, or this process could be kept waiting between the two.
            is_late = time.monotonic() > deadline
            if condition():
                return True
            if is_late:
                return False
            with self.changed:
                self.changed.wait(pause)
            # A question costs a slow board time that its service needs.
            pause = min(1.5 * pause, POLL_SECONDS * self.patience)

    def _notify(self) -> None:
        with self.changed:
            self.changed.notify_all()

    # What a kind of board implements

    @property
    @abstractmethod
    def is_open(self) -> bool:
        """Whether close() was not called yet."""

    @abstractmethod
    def close(self) -> None:
        """Switches the board off. Nothing of it remains; closing twice does nothing."""

    @property
    @abstractmethod
    def is_powered(self) -> bool:
        """Whether the open board still runs."""

    @abstractmethod
    def open_terminal(self, command: str) -> int:
        """Leaves this terminal to a command (sh) on the board until that ends; returns an exit status."""

    @abstractmethod
    def card_counters(self) -> str:
        """Something that changes whenever the card is read or written; empty while the slot is."""

    @abstractmethod
    def log_size(self) -> int:
        """How long the service's log is by now: any number that changes with it."""

    @abstractmethod
    def _start(self, command: list[str], environment: dict[str, str], user: str | None,
               standard_input: bytes) -> Process:
        """Starts a program with exactly this environment."""

    @abstractmethod
    def _insert(self, card: Card) -> None:
        """Makes the slot's contacts."""

    @abstractmethod
    def _pull(self) -> None:
        """Breaks the slot's contacts."""

    @abstractmethod
    def _set_eject_button(self, text: str) -> None:
        """Sets the content of the button's file without ever showing it empty."""

    @abstractmethod
    def _board_file(self, path: str) -> str:
        """A file below the board's own directory; empty while it does not exist."""

    # The service object. Last in the class: property() hides the decorator of that name.

    def call(self, interface: str, method: str, *arguments: str | int | bool) -> object:
        """Calls a method of the service object; raises BusError with the error reply."""
        return self.bus.call(interface, method, *arguments)

    def property(self, name: str) -> object:
        """A property of the service object."""
        return self.bus.property(name)

    def introspect(self) -> str:
        """The service object's introspection data (XML)."""
        return self.bus.introspect()
