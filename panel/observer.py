"""Watches a board for the panel."""

import time
from collections.abc import Callable, Iterator

from board.board import Board
from board.bus import BusError, Signal
from board.log_records import LogRecord
from board.names import CARD_INTERFACE, MemState, State, Transition
from .model import Changes, Model, Properties, time_of_day
from .workers import Repeater

LISTEN_SECONDS = 0.1
ASK_SECONDS = 0.2
DIRECTORIES_SECONDS = 1.0

News = tuple[str, Callable[[Model], None]]  # time of day, what it changes


class BoardGone(Exception):
    """The board has been switched off by someone else."""


class Observer:
    """Posts everything that changes on a board to the panel."""

    def __init__(self, board: Board, directories: list[str], changes: Changes) -> None:
        """Starts to watch; @p directories are the identifiers of the watched directories."""
        self._board = board
        self._directories = directories
        self._changes = changes
        self._log_bytes = 0
        self._signals = self._records = self._services = 0
        self._service_ended = True
        self._holder: int | None = None
        self._state: State | None = None
        self._directories_asked = 0.0
        # Two threads: the service may answer a call late, and its signals and records must not wait for that.
        self._threads = [Repeater("listener", changes, self._listen, LISTEN_SECONDS),
                         Repeater("asker", changes, self._ask, ASK_SECONDS)]

    def stop(self) -> None:
        """Ends the watch, before the board is closed."""
        for thread in self._threads:
            thread.stop()

    def _listen(self) -> None:
        self._see_board()
        signals = list(self._new_signals())
        # Records first: within one millisecond, the service logs before it signals.
        for _, change in sorted([*self._new_records(), *signals], key=lambda news: news[0]):
            self._changes.post(change)
        self._see_service()
        self._see_holder()

    def _see_board(self) -> None:
        if not self._board.is_powered:
            raise BoardGone("the board's first process has gone")

    def _new_signals(self) -> Iterator[News]:
        offset = time.time() - time.monotonic()
        for signal in self._board.signals[self._signals:]:
            self._signals += 1
            yield _of_signal(signal, time_of_day(signal.time + offset))

    def _new_records(self) -> Iterator[News]:
        size = self._board.log_size()
        if size == self._log_bytes:
            return
        self._log_bytes = size
        for record in self._board.records[self._records:]:
            self._records += 1
            # Empty lines in a tool's output would only take space.
            if words := plain(record.message):
                yield _of_record(record, words)

    def _see_service(self) -> None:
        service = self._board.service
        if service is None:
            return
        if len(self._board.services) != self._services:
            self._services = len(self._board.services)
            self._service_ended = False
            self._changes.post(lambda model: model.service_started(service.pid))
        status = service.exit_status
        if status is not None and not self._service_ended:
            self._service_ended = True
            self._changes.post(lambda model: model.service_ended(status))

    def _see_holder(self) -> None:
        holder = next((process.pid for process in self._board.started if process.running), None)
        if holder != self._holder:
            self._holder = holder
            self._changes.post(lambda model: model.held_by(holder))

    def _ask(self) -> None:
        try:
            answer = self._board.bus.properties()
        except (BusError, TimeoutError):
            self._changes.post(lambda model: setattr(model, "properties", None))
            self._state = None
            self._ask_for_directories(self._state)
            return
        properties = Properties(State(answer["State"]), Transition(answer["Transition"]),
                                MemState(answer["MemState"]), answer["MemLevel"])
        self._changes.post(lambda model: setattr(model, "properties", properties))
        state_before, self._state = self._state, properties.state
        # A query would open the directories and delay the unmount.
        if properties.state in (State.CLOSING_FILES, State.UNMOUNTING):
            return
        if properties.state is state_before and time.monotonic() - self._directories_asked < DIRECTORIES_SECONDS:
            return
        self._directories_asked = time.monotonic()
        self._ask_for_directories(properties.state)

    def _ask_for_directories(self, state: State | None) -> None:
        for index, identifier in enumerate(self._directories):
            limit = used = 0
            if state is State.MOUNTED:
                try:
                    limit, used = (self._board.bus.call(CARD_INTERFACE, method, identifier)
                                   for method in ("GetDirSize", "getDirUsed"))
                except (BusError, TimeoutError):
                    return
            self._post_use(index, limit, used)

    def _post_use(self, index: int, limit: int, used: int) -> None:
        def change(model: Model) -> None:
            model.directories[index].limit, model.directories[index].used = limit, used
        self._changes.post(change)


def _of_signal(signal: Signal, moment: str) -> News:
    return moment, lambda model: model.take_signal(signal.name, signal.arguments, moment)


def _of_record(record: LogRecord, words: str) -> News:
    return record.time, lambda model: model.add_event(record.level, f"{record.channel}: {words}", record.time)


def plain(text: str) -> str:
    """A text as one line, without control characters."""
    return " ".join("".join(character if character.isprintable() else " " for character in text).split())
