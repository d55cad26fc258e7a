"""The expectations that a test can have of a board; each fails with all that explains the failure."""

import time
from collections.abc import Callable
from typing import TYPE_CHECKING

from .bus import BusError, Signal
from .leds import LedPattern
from .log_records import LogRecord
from .names import State, Transition

if TYPE_CHECKING:
    from .board import Board

EXPECT_SECONDS = 10


class Unexpected(AssertionError):
    """An expectation was not met in its time."""


class Expectations:
    """The part of a board's language that begins with "expect". Times are in seconds."""

    def expect_state(self: "Board", state: State, within: float = EXPECT_SECONDS) -> None:
        """Waits until the State property has a value."""
        self._expect_value(f"State {state.name}", lambda: self.state, state, within)

    def expect_transition(self: "Board", transition: Transition, within: float = EXPECT_SECONDS) -> None:
        """Waits until the Transition property has a value."""
        self._expect_value(f"Transition {transition.name}", lambda: self.transition, transition, within)

    def expect_state_for(self: "Board", state: State, seconds: float) -> None:
        """Watches that the State property keeps its value for so long."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            seen = self.state
            if seen is not state:
                raise Unexpected(f"State became {seen.name}, expected to stay {state.name}{self.report()}")
            time.sleep(0.05)

    def expect_signal(self: "Board", name: str, *arguments: object, after: int = 0,
                      within: float = EXPECT_SECONDS) -> Signal:
        """Waits for a signal, with these arguments if any are given; the first from index @p after of
        `signals` on."""
        def find() -> Signal | None:
            return next((signal for signal in self.signals[after:] if signal.name == name
                         and (not arguments or signal.arguments == arguments)), None)
        if not self._until(lambda: find() is not None, within):
            seen = [f"{signal.name}{signal.arguments or ''}" for signal in self.signals]
            raise Unexpected(f"no signal {name}{arguments or ''} within {self._time(within)}; seen: {seen}{self.report()}")
        return find()

    def expect_leds(self: "Board", pattern: LedPattern, within: float = EXPECT_SECONDS) -> None:
        """Waits until both LEDs show a pattern."""
        if not self._until(lambda: self.led_panel.pattern is pattern, within):
            shown = {name: led.shows for name, led in self.led_panel.leds.items()}
            raise Unexpected(f"LEDs {pattern.name} not shown within {self._time(within)}; they show {shown}{self.report()}")

    def expect_record(self: "Board", level: str, channel: str, message: str, source: str | None = None,
                      function: str | None = None, after: int = 0, within: float = EXPECT_SECONDS) -> LogRecord:
        """Waits for a log record with exactly this message; the first from index @p after of `records` on."""
        def find() -> LogRecord | None:
            return next((record for record in self.records[after:]
                         if (record.level, record.channel, record.message) == (level, channel, message)
                         and source in (None, record.source) and function in (None, record.function)), None)
        if not self._until(lambda: find() is not None, within):
            raise Unexpected(f"no record {level} {channel} '{message}' (source {source}, function {function}) "
                             f"within {self._time(within)}{self.report()}")
        return find()

    def expect_no_record(self: "Board", message: str, level: str | None = None) -> None:
        """No record so far contains a text (at a level, if one is given)."""
        found = [record for record in self.records if message in record.message and level in (None, record.level)]
        if found:
            raise Unexpected(f"unexpected record: {found[0]}")

    def expect_no_signal(self: "Board", name: str, after: int = 0) -> None:
        """The signal has not come so far (from index @p after of `signals` on)."""
        if any(signal.name == name for signal in self.signals[after:]):
            raise Unexpected(f"unexpected signal {name}{self.report()}")

    def expect_service_end(self: "Board", status: int = 0, within: float = EXPECT_SECONDS) -> None:
        """Waits for the service to end with an exit status."""
        if not self._until(lambda: not self.service.running, within):
            raise Unexpected(f"the service still runs after {self._time(within)}{self.report()}")
        if self.service.exit_status != status:
            raise Unexpected(f"the service did not end with {status}{self.report()}")

    def expect(self: "Board", what: str, condition: Callable[[], bool], within: float = EXPECT_SECONDS) -> None:
        """Waits until any other condition holds."""
        if not self._until(condition, within):
            raise Unexpected(f"not within {self._time(within)}: {what}{self.report()}")

    def _time(self: "Board", within: float) -> str:
        return f"{within * self.patience:g} s"

    def _expect_value(self: "Board", what: str, read: Callable[[], object], value: object, within: float) -> None:
        seen: list[object] = [None]

        def matches() -> bool:
            try:
                seen[0] = read()
            except (BusError, TimeoutError) as problem:
                seen[0] = problem
                if self.service is not None and not self.service.running:
                    raise Unexpected(f"expected {what}, but the service has ended{self.report()}") from problem
            return seen[0] == value
        if not self._until(matches, within):
            raise Unexpected(f"expected {what} within {self._time(within)}, last seen {seen[0]!r}{self.report()}")
