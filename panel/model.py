"""The content of the panel, without a terminal. Other threads post changes to it; the view reads it."""

import time
from collections.abc import Callable
from dataclasses import dataclass
from queue import Empty, SimpleQueue
from xml.etree import ElementTree

from board.leds import LED_NAMES
from board.names import MemState, State, Transition
from .lights import Lamp

EVENTS_KEPT = 1000
NORMAL_RUN_LEVEL, REBOOT_RUN_LEVEL = 5, 6
EJECT_SECONDS = 5
# The button is released after this time without an effect.
BUTTON_PATIENCE_SECONDS = 10

HINTS = {
    State.UNKNOWN: "The service is looking at the slot.",
    State.NOT_MOUNTABLE: "Not mountable: pull it (p). A device's hot-plug rule formats blank cards.",
    State.MOUNTED: "In use. b holds the button to eject it; w fills a directory, o holds a file.",
    State.UNMOUNTED: "Safe to pull now (p). Left in the slot, it is mounted again after 20 s.",
    State.CLOSING_FILES: "The service waits up to 40 s for programs to close their files on the card.",
    State.MOUNTING: "The card is checked, formatted where it has to be, and mounted.",
    State.UNMOUNTING: "The card is being unmounted.",
    State.CORRUPTED: "Beyond repair. The service stays in this state until it is killed (t twice).",
}


@dataclass(frozen=True)
class Event:
    """An event: time of day, source ("signal", "you", "board", "panel" or a log level) and text."""

    time: str
    subject: str
    text: str


@dataclass(frozen=True)
class Properties:
    """The service object's properties that the panel shows; MemLevel in percent."""

    state: State
    transition: Transition
    mem_state: MemState
    mem_level: int


@dataclass
class DirectoryUse:
    """A watched directory: its limit and its use, in bytes; both 0 while no card is mounted."""

    identifier: str
    limit: int = 0
    used: int = 0

    @property
    def overflows(self) -> bool:
        """Whether it exceeds its limit."""
        return self.used > self.limit


class Button:
    """The eject button as pressed by the user. Times are seconds of time.monotonic()."""

    def __init__(self) -> None:
        self._pressed_at: float | None = None
        self._may_let_go = False

    @property
    def pressed(self) -> bool:
        """Whether it is pressed."""
        return self._pressed_at is not None

    def press(self, now: float) -> None:
        """Presses it."""
        self._pressed_at = now
        self._may_let_go = False

    def release(self) -> None:
        """Releases it."""
        self._pressed_at = None

    def seen_by_service(self) -> None:
        """The service has reacted, so the button can be released."""
        self._may_let_go = True

    def held(self, now: float) -> float:
        """The seconds since it was pressed; 0 while it is not pressed."""
        return 0.0 if self._pressed_at is None else now - self._pressed_at

    def wants_release(self, now: float) -> bool:
        """Whether it must be released now."""
        return self.pressed and (self._may_let_go or self.held(now) > BUTTON_PATIENCE_SECONDS)


