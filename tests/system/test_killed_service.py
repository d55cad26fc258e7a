"""A service that is killed (SIGKILL, as by a watchdog) during work on a card, and is started again."""

import signal

from board import Card
from board.names import E2FSCK
from steps import eject, expect_mounted

JOBS = "/opt/tavo/share/tavo-sdcard/preparing"
RUNS = "/run/board/runs"


def test_a_check_does_not_outlive_the_service(board):
    # The first run writes its process id and never ends; exec keeps the id.
    board.replace_tool(E2FSCK, f'[ -e {RUNS} ] || {{ echo $$ >{RUNS}; exec sleep 1000; }}\nexec "$ORIGINAL" "$@"')
    board.insert(Card.formatted())
    board.start_service()
    board.expect("the check runs", lambda: board.exists(RUNS) and board.read_file(RUNS) != "")
    check = board.read_file(RUNS).strip()
    board.stop_service(signal.SIGKILL)
    board.expect("the check has ended", lambda: not board.exists(f"/proc/{check}"), within=5)
    board.start_service()
    expect_mounted(board)
    eject(board)


def test_a_card_whose_preparation_was_killed_is_prepared_again(board):
    board.write_file(f"{JOBS}/10-slow",
                     f"#!/bin/sh\necho $$ >>{RUNS}\n[ $(wc -l <{RUNS}) -gt 1 ] || exec sleep 1000\n", 0o755)
    board.write_file(f"{JOBS}/20-next", "#!/bin/sh\necho run >>/run/board/next\n", 0o755)
    board.insert(Card.formatted())
    board.start_service()
    board.expect("the script runs", lambda: board.exists(RUNS) and board.read_file(RUNS) != "")
    script = board.read_file(RUNS).strip()
    board.stop_service(signal.SIGKILL)
    board.expect("the script has ended", lambda: not board.exists(f"/proc/{script}"), within=5)
    assert len(board.mounts()) == 1
    board.start_service()
    expect_mounted(board)
    assert board.read_file("/run/board/next") == "run\n"
    # The card is prepared now, so a service that finds it mounted does not prepare it.
    board.stop_service(signal.SIGKILL)
    board.start_service()
    expect_mounted(board)
    assert board.read_file("/run/board/next") == "run\n"
    eject(board)
