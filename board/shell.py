"""A shell on a virtual board with a card in the slot and the service running: python3 -m board.shell PROGRAM"""

import os
import subprocess
import sys
from pathlib import Path

from .card import Card
from .client import COMPLETION, install_client
from .names import BOARD_DIRECTORY, ENVIRONMENT, EJECT_BUTTON, LED_DIRECTORY, LOG_FILE, OBJECT_PATH, SERVICE_NAME, State
from .virtual_board import VirtualBoard

WELCOME = f"""
A shell on the virtual board; exit leaves it.
  the card's state            sdcardctl status, sdcardctl --help
  the service's log           tail -f {LOG_FILE}
  its object on the bus       busctl introspect {SERVICE_NAME} {OBJECT_PATH}
  hold the eject button       echo 1 >{EJECT_BUTTON}
  the LEDs                    head {LED_DIRECTORY}/*/*
"""
SETTINGS_FILE = f"{BOARD_DIRECTORY}/bashrc"
SETTINGS = f"PS1='board:\\w# '\nsource {COMPLETION}\n"


def open_shell(board: VirtualBoard) -> int:
    """Leaves this terminal to a shell on the board, which has the client, until its user leaves it.

    Returns the shell's exit status.
    """
    board.write_file(SETTINGS_FILE, SETTINGS)
    print(WELCOME, flush=True)
    # script(1) gives the shell a terminal of the board's own: with jobs, and with Ctrl-C for them alone.
    shell = ["nsenter", "--target", str(board.host_pid), "--mount", "--pid", "--root", "--wdns=/",
             "script", "--quiet", "--return", "--command", f"exec bash --rcfile {SETTINGS_FILE}", "/dev/null"]
    return subprocess.call(shell, env=ENVIRONMENT | {"TERM": os.environ.get("TERM", "xterm")})


def main() -> int:
    """The program's entry; returns the shell's exit status."""
    program = Path(sys.argv[1])
    with VirtualBoard(program=program) as board:
        install_client(board, program)
        board.insert(Card.as_bought())
        board.start_service()
        board.expect_state(State.MOUNTED, within=60)
        return open_shell(board)


if __name__ == "__main__":
    sys.exit(main())
