"""A board with the device's processor, kernel and MMC host, in an emulator."""

import base64
import os
import socket
import tempfile
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator

from ..board import Board
from ..bus import BusClient
from ..card import Card
from ..installation import RUN_LEVEL_PROGRAM, configuration_files, file
from ..leds import LED_NAMES, LedPanel
from ..log_records import TRACKING_CONFIGURATION_TEXT
from ..names import (BOARD_DIRECTORY, BOARD_FILES, CARD_DEVICE, ENVIRONMENT, LOG_FILE, MEDIA_CONFIGURATION,
                     PARTITION_DEVICE, SYSTEM_BUS_SOCKET)
from ..process import Process
from .emulator import MEMORY_MIB, Emulator, EmulatorError, processes_named
from .link import BoardGone, RemoteProgram, SocketGate
from .snapshot import HOTPLUG_RULE, boot, hotplug_and_product_files, resume, strip
from .terminal import relay_terminal

SLOT_SECONDS = 20
CONTACT_SECONDS = 10
PATIENCE = 4
# Replaces the hot-plug rule while a test announces cards itself.
MASKED_RULE = "/run/udev/rules.d/" + Path(HOTPLUG_RULE).name
HOTPLUG_CONFIGURATION = "/etc/default/tavo-sdcard"
TERMINAL_SOCKET = "/run/board/terminal"
TERMINAL_STATUS = "/run/board/terminal-status"
CARD_STATISTICS = f"/sys/class/block/{Path(CARD_DEVICE).name}/stat"
CARD_NUMBER = f"/sys/class/block/{Path(CARD_DEVICE).name}/dev"


