"""The two LEDs beside the slot: how the kernel's LED class would light them, and what that means.

A board without real LEDs has plain files in their place. What an LED shows follows from the order
of the writes (switching the brightness to 0 ends a trigger), so the writes are watched as they
happen and played into a model of each LED.
"""

import ctypes
import os
import select
import struct
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from enum import Enum
from pathlib import Path

CARD_ACTIVITY_TRIGGER = "mmc0"
LED_NAMES = ("mmc-red", "mmc-green")
LED_FILES = {"brightness": "0\n", "trigger": "none\n", "delay_on": "0\n", "delay_off": "0\n"}
DEFAULT_BLINK_MS = 500
PATTERN_SECONDS = 0.02

IN_CLOSE_WRITE = 0x8
IN_CLOEXEC = os.O_CLOEXEC
EVENT_HEADER = struct.Struct("iIII")


class LedPattern(Enum):
    """What both LEDs together tell the user."""

    OFF = "red off, green off"
    MOUNTED = "red lights with the card's activity, green off"
    BUSY = "red blinks fast, green off"
    UNMOUNTED = "red off, green on"
    NOT_MOUNTABLE = "red off, green blinks"
    UNKNOWN = "no known pattern"


@dataclass
class Led:
    """One LED as the kernel's LED class keeps it."""

    brightness: int = 0
    trigger: str = "none"
    delay_on: int = 0  # ms
    delay_off: int = 0  # ms

    def write(self, attribute: str, text: str) -> None:
        """Applies a write to one of the LED's files; text that is no value is refused."""
        if attribute == "trigger":
            self.trigger = text
            self.delay_on = self.delay_off = DEFAULT_BLINK_MS if text == "timer" else 0
            return
        try:
            setattr(self, attribute, int(text))
        except ValueError:
            return
        if attribute == "brightness" and self.brightness == 0:
            self.trigger = "none"

    @property
    def shows(self) -> str:
        """In words: "off", "on", "blinks 100/100 ms" or the name of another trigger."""
        if self.trigger == "timer":
            return f"blinks {self.delay_on}/{self.delay_off} ms"
        if self.trigger != "none":
            return self.trigger
        return "on" if self.brightness else "off"


def pattern_of(red: Led, green: Led) -> LedPattern:
    """The pattern that two LEDs show together."""
    if green.shows == "off":
        return {"off": LedPattern.OFF, CARD_ACTIVITY_TRIGGER: LedPattern.MOUNTED,
                "blinks 100/100 ms": LedPattern.BUSY}.get(red.shows, LedPattern.UNKNOWN)
    if red.shows == "off":
        if green.shows == "on":
            return LedPattern.UNMOUNTED
        if green.trigger == "timer":
            return LedPattern.NOT_MOUNTABLE
    return LedPattern.UNKNOWN


class LedPanel:
    """Watches the LED files of a board and keeps every pattern that they have shown."""

    def __init__(self, directory: Path, on_change: Callable[[], None]) -> None:
        """@p directory holds one directory for each LED; @p on_change runs in another thread.

        A board without LEDs has no such directory: its panel stays dark.
        """
        self.leds = {name: Led() for name in LED_NAMES}
        self.history: list[tuple[float, LedPattern]] = [(time.monotonic(), LedPattern.OFF)]
        self._on_change = on_change
        self._directory = directory
        libc = ctypes.CDLL(None, use_errno=True)
        self._inotify = libc.inotify_init1(IN_CLOEXEC)
        self._watches: dict[int, str] = {}
        for name in LED_NAMES if directory.exists() else ():
            watch = libc.inotify_add_watch(self._inotify, os.fsencode(directory / name), IN_CLOSE_WRITE)
            if watch < 0:
                raise OSError(ctypes.get_errno(), f"cannot watch {directory / name}")
            self._watches[watch] = name
        self._stop_reader, self._stop_writer = os.pipe()
        self._thread = threading.Thread(target=self._follow, name="LEDs", daemon=True)
        self._thread.start()

    @property
    def pattern(self) -> LedPattern:
        """The pattern shown now."""
        return pattern_of(self.leds["mmc-red"], self.leds["mmc-green"])

    def close(self) -> None:
        """Ends the watch."""
        os.write(self._stop_writer, b"x")
        self._thread.join()
        for descriptor in (self._inotify, self._stop_reader, self._stop_writer):
            os.close(descriptor)

    def _follow(self) -> None:
        while True:
            ready, _, _ = select.select([self._inotify, self._stop_reader], [], [])
            if self._stop_reader in ready:
                return
            # A pattern takes several writes; those in between are no pattern of their own.
            events = b""
            while ready:
                events += os.read(self._inotify, 65536)
                ready, _, _ = select.select([self._inotify], [], [], PATTERN_SECONDS)
            self._read_events(events)
            shown = self.pattern
            if shown not in (LedPattern.UNKNOWN, self.history[-1][1]):
                self.history.append((time.monotonic(), shown))
            self._on_change()

    def _read_events(self, data: bytes) -> None:
        position = 0
        while position < len(data):
            watch, _, _, length = EVENT_HEADER.unpack_from(data, position)
            position += EVENT_HEADER.size
            attribute = data[position:position + length].rstrip(b"\0").decode()
            position += length
            if watch in self._watches and attribute in LED_FILES:
                led = self._watches[watch]
                try:
                    self.leds[led].write(attribute, (self._directory / led / attribute).read_text().strip())
                except OSError:
                    continue
