"""A shell on a board with a card in the slot and the service running: python3 -m board.shell [--emulated] PROGRAM"""

import sys
from pathlib import Path

from .board import Board
from .card import Card
from .client import COMPLETION, install_client
from .emulated import EmulatedBoard
from .names import BOARD_DIRECTORY, EJECT_BUTTON, LED_DIRECTORY, LOG_FILE, OBJECT_PATH, SERVICE_NAME, State
from .virtual_board import VirtualBoard

WELCOME = f"""
A shell on the {{kind}} board; exit leaves it.
  the card's state            sdcardctl status, sdcardctl --help
  the service's log           tail -f {LOG_FILE}
  the LEDs                    head {LED_DIRECTORY}/*/*
"""
# The emulated board has no busctl, and its button is a pin, which no program on the board can set.
ON_VIRTUAL_BOARD = f"""\
  its object on the bus       busctl introspect {SERVICE_NAME} {OBJECT_PATH}
  hold the eject button       echo 1 >{EJECT_BUTTON}
"""
SETTINGS_FILE = f"{BOARD_DIRECTORY}/bashrc"
SETTINGS = f"PS1='board:\\w# '\nsource {COMPLETION}\n"


def open_shell(board: Board) -> int:
    """Connects this terminal to a shell on a board with the client, until the user leaves it.

    Returns the shell's exit status.
    """
    board.write_file(SETTINGS_FILE, SETTINGS)
    emulated = isinstance(board, EmulatedBoard)
    print(WELCOME.format(kind="emulated" if emulated else "virtual") + ("" if emulated else ON_VIRTUAL_BOARD), flush=True)
    return board.open_terminal(f"exec bash --rcfile {SETTINGS_FILE}")


def main() -> int:
    """The program's entry; returns the shell's exit status."""
    kind = EmulatedBoard if "--emulated" in sys.argv[1:-1] else VirtualBoard
    program = Path(sys.argv[-1])
    with kind(program=program) as board:
        install_client(board, program)
        board.insert(Card.as_bought())
        board.start_service()
        board.expect_state(State.MOUNTED, within=60)
        return open_shell(board)


if __name__ == "__main__":
    sys.exit(main())