class EmulatedBoard(Board):
    """See Board. The kernel and the product's hot-plug rule announce cards, as on the device."""

    kind = "emulated"
    patience = PATIENCE
    # Its packages were only unpacked, so dpkg knows none of them.
    _dpkg_options = ("--force-depends",)
    # The hot-plug rule's program may still handle the last event. udevd sometimes closes the connection
    # instead of answering, so settle is tried twice.
    _settle = "{ udevadm settle || udevadm settle; }"

    def __init__(self, program: str | os.PathLike | None = None, media_config: str | None = None,
                 track_config: str | None = TRACKING_CONFIGURATION_TEXT, leds: bool = True,
                 eject_button: bool = True, files: dict[str, str] | None = None,
                 format_blank_cards: bool = False, memory_mib: int = MEMORY_MIB, cold_start: bool = False,
                 package: str | os.PathLike | None = None) -> None:
        """Starts the board, without a card and without the service.

        @p program is the service's executable for 32-bit ARM. With @p format_blank_cards the hot-plug helper
        formats blank cards, as on the device. With @p cold_start the board boots; otherwise it resumes from a
        snapshot. A Debian @p package is installed as on the virtual board.
        """
        super().__init__()
        installed = configuration_files(media_config, track_config)
        # Its background work would look like leftovers.
        settings = "RESTART_WHEN_CORRUPTED=no\n" + ("" if format_blank_cards else "FORMAT_BLANK_CARDS=no\n")
        installed[HOTPLUG_CONFIGURATION] = file(settings)
        installed |= {path: file(text) for path, text in (files or {}).items()}
        start = boot if cold_start else resume
        self._program = None if program is None else Path(program).resolve(strict=True)
        self._emulator: Emulator | None = None
        self._files: dict[str, bytes] = {}
        self._unannounced = 0
        self.led_panel = LedPanel(self._notify)
        self._emulator, self._link = start(self._program, memory_mib)
        self._name = self._emulator.name
        try:
            self._set_up(installed, leds, eject_button)
            if package is not None:
                self.run("rm", *self._replaced_by_package(), check=True)
                self._install_product(package, media_config, track_config)
        except BaseException:
            self._switch_off()
            raise

    def _set_up(self, installed: dict[str, dict], leds: bool, eject_button: bool) -> None:
        self._link.keep_awake()
        self._link.on_lights = self.led_panel.set_values
        self._link.ask("install", files=installed)
        self._link.ask("watch_lights", names=LED_NAMES)
        absent = [path for path, present in ((f"{BOARD_FILES}/mmc1_leds", leds),
                                             (f"{BOARD_FILES}/mmc1_eject", eject_button)) if not present]
        if absent:
            self.run("rm", "-r", *absent, check=True)
        self.run("sh", "-c", "echo 1 >/sys/bus/pci/rescan", check=True)
        self._await_on_board("[ -e /sys/class/mmc_host/mmc0 ]", SLOT_SECONDS, "the card slot's driver")
        with self._gate_to(SYSTEM_BUS_SOCKET) as path:
            self.bus = BusClient(path, self._notify)

    @contextmanager
    def _gate_to(self, board_path: str) -> Iterator[str]:
        """A socket of this machine that is forwarded to one of the board; connections outlive the gate."""
        with tempfile.TemporaryDirectory(prefix="sdcardd-board-") as directory:
            gate = SocketGate(self._link, board_path, directory + "/socket")
            try:
                yield directory + "/socket"
            finally:
                gate.close()

    @staticmethod
    def _replaced_by_package() -> list[str]:
        return [path for path in hotplug_and_product_files() if path != RUN_LEVEL_PROGRAM] + [MEDIA_CONFIGURATION]

    @property
    def is_open(self) -> bool:
        return self._emulator is not None

    def close(self) -> None:
        if self._emulator is None:
            return
        self.bus.close()
        self._switch_off()

    def _switch_off(self) -> None:
        self._emulator.switch_off()
        self._link.close()
        self._emulator = None

    def cut_power(self) -> None:
        """Switches the board off, even during a write. The card keeps completed writes."""
        self.close()

    @property
    def is_powered(self) -> bool:
        return self._emulator.running

    def open_terminal(self, command: str) -> int:
        size = os.get_terminal_size()
        environment = ENVIRONMENT | {"TERM": os.environ.get("TERM", "xterm")}
        shell = f"stty rows {size.lines} cols {size.columns}; ({command}); echo $? >{TERMINAL_STATUS}"
        terminal = self._start(["socat", f"UNIX-LISTEN:{TERMINAL_SOCKET}",
                                f"SYSTEM:'{shell}',pty,setsid,ctty,stderr,sane"], environment, None, b"")
        self._await_on_board(f"[ -S {TERMINAL_SOCKET} ]", CONTACT_SECONDS, "the terminal")
        with self._gate_to(TERMINAL_SOCKET) as path, socket.socket(socket.AF_UNIX) as connection:
            connection.connect(path)
            relay_terminal(connection)
        terminal.wait()
        return int(self.read_file(TERMINAL_STATUS))

    def card_counters(self) -> str:
        # The emulator does not count the accesses to an SD card.
        try:
            return self._read(CARD_STATISTICS, 0)[0].decode()
        except (OSError, BoardGone):
            return ""

    def slow_card_down(self, bytes_per_second: int) -> None:
        """Limits the speed of the card in the slot, until it is pulled."""
        self._emulator.slow_card_down(bytes_per_second)

    def log_size(self) -> int:
        return len(self._board_file(LOG_FILE))

    def led_pins(self) -> dict[str, bool]:
        """See Device; without power no LED is lit."""
        try:
            return self._emulator.led_pins()
        except EmulatorError:
            return dict.fromkeys(LED_NAMES, False)

    def kernel_messages(self) -> str:
        """The kernel's messages."""
        return self.run("dmesg", check=True).stdout

    def insert(self, card: Card, announce: bool | None = True) -> None:
        """As on any board, but the board's own hot-plug rule announces the card.

        The rule ignores a card without a first partition; such a card is announced from here, unless @p announce
        is None. Without a service, the rule has handled the card on return.
        """
        has_partition = any(partition.number == 1 for partition in card.partitions())
        if announce is False:
            with self.unannounced():
                self._insert(card)
        else:
            self._insert(card)
        self.card = card
        if announce and not self.bus.has_service():
            # Otherwise the rule would still notify a service that starts afterwards.
            self.settle()
        elif announce and not has_partition:
            self.bus.announce_insertion()

    def pull(self, announce: bool = True) -> None:
        """As on any board; see insert()."""
        card = self.card
        had_partition = self.exists(PARTITION_DEVICE)
        if announce:
            self._pull()
        else:
            with self.unannounced():
                self._pull()
        self.card = None
        if announce and card is not None and not had_partition and self.bus.has_service():
            self.bus.announce_removal()

    @contextmanager
    def unannounced(self) -> Iterator[None]:
        """See Device; masks the hot-plug rule."""
        self._unannounced += 1
        try:
            if self._unannounced == 1:
                self._set_hotplug(False)
            yield
        finally:
            self._unannounced -= 1
            if self._unannounced == 0 and self.is_open:
                self._set_hotplug(True)

    def settle(self) -> None:
        """Waits until udev has handled all events of the kernel."""
        self.run("sh", "-c", self._settle, check=True)

    def report(self) -> str:
        try:
            console = self._emulator.console() if self.is_open else ""
        except EmulatorError as problem:
            console = str(problem)
        return super().report() + "\nkernel:\n" + "\n".join(console.splitlines()[-30:])

    def install_program(self, program: Path, path: str) -> None:
        with tempfile.TemporaryDirectory(prefix="sdcardd-board-") as directory:
            super().install_program(strip(program, Path(directory) / program.name), path)

    def _set_hotplug(self, on: bool) -> None:
        change = f"rm -f {MASKED_RULE}" if on else f"mkdir -p {MASKED_RULE.rsplit('/', 1)[0]} && ln -s /dev/null {MASKED_RULE}"
        # Pending events still get the present rules. udevd serves one request at a time and ignores one that comes
        # while the last connection is still open, so the rules are reloaded twice.
        self.run("sh", "-c", f"{self._settle} && {change} && udevadm control --reload && sleep 0.1 && "
                             "udevadm control --reload", check=True)

    def _start(self, command: list[str], environment: dict[str, str], user: str | None,
               standard_input: bytes) -> Process:
        process = Process(command, standard_input, self._signal)
        number = self._link.new_number()
        _, output, errors = process.standard_descriptors()
        with process.status_pipe_writer() as status_pipe:
            remote = RemoteProgram(self._link, number, output, errors, status_pipe.fileno())
        try:
            answer = self._link.ask("start", remote.receive, number, arguments=command, environment=environment,
                                    user=user, standard_input=base64.b64encode(standard_input).decode())
        except BaseException:
            remote.close()
            raise
        process.pid = answer["pid"]
        return process

    def _signal(self, pid: int, number: int) -> None:
        try:
            self._link.ask("kill", pid=pid, signal=number)
        except ProcessLookupError:
            pass

    def _insert(self, card: Card) -> None:
        self._emulator.insert(f"/proc/{os.getpid()}{card.path.removeprefix('/proc/self')}")
        # udev has a record of the card as soon as the kernel has sent the events of all its partitions.
        self._await_on_board(f"[ -b {CARD_DEVICE} ] && [ -e /run/udev/data/b$(cat {CARD_NUMBER}) ]", CONTACT_SECONDS,
                             "the card")
        if card.read_only:
            # The emulated slot has no contact for the write-protect switch; the driver would do the same.
            self.run("blockdev", "--setro", CARD_DEVICE, check=True)

    def _pull(self) -> None:
        self._emulator.pull()
        self._await_on_board("! ls -d /sys/class/mmc_host/mmc0/mmc0:* 2>/dev/null", CONTACT_SECONDS, "the empty slot")

    def _await_on_board(self, condition: str, seconds: float, what: str) -> None:
        script = f"n=0; until {condition}; do [ $n -lt {int(seconds * self.patience / 0.05)} ] || exit 1; " \
                 "n=$((n + 1)); sleep 0.05; done"
        if self.run("sh", "-c", script, within=seconds * 3).returncode != 0:
            raise TimeoutError(f"the board's kernel does not see {what}: {self.kernel_messages()[-2000:]}")

    def _set_eject_button(self, text: str) -> None:
        self._emulator.set_button(text.strip() == "1")

    def _board_file(self, path: str) -> str:
        assert path.startswith(BOARD_DIRECTORY)
        known = self._files.get(path, b"")
        try:
            more, size = self._read(path, len(known))
            if size < len(known):
                known, more = b"", self._read(path, 0)[0]
        except FileNotFoundError:
            return ""
        except BoardGone:
            return known.decode(errors="replace")
        self._files[path] = known + more
        return self._files[path].decode(errors="replace")

    def _read(self, path: str, offset: int) -> tuple[bytes, int]:
        """The content of a file from an offset on, and its size. Raises OSError, BoardGone."""
        received: list[bytes] = []
        number = self._link.new_number()
        try:
            answer = self._link.ask("read", lambda _, data: received.append(data), number, path=path, offset=offset)
        finally:
            self._link.forget(number)
        return b"".join(received), answer["size"]

    def _is_system_process(self, parent: str, arguments: str) -> bool:
        # Kernel threads are children of process 2, which itself is a child of process 0.
        return (parent in ("0", "2") or super()._is_system_process(parent, arguments)
                or "udevd" in arguments or arguments.strip("[]") == "(udev-worker)")

    def _remains_of_board(self) -> list[str]:
        return processes_named(self._name)
