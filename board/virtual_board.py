"""A board on this machine's kernel, in namespaces of its own."""

import os
import subprocess
import weakref
from pathlib import Path

from .board import Board
from .bus import BusClient
from .card import Card
from .installation import RUN_LEVEL_PROGRAM, configuration_files, file, product_files
from .leds import LED_FILES, LED_NAMES
from .leftovers import remains_on_host
from .log_records import TRACKING_CONFIGURATION_TEXT
from .names import (BOARD_DIRECTORY, CARD_DEVICE, EJECT_BUTTON, ENVIRONMENT, LED_DIRECTORY, LOG_FILE,
                    RUN_LEVEL_FILE, SERVICE_PROGRAM, SYSTEM_BUS_SOCKET)
from .process import Process
from .virtual_leds import VirtualLedPanel
from .virtual_machine import VirtualMachine


class VirtualBoard(Board):
    """See Board. Several boards can run at the same time."""

    kind = "virtual"

    def __init__(self, program: str | os.PathLike | None = None, media_config: str | None = None,
                 track_config: str | None = TRACKING_CONFIGURATION_TEXT, leds: bool = True,
                 eject_button: bool = True, files: dict[str, str] | None = None,
                 package: str | os.PathLike | None = None, shared: Path | None = None) -> None:
        """Starts the board, without a card and without the service.

        @p program is the service's executable; the configurations are those of
        configuration_files(). @p files are further files (path to text). A Debian @p package is
        installed instead of the program and of all that the product puts on a board; without
        @p media_config its own then stays. The programs of the board can write to the directory @p shared of this
        machine, at the same path.
        """
        super().__init__()
        installed = product_files() | configuration_files(media_config, track_config)
        if package is not None:
            installed = {path: installed[path] for path in (RUN_LEVEL_PROGRAM, RUN_LEVEL_FILE)}
        if eject_button:
            installed[EJECT_BUTTON] = file("0\n")
        if leds:
            installed |= {f"{LED_DIRECTORY}/{led}/{name}": file(text)
                          for led in LED_NAMES for name, text in LED_FILES.items()}
        installed |= {path: file(text) for path, text in (files or {}).items()}
        self._card_names: set[str] = set()
        self._machine: VirtualMachine | None = VirtualMachine(
            SERVICE_PROGRAM, None if program is None else Path(program).resolve(strict=True), installed, shared)
        self.namespace = self._machine.namespace
        # While it is open, no other board's namespace gets this number, which identifies leftovers.
        weakref.finalize(self, os.close, os.open(f"/proc/{self._machine.host_pid}/ns/pid", os.O_RDONLY | os.O_CLOEXEC))
        try:
            self.led_panel = VirtualLedPanel(self._machine.path_from_host(LED_DIRECTORY), self._notify)
            self.bus = BusClient(str(self._machine.path_from_host(SYSTEM_BUS_SOCKET)), self._notify)
            if package is not None:
                self._install_product(package, media_config, track_config)
        except BaseException:
            self._machine.power_off()
            raise

    @property
    def is_open(self) -> bool:
        return self._machine is not None

    @property
    def host_pid(self) -> int:
        """The process id of the board's first process on this machine, for nsenter."""
        return self._machine.host_pid

    def close(self) -> None:
        if self._machine is None:
            return
        self.bus.close()
        self.led_panel.close()
        self._machine.power_off()
        self._machine = None

    @property
    def is_powered(self) -> bool:
        try:
            return os.readlink(f"/proc/{self.host_pid}/ns/pid") == self.namespace
        except OSError:
            return False

    def open_terminal(self, command: str) -> int:
        # script(1) opens a terminal on the board: the shell has job control, and Ctrl-C reaches only its jobs.
        shell = ["nsenter", "--target", str(self.host_pid), "--mount", "--pid", "--root", "--wdns=/",
                 "script", "--quiet", "--return", "--command", command, "/dev/null"]
        return subprocess.call(shell, env=ENVIRONMENT | {"TERM": os.environ.get("TERM", "xterm")})

    def stop_message_bus(self) -> None:
        """Ends the board's message bus at once, as a crash would."""
        self.bus.close()
        self.run("sh", "-c", "kill -9 $(pidof dbus-daemon)")

    def start_message_bus(self) -> None:
        """Starts the message bus again and connects to it."""
        self.run("sh", "-c", f"rm -f {SYSTEM_BUS_SOCKET}; dbus-daemon --system --fork --nopidfile --nosyslog")
        self.bus = BusClient(str(self._machine.path_from_host(SYSTEM_BUS_SOCKET)), self._notify)

    def card_counters(self) -> str:
        try:
            device = self._machine.path_from_host(CARD_DEVICE).stat().st_rdev
            return Path(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}/stat").read_text()
        except OSError:
            return ""

    def log_size(self) -> int:
        try:
            return self._machine.path_from_host(LOG_FILE).stat().st_size
        except FileNotFoundError:
            return 0

    def _start(self, command: list[str], environment: dict[str, str], user: str | None,
               standard_input: bytes) -> Process:
        return self._machine.start(command, environment, user, standard_input)

    def _insert(self, card: Card) -> None:
        self._card_names.add(card.name)
        self._machine.insert(card.fileno(), card.read_only)

    def _pull(self) -> None:
        self._machine.pull()

    def _set_eject_button(self, text: str) -> None:
        descriptor = os.open(self._machine.path_from_host(EJECT_BUTTON), os.O_WRONLY | os.O_CLOEXEC)
        try:
            os.pwrite(descriptor, text.encode(), 0)
        finally:
            os.close(descriptor)

    def _board_file(self, path: str) -> str:
        assert path.startswith(BOARD_DIRECTORY)
        try:
            return self._machine.path_from_host(path).read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def _remains_of_board(self) -> list[str]:
        return remains_on_host(self.namespace, self._card_names)
