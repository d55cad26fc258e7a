"""Cards that are removed, or lose power, at the wrong moment."""

import signal
import time

import pytest

from board import MOUNT_POINT, Card, LedPattern, State, Transition
from board.names import E2FSCK, FORMAT_SCRIPT
from steps import HOLD, eject, expect_mounted, go_on, start_with_mounted_card

pytestmark = pytest.mark.installed

JOBS = "/opt/tavo/share/tavo-sdcard/preparing"


@pytest.mark.parametrize("make, tool, running", [
    (Card.formatted, E2FSCK, "e2fsck"), (Card.as_bought, "/usr/sbin/mke2fs", FORMAT_SCRIPT),
    (Card.formatted, f"{JOBS}/10-slow", "10-slow")], ids=["checked", "formatted", "prepared"])
def test_a_card_pulled_before_it_is_mounted_is_mounted_when_it_comes_back(board, make, tool, running):
    board.replace_tool(tool, f'{HOLD}; [ ! -x "$ORIGINAL" ] || exec "$ORIGINAL" "$@"')
    board.replace_tool(f"{JOBS}/20-next", "")
    card = make()
    board.insert(card)
    board.start_service()
    board.expect("the tool runs", lambda: board.tool_calls(tool.rsplit("/")[-1]) != [])
    board.pull()
    board.expect_state(State.NO_CARD)
    board.expect_leds(LedPattern.OFF)
    go_on(board)
    if tool == E2FSCK:
        board.expect_record("INFO", "St:Mounting", "Pass2 check result: 8")
    board.expect("the tool has ended", lambda: board.run("pgrep", "-f", running).returncode == 1)
    board.expect_state_for(State.NO_CARD, 0.5)
    assert board.mounts() == []
    assert board.tool_calls("20-next") == []
    board.insert(card)
    expect_mounted(board)
    assert len(board.tool_calls("20-next")) == 1
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


@pytest.mark.virtual  # see test_real_stack_cuts: that kernel reports the removal itself
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


@pytest.mark.virtual  # see test_real_stack, which really cuts the power
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
