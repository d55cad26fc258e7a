"""What the LEDs do at their pins, in words."""

import threading
import time
from collections import deque
from collections.abc import Callable, Iterator

LOOK_SECONDS = 0.02
# Long enough for four changes of an LED that blinks in intervals of 100 ms.
WINDOW_SECONDS = 0.7
BLINK_SECONDS = (0.04, 0.25)
# What lasts shorter is on its way from one pattern to the next.
STEADY_SECONDS = 0.3


class Light:
    """One LED over time."""

    def __init__(self) -> None:
        self._changes: deque[float] = deque()
        self._lit: bool | None = None
        self._words = "off"

    def see(self, lit: bool, now: float) -> str:
        """What it does, in words, now that it was looked at (@p now in seconds of any clock that runs evenly)."""
        if self._lit not in (None, lit):
            self._changes.append(now)
        self._lit = lit
        while self._changes and now - self._changes[0] > WINDOW_SECONDS:
            self._changes.popleft()
        moments = list(self._changes)
        if len(moments) < 4:
            if not moments or now - moments[-1] > BLINK_SECONDS[1]:
                self._words = "on" if lit else "off"
        else:
            even = all(BLINK_SECONDS[0] <= later - earlier <= BLINK_SECONDS[1]
                       for earlier, later in zip(moments, moments[1:]))
            self._words = "blinks fast" if even else "flickers"
        return self._words


class LightWatch:
    """Looks at LEDs that really shine, until it is closed."""

    def __init__(self, look: Callable[[], dict[str, bool]]) -> None:
        """@p look says which LED shines at the moment; it is called in another thread."""
        self._look = look
        self._lights: dict[str, Light] = {}
        self._seen: list[tuple[float, str]] = []
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._watch, name="lights", daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Ends the watch."""
        self._stopped.set()
        self._thread.join()

    def news(self, after: int) -> Iterator[tuple[float, str]]:
        """Everything that they did from index @p after on, each with the moment (of time.monotonic()) when
        it was sure."""
        yield from self._seen[after:]

    def _watch(self) -> None:
        told, since = "", time.monotonic()
        latest = told
        while not self._stopped.wait(LOOK_SECONDS):
            now = time.monotonic()
            words = ", ".join(f"{name} {self._lights.setdefault(name, Light()).see(lit, now)}"
                              for name, lit in self._look().items())
            if words != latest:
                latest, since = words, now
            if latest != told and now - since >= STEADY_SECONDS:
                told = latest
                self._seen.append((now, told))
