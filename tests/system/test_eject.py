"""Ejecting the card with the button, with and without programs that use it."""

import time

import pytest

from board import MOUNT_POINT, LedPattern, State, Transition
from steps import (eject, expect_mounted, expect_safe_to_take_out, messages, press_until_eject, signal_names,
                   start_with_mounted_card, steady_leds, take_out)

pytestmark = pytest.mark.installed

LSOF = "/usr/sbin/lsof"


@pytest.mark.lasts(50)
def test_a_file_held_open_for_40_seconds_keeps_the_card_mounted(board):
    card = start_with_mounted_card(board)
    held = board.hold_file_open()
    press_until_eject(board)
    pressed = time.monotonic()
    signals = len(board.signals)
    board.expect_state_for(State.CLOSING_FILES, 36)
    board.expect_leds(LedPattern.BUSY)
    expect_mounted(board, within=8)
    assert 38 < time.monotonic() - pressed < 40 + 2.5 * board.patience
    assert board.transition is Transition.TIMED_OUT
    board.expect_leds(LedPattern.MOUNTED)
    assert signal_names(board, signals) == ["CardMounted"]
    assert board.property("IsMounted") is True
    assert len(board.mounts()) == 1
    assert held.running

    held.stop()
    eject(board)
    assert "held" in card.list_files()
    take_out(board)


@pytest.mark.lasts(30)
def test_a_card_left_in_the_slot_is_mounted_again_after_20_seconds(board):
    card = start_with_mounted_card(board)
    eject(board)
    unmounted = board.expect_signal("CardUnmounted")
    signals = len(board.signals)
    board.expect_state_for(State.UNMOUNTED, unmounted.time + 17 - time.monotonic())
    expect_mounted(board, within=8)
    mounted = board.expect_signal("CardMounted", after=signals)
    assert 19 <= mounted.time - unmounted.time < 20 + 2 * board.patience
    assert board.transition is Transition.TIMED_OUT
    assert board.property("IsMounted") is True
    assert len(board.mounts()) == 1
    board.expect_leds(LedPattern.MOUNTED)
    assert steady_leds(board) == [LedPattern.OFF, LedPattern.MOUNTED, LedPattern.UNMOUNTED, LedPattern.MOUNTED]
    assert board.stop_service() == 0
    assert card.is_clean()


@pytest.mark.lasts(26)
def test_a_card_taken_out_in_time_is_not_mounted_20_seconds_later(board):
    start_with_mounted_card(board)
    eject(board)
    take_out(board)
    records = len(board.records)
    board.expect_state_for(State.NO_CARD, 20.5)
    assert board.transition is Transition.CARD_REMOVED
    assert len(board.records) == records


def test_the_card_is_unmounted_as_soon_as_no_program_uses_it(board):
    card = start_with_mounted_card(board)
    holder = board.hold_file_open(f"{MOUNT_POINT}/one")
    # A working directory on the card counts like an open file.
    dweller = board.start("sh", "-c", f"cd {MOUNT_POINT}/export && exec sleep 1000")
    board.expect("sleep runs", lambda: board.run("pgrep", "-x", "sleep").returncode == 0)
    press_until_eject(board)
    board.expect_state(State.CLOSING_FILES)
    assert board.transition is Transition.EJECT_REQUESTED
    holder.stop()
    board.expect_state_for(State.CLOSING_FILES, 1)
    dweller.stop()
    let_go = time.monotonic()
    unmounted = board.expect_signal("CardUnmounted")
    assert unmounted.time - let_go < 2 * board.patience
    assert board.transition is Transition.FILES_CLOSED
    expect_safe_to_take_out(board)
    assert "one" in card.list_files()
    assert [message for message in messages(board, "INFO", "sdcard") if "rocess" in message or "'" in message] == [
        f"Processes with open files on {MOUNT_POINT}:", f"{holder.pid}: 'python3'", f"{dweller.pid}: 'sleep'",
        "Number of processes with open files: 2"]


def test_a_failing_lsof_is_run_again_until_it_works(board):
    start_with_mounted_card(board)
    board.replace_tool(LSOF, "exit 3")
    press_until_eject(board)
    failed = "Invoke of 'lsof' utility failed with exit code 3"
    board.expect_record("ERROR", "sdcard", failed, source="sdcard")
    board.expect("it is asked again and again", lambda: messages(board, "ERROR").count(failed) > 2)
    assert board.state is State.CLOSING_FILES
    board.restore_tool(LSOF)
    expect_safe_to_take_out(board)


@pytest.mark.lasts(15)
def test_a_blocked_lsof_counts_as_open_files(board):
    start_with_mounted_card(board)
    board.replace_tool(LSOF, "exec sleep 1000")
    press_until_eject(board, within=20)
    # The service answers no calls for the 10 seconds that it waits for lsof.
    board.expect_record("ERROR", "sdcard", "Invoke of 'lsof' utility failed with exit code -1", within=15)
    board.restore_tool(LSOF)
    expect_safe_to_take_out(board, within=20)
    assert board.run("pgrep", "-x", "sleep").stdout == ""


def test_an_lsof_that_ends_with_1_has_found_nothing(board):
    start_with_mounted_card(board)
    board.replace_tool(LSOF, "exit 1")
    eject(board)
    assert board.tool_calls("lsof") == [["-t", "-Q", MOUNT_POINT]]
    assert messages(board, "ERROR") == [
        "Cannot get number of processes with open files, 'lsof' utility failed with exit code 1"]


def test_a_card_that_cannot_be_unmounted_stays_in_use(board):
    start_with_mounted_card(board)
    inside = f"{MOUNT_POINT}/export"
    board.run("mount", "-t", "tmpfs", "inside", inside, check=True)
    signals = len(board.signals)
    press_until_eject(board)
    board.expect_signal("CardMounted", after=signals)
    assert board.state is State.MOUNTED
    assert board.transition is Transition.UNMOUNT_FAILED
    board.expect_record("ERROR", "sdcard", "Umount failed: error code 'Device or resource busy'", source="sdcard",
                        function="Sdcard::umountDevice")
    board.expect_leds(LedPattern.MOUNTED)
    assert signal_names(board, signals) == ["EjectPressed", "CardMounted"]
    board.run("umount", inside, check=True)
    eject(board)


def test_a_card_unmounted_by_another_process_is_gone_for_the_service(board):
    start_with_mounted_card(board)
    held = board.hold_file_open()
    press_until_eject(board)
    board.expect_state(State.CLOSING_FILES)
    board.run("umount", "--lazy", MOUNT_POINT, check=True)
    board.run("rmdir", MOUNT_POINT, check=True)
    board.expect_state(State.NO_CARD)
    assert board.transition is Transition.FILES_CLOSED
    board.expect_no_signal("CardUnmounted")
    assert held.running
    held.stop()


def test_a_card_pulled_while_files_are_closed_is_gone_and_comes_back(board):
    card = start_with_mounted_card(board)
    held = board.hold_file_open()
    press_until_eject(board)
    board.expect_state(State.CLOSING_FILES)
    held.stop()
    board.pull()
    board.expect_state(State.NO_CARD)
    board.expect_leds(LedPattern.OFF)
    assert board.mounts() == []
    board.insert(card)
    expect_mounted(board)
    eject(board)
