"""The two LEDs beside the slot and their patterns, for all Python code."""

import time
from collections.abc import Callable
from dataclasses import dataclass
from enum import Enum

CARD_ACTIVITY_TRIGGER = "mmc0"
DEFAULT_BLINK_MS = 500
FAST_BLINK_MS = 100


class Light(Enum):
    """The description of one LED."""

    OFF = "off"
    ON = "on"
    BLINKS = "blinks"
    BLINKS_FAST = "blinks fast"
    CARD_ACTIVITY = "lights with the card's activity"
    OTHER = "does something else"


class LedPattern(Enum):
    """The visible light of the red and of the green LED."""

    OFF = (Light.OFF, Light.OFF)
    MOUNTED = (Light.CARD_ACTIVITY, Light.OFF)
    BUSY = (Light.BLINKS_FAST, Light.OFF)
    UNMOUNTED = (Light.OFF, Light.ON)
    NOT_MOUNTABLE = (Light.OFF, Light.BLINKS)
    UNKNOWN = (Light.OTHER, Light.OTHER)

    @classmethod
    def of(cls, red: Light, green: Light) -> "LedPattern":
        """The pattern of two lights."""
        return next((pattern for pattern in cls if pattern.value == (red, green)), cls.UNKNOWN)

    @property
    def words(self) -> str:
        """The pattern in words."""
        red, green = self.value
        return "no known pattern" if self is LedPattern.UNKNOWN else f"red {red.value}, green {green.value}"


# In the order of the lights of a pattern.
LED_NAMES = ("mmc-red", "mmc-green")


@dataclass
class Led:
    """One LED, with the values that the kernel's LED class keeps."""

    brightness: int = 0
    trigger: str = "none"
    delay_on: int = 0  # ms
    delay_off: int = 0  # ms

    def write(self, attribute: str, text: str) -> None:
        """Applies a write to one of the LED's files; a text that is not a value changes nothing."""
        if attribute == "trigger":
            self.trigger = text
            self.delay_on = self.delay_off = DEFAULT_BLINK_MS if text == "timer" else 0
            return
        try:
            setattr(self, attribute, int(text))
        except ValueError:
            return
        # The kernel ends a trigger when the brightness is set to 0.
        if attribute == "brightness" and self.brightness == 0:
            self.trigger = "none"

    @property
    def light(self) -> Light:
        """What the LED does."""
        if self.trigger == "timer":
            fast = self.delay_on == self.delay_off == FAST_BLINK_MS
            return Light.BLINKS_FAST if fast else Light.BLINKS
        if self.trigger == CARD_ACTIVITY_TRIGGER:
            return Light.CARD_ACTIVITY
        if self.trigger != "none":
            return Light.OTHER
        return Light.ON if self.brightness else Light.OFF

    @property
    def shows(self) -> str:
        """The values in words: "off", "on", "blinks 100/100 ms" or the name of another trigger."""
        if self.trigger == "timer":
            return f"blinks {self.delay_on}/{self.delay_off} ms"
        if self.trigger != "none":
            return self.trigger
        return "on" if self.brightness else "off"


# The content of each LED's directory on a board without real LEDs.
LED_FILES = {"brightness": "0\n", "trigger": "none\n", "delay_on": "0\n", "delay_off": "0\n"}


class LedPanel:
    """Both LEDs, and every pattern that they have shown."""

    def __init__(self, on_change: Callable[[], None]) -> None:
        """@p on_change is called after each change, in the thread that reports it."""
        self.leds = {name: Led() for name in LED_NAMES}
        self.history: list[tuple[float, LedPattern]] = [(time.monotonic(), LedPattern.OFF)]
        self._on_change = on_change

    @property
    def pattern(self) -> LedPattern:
        """The pattern shown now."""
        return LedPattern.of(*(self.leds[name].light for name in LED_NAMES))

    def set_values(self, values: dict[str, dict]) -> None:
        """Takes the values of both LEDs' files."""
        self.leds = {name: Led(**values[name]) for name in LED_NAMES}
        self._changed()

    def close(self) -> None:
        """Nothing to end: the values are reported from outside."""

    def _changed(self) -> None:
        shown = self.pattern
        if shown not in (LedPattern.UNKNOWN, self.history[-1][1]):
            self.history.append((time.monotonic(), shown))
        self._on_change()
