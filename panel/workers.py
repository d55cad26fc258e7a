"""Threads of the panel. Slow operations run here and never in the thread that draws."""

import subprocess
import threading
from collections.abc import Callable
from queue import SimpleQueue

from board.bus import BusError
from board.virtual_machine import MachineError
from .model import Changes

# The ways in which a board can fail; anything else is a defect of the panel.
BOARD_PROBLEMS = (BusError, MachineError, OSError, AssertionError, subprocess.CalledProcessError)


class Lane:
    """Does jobs one after the other. A failure of the board becomes an event; any other ends the panel."""

    def __init__(self, name: str, changes: Changes) -> None:
        self._changes = changes
        self._jobs: SimpleQueue[Callable[[], None]] = SimpleQueue()
        threading.Thread(target=self._work, name=name, daemon=True).start()

    def do(self, job: Callable[[], None]) -> None:
        """Queues a job."""
        self._jobs.put(job)

    def _work(self) -> None:
        while True:
            job = self._jobs.get()
            try:
                job()
            except BOARD_PROBLEMS as problem:
                self._changes.add_event("ERROR", " ".join(str(problem).split()))
            except Exception as problem:  # pylint: disable=broad-except
                self._changes.fail(problem)


class Repeater:
    """Calls a function at intervals until it is stopped."""

    def __init__(self, name: str, changes: Changes, what: Callable[[], None], every_seconds: float) -> None:
        self._changes = changes
        self._what = what
        self._every = every_seconds
        self._stopped = threading.Event()
        threading.Thread(target=self._work, name=name, daemon=True).start()

    def stop(self) -> None:
        """Ends it after the current call."""
        self._stopped.set()

    def _work(self) -> None:
        while not self._stopped.wait(self._every):
            try:
                self._what()
            except Exception as problem:  # pylint: disable=broad-except
                if not self._stopped.is_set():
                    self._changes.fail(problem)
                return
