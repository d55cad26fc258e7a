"""The LEDs of a virtual board: plain files. Writes to them are applied in order to a model of each LED."""

import os
import select
import threading
from collections.abc import Callable
from pathlib import Path

from .leds import LED_FILES, LED_NAMES, LedPanel
from .machine.file_writes import FileWrites

PATTERN_SECONDS = 0.02


class VirtualLedPanel(LedPanel):
    """Follows the LED files of a board. Setting the brightness to 0 ends a trigger, so the order matters."""

    def __init__(self, directory: Path, on_change: Callable[[], None]) -> None:
        """@p directory contains one directory for each LED; it is missing on a board without LEDs."""
        super().__init__(on_change)
        self._writes = FileWrites([directory / name for name in LED_NAMES] if directory.exists() else [])
        self._stop_reader, self._stop_writer = os.pipe()
        self._thread = threading.Thread(target=self._follow, name="LEDs", daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Ends the watch."""
        os.write(self._stop_writer, b"x")
        self._thread.join()
        self._writes.close()
        os.close(self._stop_reader)
        os.close(self._stop_writer)

    def _follow(self) -> None:
        while True:
            ready, _, _ = select.select([self._writes, self._stop_reader], [], [])
            if self._stop_reader in ready:
                return
            # A pattern takes several writes; the LEDs between two of them are not a pattern.
            writes = []
            while ready:
                writes += self._writes.read()
                ready, _, _ = select.select([self._writes], [], [], PATTERN_SECONDS)
            for directory, attribute in writes:
                self._apply(Path(directory), attribute)
            self._changed()

    def _apply(self, directory: Path, attribute: str) -> None:
        if attribute not in LED_FILES:
            return
        try:
            self.leds[directory.name].write(attribute, (directory / attribute).read_text().strip())
        except OSError:
            return
