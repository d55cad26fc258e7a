"""How the board's LEDs look at a moment."""

from dataclasses import replace

from board.board import Board
from board.leds import CARD_ACTIVITY_TRIGGER, Led


class Lamp:
    """One LED over time: blinks in the intervals that its files were given."""

    def __init__(self) -> None:
        self._led = Led()
        self._since = 0.0

    def follow(self, led: Led, now: float) -> None:
        """Takes over what the LED's files say at @p now (seconds of any clock that runs evenly)."""
        if led != self._led:
            self._led = replace(led)
            self._since = now

    def lit(self, now: float, card_active: bool) -> bool:
        """Whether it gives light at @p now; @p card_active says whether the card is being read or written."""
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
        """What its files say, in words."""
        return "card activity" if self._led.trigger == CARD_ACTIVITY_TRIGGER else self._led.shows


class CardActivity:
    """Sees whether the card in a board's slot was read or written."""

    def __init__(self, board: Board) -> None:
        self._board = board
        self._counters = ""

    def seen(self) -> bool:
        """Whether there was any since the last call; never while the slot is empty."""
        before, self._counters = self._counters, self._board.card_counters()
        return before not in ("", self._counters)
