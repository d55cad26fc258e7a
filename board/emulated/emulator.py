"""The emulator's process: a 32-bit ARM machine with a card slot, two LEDs and a button."""

import json
import socket
import subprocess
import threading
import uuid
from collections.abc import Sequence
from pathlib import Path

from ..leds import LED_NAMES

# The general-purpose controller that the LEDs (outputs 0 and 1) and the button (input 4) are wired to.
GPIO_ADDRESS = 0x09030000
LED_PINS = dict(zip(LED_NAMES, (0, 1)))
BUTTON_PIN = 4
MEMORY_MIB = 256
SLOT = "sdimg"
COMMAND_SECONDS = 60


class EmulatorError(Exception):
    """The emulator did not start or refused a command."""


def processes_named(name: str) -> list[str]:
    """The processes of an emulator that has this name, in words."""
    found = []
    for command in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if name.encode() in command.read_bytes():
                found.append(f"emulator {command.parent.name}")
        except OSError:
            continue
    return found


class Emulator:
    """One running machine. It ends with this process at the latest."""

    def __init__(self, image: Path, options: list[str], memory_mib: int = MEMORY_MIB,
                 files: Sequence[int] = ()) -> None:
        """@p options choose what it boots or which state it resumes; @p files are the descriptors that they name.

        Raises EmulatorError.
        """
        ours, theirs = zip(*(socket.socketpair() for _ in range(3)))
        self.board_channel, monitor, self._pins = ours
        names = ("board", "monitor", "pins")
        self.name = f"sdcardd-board-{uuid.uuid4()}"
        command = ["setpriv", "--pdeathsig", "KILL", "qemu-system-arm", "-name", self.name,
                   "-M", "virt,highmem=off,accel=tcg", "-cpu", "cortex-a7", "-smp", "1", "-m", str(memory_mib),
                   "-nodefaults", "-display", "none", "-dtb", str(image / "board.dtb"),
                   "-drive", f"if=none,id=root,format=raw,readonly=on,file={image / 'root.ext4'}",
                   "-device", "virtio-blk-pci,drive=root",
                   "-drive", f"if=none,id={SLOT}", "-device", "sdhci-pci", "-device", f"sd-card,drive={SLOT}",
                   "-device", "virtio-serial-pci", "-device", "virtserialport,chardev=board,name=board",
                   "-device", "virtio-rng-pci",
                   "-chardev", "ringbuf,id=console,size=65536", "-serial", "chardev:console",
                   "-mon", "chardev=monitor,mode=control", "-object", "qtest,id=pins,chardev=pins,log=/dev/null"]
        for name, end in zip(names, theirs):
            command += ["-chardev", f"socket,id={name},fd={end.fileno()}"]
        self._process = subprocess.Popen(command + options, pass_fds=[*(end.fileno() for end in theirs), *files],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT, start_new_session=True)
        for end in theirs:
            end.close()
        monitor.settimeout(COMMAND_SECONDS)
        self._pins.settimeout(COMMAND_SECONDS)
        self._conversation = threading.Lock()
        self._monitor_socket = monitor
        self._monitor = monitor.makefile("rw", encoding="utf-8")
        try:
            self._receive()
            self.execute("qmp_capabilities")
            self._gpio = self._find_gpio()
        except BaseException:
            self.switch_off()
            raise

    @property
    def running(self) -> bool:
        """Whether it is switched on."""
        return self._process.poll() is None

    def switch_off(self) -> None:
        """Cuts the power; twice does nothing."""
        self._process.kill()
        self._process.wait()
        self._process.stdout.close()
        self._monitor.close()
        self._monitor_socket.close()
        self._pins.close()

    def execute(self, command: str, **arguments: object) -> object:
        """Executes a command of the machine protocol. Raises EmulatorError."""
        try:
            with self._conversation:
                self._monitor.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
                self._monitor.flush()
                while True:
                    reply = self._receive()
                    if "return" in reply:
                        return reply["return"]
                    if "error" in reply:
                        raise EmulatorError(f"{command}: {reply['error']['desc']}")
        except OSError as problem:
            raise EmulatorError(f"{command}: {problem}") from problem

    def monitor(self, line: str) -> str:
        """Executes a command of the monitor for people and returns what it prints."""
        return str(self.execute("human-monitor-command", **{"command-line": line}))

    def insert(self, image: str) -> None:
        """Inserts a card; its image must be writable. Raises EmulatorError."""
        answer = self.monitor(f"change {SLOT} {image} raw read-write")
        if answer.strip():
            raise EmulatorError(answer.strip())
        # The slot keeps the speed limit of the last card.
        self.slow_card_down(0)

    def pull(self) -> None:
        """Removes the card."""
        answer = self.monitor(f"eject -f {SLOT}")
        if answer.strip():
            raise EmulatorError(answer.strip())

    def slow_card_down(self, bytes_per_second: int) -> None:
        """Limits reads and writes of the card in the slot; 0 is no limit. Raises EmulatorError."""
        unlimited = dict.fromkeys(("bps_rd", "bps_wr", "iops", "iops_rd", "iops_wr"), 0)
        self.execute("block_set_io_throttle", device=SLOT, bps=bytes_per_second, **unlimited)

    def led_pins(self) -> dict[str, bool]:
        """Which LED has current on its pin at this moment."""
        # Each bit of the address selects one pin.
        mask = sum(1 << pin for pin in LED_PINS.values())
        level = int(self.monitor(f"xp /1xw {GPIO_ADDRESS + (mask << 2):#x}").split(":")[1], 16)
        return {name: bool(level & 1 << pin) for name, pin in LED_PINS.items()}

    def set_button(self, pressed: bool) -> None:
        """Presses or releases the button."""
        self._pins.sendall(f"set_irq_in {self._gpio} unnamed-gpio-in {BUTTON_PIN} {int(pressed)}\n".encode())
        answer = self._pins.recv(4096).decode()
        if not answer.startswith("OK"):
            raise EmulatorError(f"set_irq_in: {answer}")

    def console(self) -> str:
        """The output on the kernel's console since the last call."""
        return str(self.execute("ringbuf-read", device="console", size=65536))

    def _find_gpio(self) -> str:
        for line in self.monitor("info qom-tree /machine/unattached").splitlines():
            if "(pl061)" in line:
                return "/machine/unattached/" + line.split()[0].strip("/")
        raise EmulatorError("the machine has no pl061")

    def _receive(self) -> dict:
        line = self._monitor.readline()
        if not line:
            raise EmulatorError(f"the emulator has ended: {self._process.stdout.read().decode()}")
        return json.loads(line)
