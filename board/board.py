"""The base of every board: a device with expectations for tests."""

import time
from collections.abc import Callable
from typing import TypeVar

from .bus import BusError, Signal
from .device import Device
from .leds import LedPattern
from .log_records import LogRecord
from .names import State, Transition

EXPECT_SECONDS = 10

Board_ = TypeVar("Board_", bound="Board")


class Unexpected(AssertionError):
    """An expectation was not met in time."""


class Board(Device):
    """Use it in a with statement. Times are in seconds; a failed expectation reports the log and the output."""

    # "virtual" or "emulated".
    kind: str

    def __enter__(self: Board_) -> Board_:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def expect_state(self, state: State, within: float = EXPECT_SECONDS) -> None:
        """Waits until the State property has a value."""
        self._expect_value(f"State {state.name}", lambda: self.state, state, within)

    def expect_state_for(self, state: State, seconds: float) -> None:
        """Checks that the State property keeps its value for this time."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            seen = self.state
            if seen is not state:
                raise Unexpected(f"State became {seen.name}, expected to stay {state.name}{self.report()}")
            time.sleep(0.05)

    def expect_transition(self, transition: Transition, within: float = EXPECT_SECONDS) -> None:
        """Waits until the Transition property has a value."""
        self._expect_value(f"Transition {transition.name}", lambda: self.transition, transition, within)

    def expect_signal(self, name: str, *arguments: object, after: int = 0, within: float = EXPECT_SECONDS) -> Signal:
        """Waits for a signal, with these arguments if any are given; searches `signals` from index @p after on."""
        def find() -> Signal | None:
            return next((signal for signal in self.signals[after:] if signal.name == name
                         and (not arguments or signal.arguments == arguments)), None)
        if not self._until(lambda: find() is not None, within):
            seen = [f"{signal.name}{signal.arguments or ''}" for signal in self.signals]
            raise Unexpected(f"no signal {name}{arguments or ''} within {self._time(within)}; seen: {seen}{self.report()}")
        return find()

    def expect_no_signal(self, name: str, after: int = 0) -> None:
        """Checks that `signals` does not contain a signal from index @p after on."""
        if any(signal.name == name for signal in self.signals[after:]):
            raise Unexpected(f"unexpected signal {name}{self.report()}")

    def expect_leds(self, pattern: LedPattern, within: float = EXPECT_SECONDS) -> None:
        """Waits until both LEDs show a pattern."""
        if not self._until(lambda: self.led_panel.pattern is pattern, within):
            shown = {name: led.shows for name, led in self.led_panel.leds.items()}
            raise Unexpected(f"LEDs {pattern.name} not shown within {self._time(within)}; they show {shown}{self.report()}")

    def expect_record(self, level: str, channel: str, message: str, source: str | None = None,
                      function: str | None = None, after: int = 0, within: float = EXPECT_SECONDS) -> LogRecord:
        """Waits for a log record with exactly this message; searches `records` from index @p after on."""
        def find() -> LogRecord | None:
            return next((record for record in self.records[after:]
                         if (record.level, record.channel, record.message) == (level, channel, message)
                         and source in (None, record.source) and function in (None, record.function)), None)
        if not self._until(lambda: find() is not None, within):
            raise Unexpected(f"no record {level} {channel} '{message}' (source {source}, function {function}) "
                             f"within {self._time(within)}{self.report()}")
        return find()

    def expect_no_record(self, message: str, level: str | None = None) -> None:
        """Checks that no record so far contains a text (of this level, if one is given)."""
        found = [record for record in self.records if message in record.message and level in (None, record.level)]
        if found:
            raise Unexpected(f"unexpected record: {found[0]}")

    def expect_service_end(self, status: int = 0, within: float = EXPECT_SECONDS) -> None:
        """Waits until the service ends, and checks its exit status."""
        if not self._until(lambda: not self.service.running, within):
            raise Unexpected(f"the service still runs after {self._time(within)}{self.report()}")
        if self.service.exit_status != status:
            raise Unexpected(f"the service did not end with {status}{self.report()}")

    def expect(self, what: str, condition: Callable[[], bool], within: float = EXPECT_SECONDS) -> None:
        """Waits until a condition is true; @p what describes it in the message of the failure."""
        if not self._until(condition, within):
            raise Unexpected(f"not within {self._time(within)}: {what}{self.report()}")

    def _time(self, within: float) -> str:
        return f"{within * self.patience:g} s"

    def _expect_value(self, what: str, read: Callable[[], object], value: object, within: float) -> None:
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
