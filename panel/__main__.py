"""A board in a terminal: python3 -m panel [--emulated] PROGRAM

Ends with status 0 if the user quits and nothing is left behind.
"""

import signal
import sys
import termios
import time
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

import urwid

from board.board import Board
from board.client import install_client
from board.emulated import EmulatedBoard, EmulatorError
from board.names import MEDIA_CONFIGURATION
from board.shell import open_shell
from board.virtual_board import VirtualBoard
from board.virtual_machine import MachineError
from . import keys
from .hands import Hands
from .lights import CardActivity
from .model import Changes, Model, watched_directories
from .observer import BoardGone, Observer
from .view import PALETTE, View, colours_of_terminal

TICK_SECONDS = 0.05
USAGE_ERROR = 2
SIGNALLED = 128
ENDING_SIGNALS = (signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT)


class Panel:
    """The screen, the keys and the threads for one board."""

    def __init__(self, board: Board) -> None:
        """Starts to watch the board."""
        directories = watched_directories(board.read_file(MEDIA_CONFIGURATION))
        self.model = Model(directories, board.kind)
        self._board = board
        self._changes = Changes()
        self.hands = Hands(board, self._changes)
        self._observer = Observer(board, directories, self._changes)
        self._activity = CardActivity(board)
        self._view = View(len(directories))
        screen = urwid.raw_display.Screen()
        screen.set_terminal_properties(colors=colours_of_terminal())
        self._loop = urwid.MainLoop(self._view.widget, PALETTE, screen, handle_mouse=False, unhandled_input=self._press)

    def run(self) -> None:
        """Shows the panel until the user quits. Always restores the terminal at the end."""
        self.hands.start_service()
        self._loop.set_alarm_in(0, self._tick)
        try:
            self._loop.run()
        finally:
            self._loop.screen.stop()
            self._observer.stop()

    def open_shell(self) -> None:
        """See keys.Panel."""
        self._loop.screen.stop()
        try:
            open_shell(self._board)
        finally:
            self._loop.screen.start()
            # The size of the terminal may have changed.
            self._loop.screen_size = None

    def quit(self) -> None:
        """See keys.Panel."""
        raise urwid.ExitMainLoop

    def _press(self, key: str) -> bool:
        return keys.press(key, self)

    def _tick(self, loop: urwid.MainLoop, _data: object) -> None:
        loop.set_alarm_in(TICK_SECONDS, self._tick)
        now = time.monotonic()
        for name, lamp in self.model.lamps.items():
            lamp.follow(self._board.led_panel.leds[name], now)
        self.model.pins = self._board.led_pins()
        if self.model.pins is None:
            self.model.card_active = self._activity.seen()
        self._changes.apply(self.model)
        if self.model.button.wants_release(now):
            self.hands.release_button()
        self._view.refresh(self.model, now, loop.screen.get_cols_rows())


@contextmanager
def kept_terminal() -> Iterator[None]:
    """Restores the terminal's settings at the end, and prevents Ctrl-Z from stopping this program."""
    descriptor = sys.stdin.fileno()
    settings = termios.tcgetattr(descriptor)
    # A stopped panel would leave its screen behind. Not SIG_IGN: the board's programs would inherit that.
    signal.signal(signal.SIGTSTP, lambda number, frame: None)
    try:
        yield
    finally:
        # A killed shell may have left the terminal to other processes, and the terminal may be closed.
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTTOU})
        with suppress(termios.error):
            termios.tcsetattr(descriptor, termios.TCSANOW, settings)


def end_by_signal(number: int, _frame: object) -> None:
    """Ends the program normally, with the exit status that a shell reports for the signal."""
    raise SystemExit(SIGNALLED + number)


def main() -> int:
    """The program's entry; returns its exit status."""
    if not (sys.stdin.isatty() and sys.stdout.isatty()):
        print("The panel needs a terminal.", file=sys.stderr)
        return USAGE_ERROR
    for number in ENDING_SIGNALS:
        signal.signal(number, end_by_signal)
    try:
        with kept_terminal():
            print("The board is being switched on ...")
            kind = EmulatedBoard if "--emulated" in sys.argv[1:-1] else VirtualBoard
            program = Path(sys.argv[-1])
            with kind(program=program) as board:
                install_client(board, program)
                Panel(board).run()
    except BoardGone as problem:
        print(f"The panel has lost its board: {problem}.", file=sys.stderr)
        return 1
    except (MachineError, EmulatorError, OSError) as problem:
        print(f"The board cannot be switched on: {problem}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("Interrupted; the board is switched off.", file=sys.stderr)
        return SIGNALLED + signal.SIGINT
    if remains := board.leftovers():
        print("The board left behind: " + "; ".join(remains), file=sys.stderr)
        return 1
    print("The board is switched off, and nothing is left behind.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
