"""What the board's LED files say, told whenever someone has written to one of them."""

import ctypes
import errno
import os
import time

LED_CLASS = "/sys/class/leds"
NAMES = ("mmc-red", "mmc-green")
IN_MODIFY = 0x2
SETTLE_SECONDS = 0.02


class Lights:
    """A selectable source of writes to the LEDs' files."""

    def __init__(self) -> None:
        libc = ctypes.CDLL(None, use_errno=True)
        self._inotify = libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        for name in NAMES:
            if libc.inotify_add_watch(self._inotify, f"{LED_CLASS}/{name}".encode(), IN_MODIFY) < 0:
                raise OSError(ctypes.get_errno(), f"cannot watch {name}")

    def fileno(self) -> int:
        """The descriptor to wait on."""
        return self._inotify

    def read(self) -> dict[str, dict]:
        """Each LED's brightness, trigger and blink intervals (ms), once a pattern is complete."""
        # A pattern takes several writes; those in between are no pattern of their own.
        while self._drain():
            time.sleep(SETTLE_SECONDS)
        return {name: self._read_led(f"{LED_CLASS}/{name}") for name in NAMES}

    def _drain(self) -> bool:
        try:
            return bool(os.read(self._inotify, 65536))
        except BlockingIOError:
            return False

    @staticmethod
    def _read_led(directory: str) -> dict:
        values: dict = {"delay_on": 0, "delay_off": 0}
        for attribute in ("brightness", "delay_on", "delay_off"):
            try:
                with open(f"{directory}/{attribute}", encoding="ascii") as file:
                    values[attribute] = int(file.read())
            except OSError as problem:
                # A trigger takes its files away with it, also from under whoever has opened one.
                if problem.errno not in (errno.ENOENT, errno.ENODEV):
                    raise
        with open(f"{directory}/trigger", encoding="ascii") as file:
            values["trigger"] = file.read().split("[", 1)[1].split("]", 1)[0]
        return values
