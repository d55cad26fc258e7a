"""The command-line client on a board."""

from pathlib import Path

from .board import Board

CLIENT = "/usr/bin/sdcardctl"
COMPLETION = "/usr/share/bash-completion/completions/sdcardctl"
SOURCE = Path(__file__).resolve().parent.parent / "sdcardctl"


def install_client(board: Board, program: Path | None) -> None:
    """Installs the client that was built with the service's @p program; without one, a package has brought it."""
    if program is None:
        return
    client = program.parents[1] / "sdcardctl" / "sdcardctl"
    board.run("sh", "-c", 'cat >"$1" && chmod 755 "$1"', "sh", CLIENT, input=client.read_bytes(), check=True)
    board.write_file(COMPLETION, (SOURCE / "sdcardctl.bash-completion").read_text())
