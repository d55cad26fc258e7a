"""The values of the board's LED files, read whenever a program has written to one of them."""

import errno
import time
from collections.abc import Iterable
from pathlib import Path

from file_writes import FileWrites

LED_CLASS = Path("/sys/class/leds")
# A busy machine may stop the service between two writes of a pattern.
SETTLE_SECONDS = 0.1


class Lights:
    """A selectable source of writes to the files of the slot's LEDs."""

    def __init__(self, names: Iterable[str]) -> None:
        """Raises OSError when an LED is missing."""
        self._leds = [LED_CLASS / name for name in names]
        self._writes = FileWrites(self._leds)

    def fileno(self) -> int:
        """The descriptor to wait on."""
        return self._writes.fileno()

    def read(self) -> dict[str, dict]:
        """Each LED's brightness, trigger and blink intervals (ms), when no more writes follow."""
        # A pattern takes several writes; the LEDs between two of them are not a pattern.
        while self._writes.read():
            time.sleep(SETTLE_SECONDS)
        return {led.name: self._read_led(led) for led in self._leds}

    @staticmethod
    def _read_led(led: Path) -> dict:
        values: dict = {"delay_on": 0, "delay_off": 0}
        for attribute in ("brightness", "delay_on", "delay_off"):
            try:
                values[attribute] = int((led / attribute).read_text())
            except OSError as problem:
                # These files come and go with the trigger, also while they are open.
                if problem.errno not in (errno.ENOENT, errno.ENODEV):
                    raise
        # The chosen trigger stands in brackets.
        values["trigger"] = (led / "trigger").read_text().split("[", 1)[1].split("]", 1)[0]
        return values
