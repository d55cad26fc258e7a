"""Describes what the LEDs do, as seen at their pins."""

import threading
import time
from collections import deque
from collections.abc import Callable, Iterator

from ..leds import FAST_BLINK_MS, Light

LOOK_SECONDS = 0.02
# Long enough for four changes of an LED that blinks fast.
WINDOW_SECONDS = 7 * FAST_BLINK_MS / 1000
BLINK_SECONDS = (0.4 * FAST_BLINK_MS / 1000, 2.5 * FAST_BLINK_MS / 1000)
# A shorter one is part of a change of patterns.
STEADY_SECONDS = 0.3
FLICKERS = "flickers"


class ObservedLed:
    """One LED over time."""

    def __init__(self) -> None:
        self._changes: deque[float] = deque()
        self._lit: bool | None = None
        self._words = Light.OFF.value

    def see(self, lit: bool, now: float) -> str:
        """Takes one look and returns what the LED does, in words; @p now is in seconds of any steady clock."""
        if self._lit not in (None, lit):
            self._changes.append(now)
        self._lit = lit
        while self._changes and now - self._changes[0] > WINDOW_SECONDS:
            self._changes.popleft()
        moments = list(self._changes)
        if len(moments) < 4:
            if not moments or now - moments[-1] > BLINK_SECONDS[1]:
                self._words = (Light.ON if lit else Light.OFF).value
        else:
            even = all(BLINK_SECONDS[0] <= later - earlier <= BLINK_SECONDS[1]
                       for earlier, later in zip(moments, moments[1:]))
            self._words = Light.BLINKS_FAST.value if even else FLICKERS
        return self._words


class LightWatch:
    """Watches the pins of LEDs until it is closed."""

    def __init__(self, look: Callable[[], dict[str, bool]]) -> None:
        """@p look returns which LED is lit at the moment; it is called in another thread."""
        self._look = look
        self._leds: dict[str, ObservedLed] = {}
        self._seen: list[tuple[float, str]] = []
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._watch, name="lights", daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Ends the watch."""
        self._stopped.set()
        self._thread.join()

    def news(self, after: int) -> Iterator[tuple[float, str]]:
        """Every steady pattern from index @p after on, with the moment (of time.monotonic()) when it was steady."""
        yield from self._seen[after:]

    def _watch(self) -> None:
        reported, since = "", time.monotonic()
        latest = reported
        while not self._stopped.wait(LOOK_SECONDS):
            now = time.monotonic()
            words = ", ".join(f"{name} {self._leds.setdefault(name, ObservedLed()).see(lit, now)}"
                              for name, lit in self._look().items())
            if words != latest:
                latest, since = words, now
            if latest != reported and now - since >= STEADY_SECONDS:
                reported = latest
                self._seen.append((now, reported))
