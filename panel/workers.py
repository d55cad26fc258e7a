"""Threads of the panel: whatever may take time happens in one of these, never where the screen is drawn."""

import subprocess
import threading
from collections.abc import Callable
from queue import SimpleQueue

from board.bus import BusError
from board.virtual_machine import MachineError
from .model import Changes

# What a board refuses or fails to do; anything else is a defect of the panel.
BOARD_PROBLEMS = (BusError, MachineError, OSError, AssertionError, subprocess.CalledProcessError)


class Lane:
    """Does jobs one after the other; problems of the board are told, others end the panel."""

    def __init__(self, name: str, changes: Changes) -> None:
        self._changes = changes
        self._jobs: SimpleQueue[Callable[[], None]] = SimpleQueue()
        threading.Thread(target=self._work, name=name, daemon=True).start()

    def do(self, job: Callable[[], None]) -> None:
        """Has a job done after those before it."""
        self._jobs.put(job)

    def _work(self) -> None:
        while True:
            job = self._jobs.get()
            try:
                job()
            except BOARD_PROBLEMS as problem:
                self._changes.tell("ERROR", " ".join(str(problem).split()))
            except Exception as problem:  # pylint: disable=broad-except
                self._changes.fail(problem)


class Repeater:
    """Does something again and again until it is stopped."""

    def __init__(self, name: str, changes: Changes, what: Callable[[], None], every_seconds: float) -> None:
        self._changes = changes
        self._what = what
        self._every = every_seconds
        self._stopped = threading.Event()
        threading.Thread(target=self._work, name=name, daemon=True).start()

    def stop(self) -> None:
        """Lets it end after what it does now."""
        self._stopped.set()

    def _work(self) -> None:
        while not self._stopped.wait(self._every):
            try:
                self._what()
            except Exception as problem:  # pylint: disable=broad-except
                if not self._stopped.is_set():
                    self._changes.fail(problem)
                return
