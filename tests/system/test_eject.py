"""Ejecting the card with the button, while programs use it and while they do not."""

import time

import pytest

from board import MOUNT_POINT, Card, LedPattern, State, Transition
from board.names import CARD_INTERFACE
from steps import (eject, expect_mounted, expect_safe_to_take_out, messages, press_until_eject, signal_names,
                   start_with_mounted_card, steady_leds, take_out)

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
def test_a_card_taken_out_in_time_is_not_looked_for_20_seconds_later(board):
    start_with_mounted_card(board)
    eject(board)
    take_out(board)
    records = len(board.records)
    board.expect_state_for(State.NO_CARD, 20.5)
    assert board.transition is Transition.CARD_REMOVED
    assert len(board.records) == records


def test_the_card_is_unmounted_as_soon_as_the_last_program_has_let_go(board):
    card = start_with_mounted_card(board)
    first = board.hold_file_open(f"{MOUNT_POINT}/one")
    second = board.hold_file_open(f"{MOUNT_POINT}/two")
    press_until_eject(board)
    board.expect_state(State.CLOSING_FILES)
    assert board.transition is Transition.EJECT_REQUESTED
    first.stop()
    board.expect_state_for(State.CLOSING_FILES, 1)
    second.stop()
    let_go = time.monotonic()
    unmounted = board.expect_signal("CardUnmounted")
    assert unmounted.time - let_go < 2 * board.patience
    assert board.transition is Transition.FILES_CLOSED
    expect_safe_to_take_out(board)
    assert {"one", "two"} <= set(card.list_files())
    assert [message for message in messages(board, "INFO", "sdcard") if "rocess" in message or "'" in message] == [
        f"Processes with open files on {MOUNT_POINT}:", f"{first.pid}: 'python3'", f"{second.pid}: 'python3'",
        "Number of processes with open files: 2"]


def test_a_program_whose_working_directory_is_on_the_card_uses_it(board):
    start_with_mounted_card(board)
    dweller = board.start("sh", "-c", f"cd {MOUNT_POINT}/export && exec sleep 1000")
    board.expect("sleep runs", lambda: board.run("pgrep", "-x", "sleep").returncode == 0)
    press_until_eject(board)
    board.expect_record("INFO", "sdcard", f"{dweller.pid}: 'sleep'")
    board.expect_state_for(State.CLOSING_FILES, 1)
    dweller.stop()
    expect_safe_to_take_out(board)


def test_what_was_written_before_an_eject_is_on_the_card(board):
    card = start_with_mounted_card(board)
    board.run("dd", "if=/dev/urandom", f"of={MOUNT_POINT}/export/data", "bs=1M", "count=8", check=True)
    digest = board.run("sha256sum", f"{MOUNT_POINT}/export/data").stdout.split()[0]
    eject(board)
    take_out(board)
    board.insert(card)
    expect_mounted(board)
    assert board.run("sha256sum", f"{MOUNT_POINT}/export/data").stdout.split()[0] == digest


@pytest.mark.lasts(50)
def test_a_missing_lsof_counts_as_files_still_open(board):
    start_with_mounted_card(board)
    board.remove_tool(LSOF)
    press_until_eject(board)
    board.expect_state_for(State.CLOSING_FILES, 36)
    expect_mounted(board, within=8)
    assert board.transition is Transition.TIMED_OUT
    assert messages(board, "ERROR")[:2] == ["Starting command failed (exitstatus:0)",
                                            "Invoke of 'lsof' utility failed with exit code -1"]
    board.run("ln", "-s", "/usr/bin/lsof", LSOF, check=True)
    eject(board)


def test_a_failing_lsof_is_asked_again_until_it_works(board):
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
def test_an_lsof_that_hangs_counts_as_files_still_open(board):
    start_with_mounted_card(board)
    board.replace_tool(LSOF, "exec sleep 1000")
    press_until_eject(board, within=20)
    # The service answers nobody for the 10 seconds that it gives lsof.
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


def test_output_of_lsof_that_is_no_process_is_left_out(board):
    start_with_mounted_card(board)
    board.replace_tool(LSOF, "echo lsof: warning; echo 12x; echo; echo p1")
    eject(board)
    assert "Number of processes with open files: 0" in messages(board)


def test_a_card_that_cannot_be_unmounted_is_used_on(board):
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


def test_a_card_that_somebody_else_has_unmounted_meanwhile_is_gone_for_the_service(board):
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


def test_the_memory_state_of_an_ejected_card_is_that_of_no_card(board):
    start_with_mounted_card(board)
    assert board.property("MemState") == 3
    eject(board)
    assert (board.property("MemState"), board.property("MemLevel")) == (1, 0)
    assert board.call(CARD_INTERFACE, "RefreshMemState") == 1


def test_a_refresh_while_files_are_closed_changes_nothing(board):
    start_with_mounted_card(board)
    held = board.hold_file_open()
    press_until_eject(board)
    board.run("fallocate", "-l", "30M", f"{MOUNT_POINT}/fill", check=True)
    signals = len(board.signals)
    level = board.property("MemLevel")
    assert board.call(CARD_INTERFACE, "RefreshMemState") == 3
    assert board.property("MemLevel") == level
    assert len(board.signals) == signals
    held.stop()
    expect_safe_to_take_out(board)


def test_ejecting_a_card_that_was_formatted_a_moment_ago_leaves_it_clean(board):
    card = Card.as_bought()
    start_with_mounted_card(board, card)
    eject(board)
    take_out(board)
    assert board.transition is Transition.CARD_REMOVED
