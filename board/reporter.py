"""Prints what happens on a board, one line each with its time, and keeps the lines of the current step."""

import sys
import time
from collections.abc import Callable, Iterable, Iterator

from .board import Board
from .bus import BusError
from .emulated.light_watch import LightWatch

POLL_SECONDS = 0.01
# After this time, a terminal shows what the program waits for.
PATIENCE_SECONDS = 2

News = tuple[float, str, str]  # time, subject, text


class NotSeen(Exception):
    """An expected step of the story did not happen."""


class Reporter:
    """Follows State, Transition, LEDs, signals and log lines of a board, and the pins of LEDs that have them."""

    def __init__(self, board: Board, lights: LightWatch | None = None) -> None:
        self.seen: list[str] = []  # every line since the last heading, as "subject: words"
        self._board = board
        self._start = time.monotonic()
        self._state = ""
        self._signals = 0
        self._patterns = 0
        self._lights = lights
        self._lights_reported = 0
        self._log_lines = 0
        self._waiting_shown = False
        self._begun = False

    def heading(self, text: str) -> None:
        """Begins a new step, after everything new of the last one was reported."""
        if self._begun:
            self.look()
        self._begun = True
        self.seen.clear()
        self._print(f"\n{text}")

    def report(self, subject: str, words: str, moment: float | None = None) -> None:
        """Reports one event of @p moment (time.monotonic()), or of now."""
        self.seen.append(f"{subject}: {words}")
        elapsed = (time.monotonic() if moment is None else moment) - self._start
        self._print(f"{max(elapsed, 0):7.2f} s  {subject:8} {words}")

    def look(self) -> None:
        """Reports all new events, in order."""
        # The state first, because its reply takes longest: so it precedes all later events.
        news = [*self._new_state(), *self._new_signals(), *self._new_patterns(), *self._new_lights(),
                *self._new_log_lines()]
        for moment, subject, words in sorted(news, key=lambda new: new[0]):
            self.report(subject, words, moment)

    def _new_signals(self) -> Iterator[News]:
        for signal in self._board.signals[self._signals:]:
            self._signals += 1
            yield signal.time, "signal", " ".join(map(str, (signal.name, *signal.arguments)))

    def _new_patterns(self) -> Iterator[News]:
        for moment, pattern in self._board.led_panel.history[self._patterns:]:
            self._patterns += 1
            yield moment, "LEDs", f"{pattern.name}: {pattern.words}"

    def _new_lights(self) -> Iterator[News]:
        for moment, words in self._lights.news(self._lights_reported) if self._lights else ():
            self._lights_reported += 1
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
        """Reports until each of @p expected is the beginning of a reported line.

        Raises NotSeen when one is missing after @p within seconds.
        """
        self.until(lambda: not self._missing(expected), within, lambda: "; ".join(self._missing(expected)))

    def until(self, condition: Callable[[], bool], within: float, what: Callable[[], str]) -> None:
        """Reports until a condition is true; @p what says what is awaited. Raises NotSeen."""
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
        return [words for words in expected if not any(line.startswith(words) for line in self.seen)]

    def _print(self, text: str) -> None:
        if self._waiting_shown:
            print("\r\033[K", end="")
            self._waiting_shown = False
        print(text, flush=True)
