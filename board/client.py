"""The command-line client on a board."""

from pathlib import Path

from .board import Board

CLIENT = "/usr/bin/sdcardctl"
COMPLETION = "/usr/share/bash-completion/completions/sdcardctl"
SOURCE = Path(__file__).resolve().parent.parent / "sdcardctl"


def install_client(board: Board, program: Path | None) -> None:
    """Installs the client from the build tree of the service's @p program; None: a package has installed it."""
    if program is None:
        return
    board.install_program(program.parents[1] / "sdcardctl" / "sdcardctl", CLIENT)
    board.write_file(COMPLETION, (SOURCE / "sdcardctl.bash-completion").read_text())
