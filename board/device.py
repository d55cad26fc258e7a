"""A board as a device: its card slot, LEDs and eject button, and the service on its system bus."""

import signal
import time
from abc import abstractmethod
from collections.abc import Iterator
from contextlib import contextmanager

from .bus import BusClient, BusError, Signal
from .card import Card
from .computer import POLL_SECONDS, Computer
from .leds import LedPanel
from .log_records import LogRecord, parse_records
from .names import ENVIRONMENT, LOG_FILE, SERVICE_PROGRAM, State, Transition
from .process import Process

SERVICE_START_SECONDS = 20

# Sanitizers report all errors and continue; the tests treat a report as a crash.
SANITIZER_ENVIRONMENT = {
    "ASAN_OPTIONS": "detect_stack_use_after_return=1:handle_abort=0:abort_on_error=0",
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "TSAN_OPTIONS": "second_deadlock_stack=1",
}


class Device(Computer):
    """The device from its user's point of view."""

    def __init__(self) -> None:
        super().__init__()
        self.services: list[Process] = []  # every start of the service
        self.card: Card | None = None
        self.bus: BusClient
        self.led_panel: LedPanel

    # The card slot

    def insert(self, card: Card, announce: bool = True) -> None:
        """Inserts a card; with @p announce a running service is notified over the bus."""
        self._insert(card)
        self.card = card
        if announce and self.bus.has_service():
            self.bus.announce_insertion()

    def pull(self, announce: bool = True) -> None:
        """Removes the card at once: programs that use it get I/O errors. @p announce as for insert()."""
        self._pull()
        self.card = None
        if announce and self.bus.has_service():
            self.bus.announce_removal()

    @contextmanager
    def unannounced(self) -> Iterator[None]:
        """Prevents the board's own hot-plug rule, if any, from announcing cards meanwhile."""
        yield

    # The eject button

    def press_eject_button(self) -> None:
        """Presses the button until release_eject_button()."""
        self._set_eject_button("1\n")

    def release_eject_button(self) -> None:
        """Releases the button."""
        self._set_eject_button("0\n")

    def hold_eject_button(self, seconds: float = 8) -> None:
        """Presses the button for @p seconds; the service needs five, and a few more on a busy machine."""
        self.press_eject_button()
        time.sleep(seconds)
        self.release_eject_button()

    # The LEDs

    def led_pins(self) -> dict[str, bool] | None:
        """Which LED is lit now, by its pin; None if the LEDs are only files."""
        return None

    # The service

    def start_service(self, *options: str, wait: bool = True, name_only: bool = False,
                      environment: dict[str, str] | None = None) -> Process:
        """Starts the service with the given options.

        With @p wait it returns when the service has entered its first state, with @p name_only when its name
        is on the bus; in either case also when the service has ended. Raises TimeoutError.
        """
        variables = ENVIRONMENT | SANITIZER_ENVIRONMENT | (environment or {})
        self.services.append(self._start([SERVICE_PROGRAM, *options], variables, None, b""))
        patience = SERVICE_START_SECONDS * self.patience
        deadline = time.monotonic() + patience
        while wait and self.service.running and not (self.bus.has_service() and (name_only or self._has_begun())):
            if time.monotonic() > deadline:
                raise TimeoutError(f"the service is not on the bus after {patience} s{self.report()}")
            time.sleep(POLL_SECONDS)
        return self.service

    def _has_begun(self) -> bool:
        # The name appears shortly before the object, and the object shortly before the state machine starts.
        try:
            return self.state is not State.UNKNOWN
        except BusError:
            return False

    def stop_service(self, number: int = signal.SIGTERM, within: float = 60) -> int:
        """Sends a signal to the service, waits until it has ended and returns its exit status."""
        assert self.service is not None, "the service was not started"
        return self.service.stop(number, within * self.patience)

    @property
    def service(self) -> Process | None:
        """The service's last start."""
        return self.services[-1] if self.services else None

    @property
    def state(self) -> State:
        """The State property."""
        return State(self.bus.property("State"))

    @property
    def transition(self) -> Transition:
        """The Transition property."""
        return Transition(self.bus.property("Transition"))

    @property
    def signals(self) -> list[Signal]:
        """Every signal of the service since the board was started."""
        return self.bus.signals

    @property
    def records(self) -> list[LogRecord]:
        """Every log record of the service since the board was started."""
        return parse_records(self._board_file(LOG_FILE))

    def report(self) -> str:
        """The last log records and the service's output, for the message of a failed test."""
        lines = ["", "last log records:", *(f"  {record}" for record in self.records[-12:])]
        if self.service is not None:
            lines.append(f"service: exit status {self.service.exit_status}")
            lines += [f"  {line}" for line in (self.service.output + self.service.errors).splitlines()[-40:]]
        return "\n".join(lines)

    # Operations of each kind of board

    @abstractmethod
    def card_counters(self) -> str:
        """A text that changes whenever the card is read or written; empty while the slot is empty."""

    @abstractmethod
    def log_size(self) -> int:
        """A number that changes whenever the service logs."""

    @abstractmethod
    def _insert(self, card: Card) -> None:
        """Makes the slot's contacts."""

    @abstractmethod
    def _pull(self) -> None:
        """Breaks the slot's contacts."""

    @abstractmethod
    def _set_eject_button(self, text: str) -> None:
        """Replaces the content of the button's file; no reader ever finds the file empty."""

    # The service object. Last in the class: property() hides the decorator of that name.

    def call(self, interface: str, method: str, *arguments: str | int | bool) -> object:
        """Calls a method of the service object; raises BusError with the error reply."""
        return self.bus.call(interface, method, *arguments)

    def property(self, name: str) -> object:
        """A property of the service object."""
        return self.bus.property(name)

    def introspect(self) -> str:
        """The service object's introspection data (XML)."""
        return self.bus.introspect()