class Model:
    """The state of the whole board. Used by one thread; see Changes."""

    def __init__(self, directories: list[str], board_kind: str) -> None:
        """@p directories are the identifiers of the watched directories; see Board.kind."""
        self.board_kind = board_kind
        self.lamps = {name: Lamp() for name in LED_NAMES}
        self.card_active = False
        self.pins: dict[str, bool] | None = None  # see Board.led_pins()
        self.button = Button()
        self.card = ""  # what is in the slot, in words
        self.slot_busy = ""  # the work at the slot that is under way, in words
        self.properties: Properties | None = None
        self.service = "has not been started"
        self.service_runs = False
        self.term_sent = False
        self.run_level = NORMAL_RUN_LEVEL
        self.holder: int | None = None  # the process on the board with an open file
        self.writing = False
        self.directories = [DirectoryUse(identifier) for identifier in directories]
        self.chosen = 0
        self.events: list[Event] = []
        self.events_dropped = 0

    @property
    def state(self) -> State | None:
        """The State property, None while there is no service to ask."""
        return self.properties.state if self.properties else None

    @property
    def mounted(self) -> bool:
        """Whether the card can be written to."""
        return self.state is State.MOUNTED

    @property
    def chosen_directory(self) -> DirectoryUse:
        """The directory that keys act on."""
        return self.directories[self.chosen]

    def choose_next_directory(self) -> None:
        """Makes keys act on the next directory."""
        self.chosen = (self.chosen + 1) % len(self.directories)

    @property
    def hint(self) -> str:
        """The meaning of the state for the user."""
        if self.slot_busy:
            return self.slot_busy
        if not self.service_runs:
            return f"The service {self.service}: t starts it."
        if self.state is State.NO_CARD:
            return ("The service looks at a card one second after it was put in." if self.card
                    else "The slot is empty: put a card in (i).")
        return HINTS.get(self.state, "")

    def add_event(self, subject: str, text: str, moment: str | None = None) -> None:
        """Adds an event; @p moment is its time of day, now by default."""
        self.events.append(Event(moment or time_of_day(time.time()), subject, text))
        if len(self.events) > EVENTS_KEPT:
            del self.events[0]
            self.events_dropped += 1

    def take_signal(self, name: str, arguments: tuple, moment: str) -> None:
        """Takes a signal of the service."""
        words = [name, *map(str, arguments)]
        if name == "MemStateChanged":
            words.append(f"({MemState(arguments[0]).name})")
        self.add_event("signal", " ".join(words), moment)
        if name == "EjectPressed":
            self.button.seen_by_service()

    def service_started(self, pid: int) -> None:
        """The service runs as a process of the board."""
        self.service = f"runs as process {pid}"
        self.service_runs = True
        self.term_sent = False

    def service_ended(self, status: int) -> None:
        """The service has ended; @p status is negative for the signal that ended it."""
        how = f"by signal {-status}" if status < 0 else f"with status {status}"
        self.add_event("board" if status == 0 else "ERROR", f"the service has ended {how}")
        self.service = f"has ended {how}"
        self.service_runs = False
        self.term_sent = False
        self.properties = None

    def held_by(self, pid: int | None) -> None:
        """A process of the board has opened a file and keeps it open, or has ended (None)."""
        if pid is None and self.holder is not None:
            self.add_event("board", f"process {self.holder} has ended, and its file is closed")
        self.holder = pid


class Changes:
    """Carries changes of the model from the threads that detect them to the one that shows it."""

    def __init__(self) -> None:
        self._queue: SimpleQueue[Callable[[Model], object]] = SimpleQueue()

    def post(self, change: Callable[[Model], object]) -> None:
        """Queues a change; any thread may call it."""
        self._queue.put(change)

    def add_event(self, subject: str, text: str) -> None:
        """Queues an event of this moment; any thread may call it."""
        moment = time_of_day(time.time())
        self.post(lambda model: model.add_event(subject, text, moment))

    def fail(self, problem: BaseException) -> None:
        """Raises a problem in the thread that applies the changes; any thread may call it."""
        def raise_problem(_: Model) -> None:
            raise problem
        self.post(raise_problem)

    def apply(self, model: Model) -> None:
        """Applies all queued changes, in order."""
        while True:
            try:
                change = self._queue.get_nowait()
            except Empty:
                return
            change(model)


def time_of_day(seconds: float) -> str:
    """Local time in the format of the log records, of seconds since the epoch."""
    return time.strftime("%H:%M:%S", time.localtime(seconds)) + f".{int(seconds % 1 * 1000):03}"


def watched_directories(media_configuration: str) -> list[str]:
    """The identifiers of the watched directories in a media configuration (its text)."""
    return [(directory.text or "").strip() for directory in ElementTree.fromstring(media_configuration).iter("dir")
            if directory.get("capacitywatch") == "true"]
