"""The user's operations on the board. Each returns at once; a worker carries it out."""

import signal
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass

from board.board import Board
from board.card import Card
from board.names import CARD_INTERFACE, State
from board.process import Process
from .model import REBOOT_RUN_LEVEL, Changes, Model
from .workers import Lane

CARD_MIB = 64
# A directory is filled in this number of steps, so that the user can follow.
WRITE_STEPS = 8
WRITE_PAUSE_SECONDS = 0.4
# Fails if the directory no longer exists: a new one would stay on the board without a card.
WRITE_FILE = 'head -c "$2" /dev/zero >"$1"'


@dataclass(frozen=True)
class CardKind:
    """A kind of card to insert: its name, and the function that makes one of a size in MiB."""

    name: str
    make: Callable[[int], Card]


OWN_CARD = CardKind("your card", Card.as_bought)
BLANK_CARD = CardKind("a blank card", Card.blank)
DAMAGED_CARD = CardKind("a damaged card", Card.damaged)
TWO_PARTITIONS_CARD = CardKind("a card with two partitions", Card.two_partitions)


class Hands:
    """Acts on a board and reports what was done."""

    def __init__(self, board: Board, changes: Changes) -> None:
        self._board = board
        self._changes = changes
        self._own_card: Card | None = None
        self._holder: Process | None = None
        self._stop_writing = threading.Event()
        # One worker for each part of the board that does one thing at a time.
        self._slot, self._button, self._service, self._files, self._writer, self._bus = (
            Lane(name, changes) for name in ("slot", "button", "service", "files", "writer", "bus calls"))

    # The slot

    def insert(self, kind: CardKind) -> None:
        """Inserts a card of a kind: a new one, except the user's own, which is always the same."""
        self._slot.do(lambda: self._insert(kind))

    def pull(self) -> None:
        """Removes the card without ejecting it."""
        self._slot.do(self._pull)

    def _insert(self, kind: CardKind) -> None:
        self._be_busy(f"Taking {kind.name} ...")
        try:
            card = self._own_card if kind is OWN_CARD else None
            card = card or kind.make(CARD_MIB)
            if kind is OWN_CARD:
                self._own_card = card
            # Reported before its effects.
            self._changes.add_event("you", f"put in {kind.name} of {CARD_MIB} MiB")
            self._board.insert(card)
        finally:
            self._be_busy("")
        self._changes.post(lambda model: setattr(model, "card", kind.name))

    def _pull(self) -> None:
        self._changes.add_event("you", "pull the card out")
        self._board.pull()
        self._changes.post(lambda model: setattr(model, "card", ""))

    def _be_busy(self, words: str) -> None:
        self._changes.post(lambda model: setattr(model, "slot_busy", words))

    # The eject button

    def press_button(self) -> None:
        """Presses the eject button until release_button()."""
        self._button.do(self._press_button)

    def release_button(self) -> None:
        """Releases the eject button."""
        self._button.do(self._release_button)

    def _press_button(self) -> None:
        self._board.press_eject_button()
        pressed_at = time.monotonic()
        self._changes.add_event("you", "press the eject button")
        self._changes.post(lambda model: model.button.press(pressed_at))

    def _release_button(self) -> None:
        self._board.release_eject_button()

        def change(model: Model) -> None:
            if model.button.pressed:
                model.add_event("you", f"let the button go after {model.button.held(time.monotonic()):.1f} s")
                model.button.release()
        self._changes.post(change)

    # Programs that use the card

    def hold_file(self) -> None:
        """Starts a program that keeps a file on the card open."""
        def job() -> None:
            self._holder = self._board.hold_file_open()
            self._changes.add_event("you", f"let process {self._holder.pid} hold a file open on the card")
        self._files.do(job)

    def close_file(self) -> None:
        """Ends that program."""
        def job() -> None:
            if self._holder is not None:
                self._holder.send_signal(signal.SIGKILL)
        self._files.do(job)

    def write_until_it_overflows(self, identifier: str) -> None:
        """Writes files into a watched directory until it exceeds its limit, or until stop_writing()."""
        self._stop_writing.clear()

        def job() -> None:
            self._changes.post(lambda model: setattr(model, "writing", True))
            try:
                self._write(identifier)
            finally:
                self._changes.post(lambda model: setattr(model, "writing", False))
        self._writer.do(job)

    def stop_writing(self) -> None:
        """Ends the writing after the current file."""
        self._stop_writing.set()

    def _write(self, identifier: str) -> None:
        path = self._call("GetDirPath", identifier)
        limit = self._call("GetDirSize", identifier)
        self._changes.add_event("you", f"write into {path}")
        used = self._call("getDirUsed", identifier)
        while used <= limit and not self._stop_writing.wait(WRITE_PAUSE_SECONDS):
            # In any other state the card is about to be removed.
            if self._board.state is not State.MOUNTED:
                self._changes.add_event("you", "stop writing: the card is not there any more")
                return
            name = f"{path}/data-{time.time_ns() // 1_000_000}"
            result = self._board.run("sh", "-c", WRITE_FILE, "sh", name, str(limit // WRITE_STEPS))
            if result.returncode != 0:
                self._changes.add_event("ERROR", f"cannot write {name}: {result.stderr.strip()}")
                break
            used = self._call("getDirUsed", identifier)
        self._call("RefreshMemState")
        if used > limit:
            self._changes.add_event("you", f"fill {identifier} above its limit: e deletes its oldest files")

    def ensure_size(self, identifier: str) -> None:
        """Calls EnsureDirSize for a watched directory."""
        def job() -> None:
            self._changes.add_event("you", f"call EnsureDirSize {identifier}")
            self._call("EnsureDirSize", identifier)
            self._call("RefreshMemState")
        self._bus.do(job)

    def _call(self, method: str, *arguments: str) -> object:
        return self._board.bus.call(CARD_INTERFACE, method, *arguments)

    # The service and the system

    def start_service(self) -> None:
        """Starts the service."""
        self._service.do(self._board.start_service)

    def end_service(self, number: int) -> None:
        """Sends a signal to the service."""
        def job() -> None:
            self._board.service.send_signal(number)
            self._changes.add_event("you", f"send {signal.Signals(number).name} to the service")
            self._changes.post(lambda model: setattr(model, "term_sent", model.service_runs))
        self._service.do(job)

    def set_run_level(self, level: int) -> None:
        """Sets the run level of the system."""
        def job() -> None:
            self._board.set_runlevel(level)
            self._changes.add_event("you", f"set run level {level}"
                               + (": the system is rebooting" if level == REBOOT_RUN_LEVEL else ""))
            self._changes.post(lambda model: setattr(model, "run_level", level))
        self._files.do(job)
