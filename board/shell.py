"""A shell on a virtual board with a card in the slot and the service running: python3 -m board.shell PROGRAM"""

import subprocess
import sys
from pathlib import Path

from .card import Card
from .names import ENVIRONMENT, EJECT_BUTTON, LED_DIRECTORY, LOG_FILE, OBJECT_PATH, SERVICE_NAME, State
from .virtual_board import VirtualBoard

WELCOME = f"""
A shell on the virtual board; it is gone when you leave (exit).
  the service's log           tail -f {LOG_FILE}
  its object on the bus       busctl introspect {SERVICE_NAME} {OBJECT_PATH}
  hold the eject button       echo 1 >{EJECT_BUTTON}
  the LEDs                    head {LED_DIRECTORY}/*/*
"""


def main() -> int:
    """The program's entry; returns the shell's exit status."""
    with VirtualBoard(program=Path(sys.argv[1])) as board:
        board.insert(Card.as_bought())
        board.start_service()
        board.expect_state(State.MOUNTED, within=60)
        print(WELCOME)
        # The shell needs the terminal, so it stays in this session.
        shell = ["nsenter", "--target", str(board.host_pid), "--mount", "--pid", "--root", "--wdns=/", "bash", "--norc"]
        return subprocess.call(shell, env=ENVIRONMENT | {"TERM": "xterm", "PS1": "board:\\w# "})


if __name__ == "__main__":
    sys.exit(main())
