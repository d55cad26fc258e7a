"""A card that comes back while a check or a script still runs."""

import pytest

from board import Card, State
from board.names import E2FSCK
from steps import eject, expect_mounted

pytestmark = pytest.mark.installed

JOBS = "/opt/tavo/share/tavo-sdcard/preparing"


def test_a_card_put_back_while_the_last_check_still_runs_is_mounted(board):
    board.replace_tool(E2FSCK, '[ -e /run/board/again ] || { : >/run/board/again; sleep 6; }\nexec "$ORIGINAL" "$@"')
    card = Card.formatted()
    board.insert(card)
    board.start_service()
    board.expect("the check runs", lambda: board.tool_calls("e2fsck") != [])
    board.pull()
    board.expect_state(State.NO_CARD)
    board.insert(card)
    expect_mounted(board)
    assert len(board.tool_calls("e2fsck")) == 2
    board.expect("no check is left", lambda: board.run("pgrep", "-f", "e2fsck").returncode == 1)
    eject(board)


def test_a_card_put_back_while_the_last_script_still_runs_is_prepared_anew(board):
    board.write_file(f"{JOBS}/10-slow", "#!/bin/sh\necho run >>/run/board/first\nsleep 4\n", 0o755)
    board.write_file(f"{JOBS}/20-next", "#!/bin/sh\necho run >>/run/board/next\n", 0o755)
    card = Card.formatted()
    board.insert(card)
    board.start_service()
    board.expect("the script runs", lambda: board.exists("/run/board/first"))
    board.pull()
    board.expect_state(State.NO_CARD)
    board.insert(card)
    expect_mounted(board)
    assert board.read_file("/run/board/first") == "run\nrun\n"
    assert board.read_file("/run/board/next") == "run\n"
    eject(board, within=20)
