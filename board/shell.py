"""A shell on a virtual board with a card in the slot and the service running: python3 -m board.shell PROGRAM"""

import os
import subprocess
import sys
from pathlib import Path

from .card import Card
from .names import ENVIRONMENT, EJECT_BUTTON, LED_DIRECTORY, LOG_FILE, OBJECT_PATH, SERVICE_NAME, State
from .virtual_board import VirtualBoard

WELCOME = f"""
A shell on the virtual board; exit leaves it.
  the service's log           tail -f {LOG_FILE}
  its object on the bus       busctl introspect {SERVICE_NAME} {OBJECT_PATH}
  hold the eject button       echo 1 >{EJECT_BUTTON}
  the LEDs                    head {LED_DIRECTORY}/*/*
"""


def open_shell(board: VirtualBoard) -> int:
    """Leaves this terminal to a shell on the board until its user leaves it; returns its exit status."""
    print(WELCOME, flush=True)
    # script(1) gives the shell a terminal of the board's own: with jobs, and with Ctrl-C for them alone.
    shell = ["nsenter", "--target", str(board.host_pid), "--mount", "--pid", "--root", "--wdns=/",
             "script", "--quiet", "--return", "--command", "exec bash --norc", "/dev/null"]
    return subprocess.call(shell, env=ENVIRONMENT | {"TERM": os.environ.get("TERM", "xterm"), "PS1": "board:\\w# "})


def main() -> int:
    """The program's entry; returns the shell's exit status."""
    with VirtualBoard(program=Path(sys.argv[1])) as board:
        board.insert(Card.as_bought())
        board.start_service()
        board.expect_state(State.MOUNTED, within=60)
        return open_shell(board)


if __name__ == "__main__":
    sys.exit(main())
