"""Cards that are taken out, or lose their power, at the wrong moment."""

import signal
import time

import pytest

from board import MOUNT_POINT, Card, LedPattern, State, Transition
from board.names import E2FSCK, FORMAT_SCRIPT
from steps import HELD_PROGRAM, HOLD, eject, expect_mounted, go_on, start_with_mounted_card

pytestmark = pytest.mark.installed

JOBS = "/opt/tavo/share/tavo-sdcard/preparing"


def test_a_card_pulled_while_it_is_checked_is_mounted_when_it_comes_back(board):
    board.replace_tool(E2FSCK, HELD_PROGRAM)
    card = Card.formatted()
    board.insert(card)
    board.start_service()
    board.expect("the check runs", lambda: board.tool_calls("e2fsck") != [])
    board.pull()
    board.expect_state(State.NO_CARD)
    board.expect_leds(LedPattern.OFF)
    go_on(board)
    board.expect_record("INFO", "St:Mounting", "Pass2 check result: 8")
    board.expect_state_for(State.NO_CARD, 0.5)
    assert board.mounts() == []
    board.restore_tool(E2FSCK)
    board.insert(card)
    expect_mounted(board)
    eject(board)


def test_a_card_pulled_while_it_is_formatted_is_formatted_when_it_comes_back(board):
    board.replace_tool("/usr/sbin/mke2fs", HELD_PROGRAM)
    card = Card.as_bought()
    board.insert(card)
    board.start_service()
    board.expect("mke2fs runs", lambda: board.tool_calls("mke2fs") != [])
    board.pull()
    board.expect_state(State.NO_CARD)
    go_on(board)
    board.expect("the script has ended", lambda: board.run("pgrep", "-f", FORMAT_SCRIPT).returncode == 1)
    assert board.mounts() == []
    board.insert(card)
    expect_mounted(board)
    eject(board)


def test_a_card_pulled_while_it_is_prepared_is_mounted_when_it_comes_back(board):
    board.write_file(f"{JOBS}/10-slow", f"#!/bin/sh\necho run >>/run/board/first\n{HOLD}\n", 0o755)
    board.write_file(f"{JOBS}/20-next", "#!/bin/sh\necho run >>/run/board/next\n", 0o755)
    card = Card.formatted()
    board.insert(card)
    board.start_service()
    board.expect("the script runs", lambda: board.exists("/run/board/first"))
    board.pull()
    board.expect_state(State.NO_CARD)
    assert board.mounts() == []
    go_on(board)
    board.expect("the script has ended", lambda: board.run("pgrep", "-f", "10-slow").returncode == 1)
    board.expect_state_for(State.NO_CARD, 0.5)
    assert not board.exists("/run/board/next")
    board.insert(card)
    expect_mounted(board)
    assert board.read_file("/run/board/next") == "run\n"
    eject(board)


def test_a_mounted_card_that_is_pulled_is_gone_and_comes_back(board):
    card = start_with_mounted_card(board)
    board.run("sh", "-c", f"echo kept >{MOUNT_POINT}/export/kept && sync", check=True)
    board.pull()
    board.expect_state(State.NO_CARD)
    board.expect_transition(Transition.CARD_REMOVED)
    board.expect_leds(LedPattern.OFF)
    assert board.property("IsMounted") is False
    assert board.mounts() == []
    board.insert(card)
    expect_mounted(board)
    assert board.read_file(f"{MOUNT_POINT}/export/kept") == "kept\n"
    eject(board)


@pytest.mark.virtual  # see test_real_stack_cuts, where the kernel tells of it as soon as it has failed the writer
def test_a_card_pulled_while_it_is_written_is_gone_and_comes_back(board):
    card = start_with_mounted_card(board)
    board.run("sh", "-c", f"echo kept >{MOUNT_POINT}/export/kept && sync", check=True)
    writer = board.start("sh", "-c", f"i=0; while echo $i >{MOUNT_POINT}/export/$i && sync {MOUNT_POINT}/export/$i; "
                                     "do i=$((i + 1)); done")
    board.expect("it writes", lambda: board.exists(f"{MOUNT_POINT}/export/5"))
    board.pull(announce=False)
    writer.wait(60)
    board.bus.announce_removal()
    board.expect_state(State.NO_CARD)
    board.expect_transition(Transition.CARD_REMOVED)
    assert board.mounts() == []
    board.insert(card)
    expect_mounted(board)
    assert board.read_file(f"{MOUNT_POINT}/export/kept") == "kept\n"
    eject(board)


@pytest.mark.virtual  # the other's power is really cut, see test_real_stack
def test_a_power_cut_while_data_is_written_loses_nothing_that_was_synced(board, make_board, program):
    card = start_with_mounted_card(board)
    board.run("sh", "-c", f"echo kept >{MOUNT_POINT}/export/kept && sync", check=True)
    writer = board.start("sh", "-c", f"while :; do cp -r /etc/init.d {MOUNT_POINT}/export/copy; rm -r "
                                     f"{MOUNT_POINT}/export/copy; done")
    time.sleep(1)
    after = card.copy()
    writer.stop(signal.SIGKILL)
    other = make_board(program=program)
    start_with_mounted_card(other, after)
    assert other.read_file(f"{MOUNT_POINT}/export/kept") == "kept\n"
    eject(other)
