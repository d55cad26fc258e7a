"""The LEDs of an emulated board, as its kernel tells of them; Board.lights() has the light itself."""

import time
from collections.abc import Callable

from ..leds import LED_NAMES, Led, LedPattern, pattern_of


class EmulatedLedPanel:
    """Keeps what the LEDs' files say, and every pattern that they have shown (see leds.LedPanel)."""

    def __init__(self, on_change: Callable[[], None]) -> None:
        self.leds = {name: Led() for name in LED_NAMES}
        self.history: list[tuple[float, LedPattern]] = [(time.monotonic(), LedPattern.OFF)]
        self._on_change = on_change

    @property
    def pattern(self) -> LedPattern:
        """The pattern shown now."""
        return pattern_of(self.leds["mmc-red"], self.leds["mmc-green"])

    def update(self, values: dict[str, dict]) -> None:
        """Takes the values of the LEDs' files; for the link's thread."""
        self.leds = {name: Led(**values[name]) for name in LED_NAMES}
        shown = self.pattern
        if shown not in (LedPattern.UNKNOWN, self.history[-1][1]):
            self.history.append((time.monotonic(), shown))
        self._on_change()

    def close(self) -> None:
        """Nothing is held."""
