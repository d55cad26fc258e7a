"""Tells what happens on a board as it happens, one line each with its time, and keeps what was told."""

import sys
import time
from collections.abc import Callable, Iterable, Iterator

from .board import Board
from .bus import BusError
from .emulated.light_watch import LightWatch

POLL_SECONDS = 0.01
PATIENCE_SECONDS = 2

News = tuple[float, str, str]  # moment, subject, words


class NotSeen(Exception):
    """Something that belongs to the story did not happen."""


class Teller:
    """Follows State, Transition, LEDs, signals and log lines of a board; and the light of LEDs that shine."""

    def __init__(self, board: Board, lights: LightWatch | None = None) -> None:
        self.seen: list[str] = []  # everything told since the last heading, as "subject: words"
        self._board = board
        self._start = time.monotonic()
        self._state = ""
        self._signals = 0
        self._patterns = 0
        self._lights = lights
        self._lights_told = 0
        self._log_lines = 0
        self._waiting_shown = False
        self._begun = False

    def heading(self, text: str) -> None:
        """Begins a new step of the story, with all that came before told before."""
        if self._begun:
            self.look()
        self._begun = True
        self.seen.clear()
        self._print(f"\n{text}")

    def tell(self, subject: str, words: str, moment: float | None = None) -> None:
        """Tells one thing that happened at @p moment (of time.monotonic()), or now."""
        self.seen.append(f"{subject}: {words}")
        elapsed = (time.monotonic() if moment is None else moment) - self._start
        self._print(f"{max(elapsed, 0):7.2f} s  {subject:8} {words}")

    def look(self) -> None:
        """Tells everything new, in the order in which it happened."""
        # The slow question first: what the others have told by its answer is then all at hand.
        news = [*self._new_state(), *self._new_signals(), *self._new_patterns(), *self._new_lights(),
                *self._new_log_lines()]
        for moment, subject, words in sorted(news, key=lambda new: new[0]):
            self.tell(subject, words, moment)

    def _new_signals(self) -> Iterator[News]:
        for signal in self._board.signals[self._signals:]:
            self._signals += 1
            yield signal.time, "signal", " ".join(map(str, (signal.name, *signal.arguments)))

    def _new_patterns(self) -> Iterator[News]:
        for moment, pattern in self._board.led_panel.history[self._patterns:]:
            self._patterns += 1
            yield moment, "LEDs", f"{pattern.name}: {pattern.value}"

    def _new_lights(self) -> Iterator[News]:
        for moment, words in self._lights.news(self._lights_told) if self._lights else ():
            self._lights_told += 1
            yield moment, "pins", words

    def _new_log_lines(self) -> Iterator[News]:
        service = self._board.service
        for line in service.output.split("\n")[self._log_lines:-1] if service else ():
            self._log_lines += 1
            yield time.monotonic(), "log", line

    def _new_state(self) -> Iterator[News]:
        if self._board.service is None or not self._board.service.running:
            return
        try:
            state = f"{self._board.state.name}, last transition {self._board.transition.name}"
        except (BusError, TimeoutError):
            return
        if state != self._state:
            self._state = state
            yield time.monotonic(), "State", state

    def until_seen(self, expected: Iterable[str], within: float) -> None:
        """Tells what happens until each of @p expected is the beginning of something that was told.

        Raises NotSeen when one is missing after so many seconds.
        """
        self.until(lambda: not self._missing(expected), within, lambda: "; ".join(self._missing(expected)))

    def until(self, condition: Callable[[], bool], within: float, what: Callable[[], str]) -> None:
        """Tells what happens until a condition holds; @p what says what is waited for."""
        begin = time.monotonic()
        within *= self._board.patience
        while True:
            waited = time.monotonic() - begin
            self.look()
            if condition():
                return
            if waited > within:
                raise NotSeen(f"not seen within {within} s: {what()}")
            if waited > PATIENCE_SECONDS and sys.stdout.isatty():
                print(f"\r\033[K        ... {waited:.0f} s: waiting for {what()}"[:100], end="", flush=True)
                self._waiting_shown = True
            time.sleep(POLL_SECONDS)

    def _missing(self, expected: Iterable[str]) -> list[str]:
        return [words for words in expected if not any(told.startswith(words) for told in self.seen)]

    def _print(self, text: str) -> None:
        if self._waiting_shown:
            print("\r\033[K", end="")
            self._waiting_shown = False
        print(text, flush=True)
