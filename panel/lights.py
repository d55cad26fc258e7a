"""The visible light of the board's LEDs."""

from dataclasses import replace

from board.board import Board
from board.leds import CARD_ACTIVITY_TRIGGER, Led


class Lamp:
    """One LED over time: blinks in the intervals of its files."""

    def __init__(self) -> None:
        self._led = Led()
        self._since = 0.0

    def follow(self, led: Led, now: float) -> None:
        """Takes the values of the LED's files at @p now (seconds of any steady clock)."""
        if led != self._led:
            self._led = replace(led)
            self._since = now

    def lit(self, now: float, card_active: bool) -> bool:
        """Whether it is lit at @p now; @p card_active: the card is being read or written."""
        led = self._led
        if led.trigger == "timer":
            if led.delay_on == 0 or led.delay_off == 0:
                return led.delay_on > 0
            return (now - self._since) * 1000 % (led.delay_on + led.delay_off) < led.delay_on
        if led.trigger == CARD_ACTIVITY_TRIGGER:
            return card_active
        return led.brightness > 0

    @property
    def words(self) -> str:
        """The values of its files, in words."""
        return "card activity" if self._led.trigger == CARD_ACTIVITY_TRIGGER else self._led.shows


class CardActivity:
    """Detects reads and writes of the card in a board's slot."""

    def __init__(self, board: Board) -> None:
        self._board = board
        self._counters = ""

    def seen(self) -> bool:
        """Whether there were any since the last call; false while the slot is empty."""
        before, self._counters = self._counters, self._board.card_counters()
        return before not in ("", self._counters)
