"""Ending the service: SIGTERM and SIGHUP in every phase of the card's life."""

import os
import re
import signal
import time

import pytest

from board import MOUNT_POINT, Card, LedPattern, State, Transition
from board.names import E2FSCK
from steps import HELD_PROGRAM, HOLD, eject, expect_mounted, go_on, messages, press_until_eject, signal_names, start_with_mounted_card

pytestmark = pytest.mark.installed

LSOF = "/usr/sbin/lsof"
JOBS = "/opt/tavo/share/tavo-sdcard/preparing"
AT_ONCE_SECONDS = 2.8  # less than the service waits for any worker
both_signals = pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP], ids=["SIGTERM", "SIGHUP"])


def in_an_empty_slot(board):
    board.start_service()
    board.expect_state(State.NO_CARD)


def with_a_card_that_cannot_be_mounted(board):
    board.start_service()
    board.insert(Card.blank())
    board.expect_leds(LedPattern.NOT_MOUNTABLE)


def with_an_ejected_card(board):
    start_with_mounted_card(board)
    eject(board)


@both_signals
@pytest.mark.parametrize("start", [in_an_empty_slot, with_a_card_that_cannot_be_mounted, with_an_ejected_card])
def test_the_service_ends_at_once_when_no_card_is_mounted(board, start, number):
    start(board)
    assert board.stop_service(number, within=AT_ONCE_SECONDS) == 0
    assert messages(board)[-1] == "Terminating sdcardd with exit code 0"
    board.expect_leds(LedPattern.OFF)


@pytest.mark.crashes
def test_a_crash_ends_the_service_with_a_report_under_its_name_in_the_system_log(board):
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert board.stop_service(signal.SIGSEGV, within=10) == -signal.SIGSEGV
    prefix = f"<26>sdcardd[{board.service.pid}]: "

    def report():
        return [entry.removeprefix(prefix) for entry in board.system_log if entry.startswith(prefix)]
    board.expect("a backtrace", lambda: len(report()) > 1)
    first, *backtrace = report()
    assert re.fullmatch(r"Crash: SIGSEGV sent by process \d+, thread \d+", first), first
    assert all(entry.startswith(f"#{number} 0x") for number, entry in enumerate(backtrace)), backtrace


@both_signals
def test_the_service_unmounts_the_card_before_it_ends(board, number):
    card = start_with_mounted_card(board)
    signals = len(board.signals)
    assert board.stop_service(number, within=10) == 0
    board.expect_signal("MemStateChanged", 1, after=signals)
    assert signal_names(board, signals) == ["EjectPressed", "CardUnmounted", "MemLevelChanged", "MemStateChanged"]
    assert card.is_clean(), card.check().stdout
    assert messages(board)[-3:] == ["Number of processes with open files: 0", "SD Card is successfully unmounted",
                                    "Terminating sdcardd with exit code 0"]
    board.expect_leds(LedPattern.OFF)


@both_signals
def test_the_service_waits_for_a_program_that_still_uses_the_card(board, number):
    card = start_with_mounted_card(board)
    held = board.hold_file_open()
    board.service.send_signal(number)
    board.expect_state(State.CLOSING_FILES)
    # Further signals change nothing.
    board.service.send_signal(signal.SIGHUP)
    board.service.send_signal(signal.SIGTERM)
    board.expect_leds(LedPattern.BUSY)
    board.expect_state_for(State.CLOSING_FILES, 3)
    assert held.running
    held.stop()
    board.expect_service_end(0, within=10)
    assert card.is_clean()
    assert signal_names(board).count("EjectPressed") == 1
    assert "Shutdown softly" not in "".join(messages(board))


def expect_40_seconds_of_closing(board):
    """Asks the service to end, and watches its full wait for open files."""
    began = time.monotonic()
    board.service.send_signal(signal.SIGTERM)
    board.expect_state(State.CLOSING_FILES)
    board.expect_state_for(State.CLOSING_FILES, began + 36 - time.monotonic())
    return began


@pytest.mark.lasts(48)
def test_a_program_that_keeps_its_file_open_is_asked_to_end(board):
    card = start_with_mounted_card(board)
    held = board.hold_file_open()
    began = expect_40_seconds_of_closing(board)
    assert held.running
    board.expect_service_end(0, within=10)
    assert 38 < time.monotonic() - began < 40 + 5 * board.patience
    assert held.wait() == -signal.SIGTERM
    assert card.is_clean(), card.check().stdout
    assert messages(board)[-7:] == [
        f"Processes with open files on {MOUNT_POINT}:", f"{held.pid}: 'python3'", f" - open file: {MOUNT_POINT}/held",
        "Number of processes with open files: 1", f"Shutdown softly process {held.pid} !",
        "SD Card is successfully unmounted", "Terminating sdcardd with exit code 0"]
    board.expect_record("WARN", "sdcard", f"Shutdown softly process {held.pid} !", source="sdcard",
                        function="Sdcard::forced_unmounting")
    board.expect_signal("CardUnmounted")


@pytest.mark.lasts(52)
@pytest.mark.leaves_card_mounted
def test_a_program_that_ignores_the_request_keeps_the_card_mounted_when_the_service_ends(board):
    start_with_mounted_card(board)
    held = board.hold_file_open(ignore_sigterm=True)
    began = expect_40_seconds_of_closing(board)
    board.expect_service_end(0, within=30)
    assert 41 < time.monotonic() - began
    assert held.running
    assert len(board.mounts()) == 1
    assert messages(board)[-3:] == [f"Shutdown softly process {held.pid} !",
                                    "Umount failed: error code 'Device or resource busy'",
                                    "Terminating sdcardd with exit code 0"]
    board.expect_no_signal("CardUnmounted")
    board.expect_leds(LedPattern.OFF)


@pytest.mark.lasts(48)
@pytest.mark.leaves_card_mounted
def test_a_program_that_keeps_its_file_open_is_killed_at_a_reboot(board):
    card = start_with_mounted_card(board)
    held = board.hold_file_open(ignore_sigterm=True)
    board.set_runlevel(6)
    expect_40_seconds_of_closing(board)
    board.expect_service_end(0, within=10)
    assert held.wait() == -signal.SIGKILL
    board.expect_record("WARN", "sdcard", "System is rebooting -> shutdown processes (!)", source="sdcard",
                        function="Sdcard::forced_unmounting")
    assert not any("Shutdown softly" in message for message in messages(board))
    # The service does not wait for the killed program: the unmount may come too early.
    if "SD Card is successfully unmounted" in messages(board):
        assert board.mounts() == []
        assert card.is_clean()
    else:
        assert "Umount failed: error code 'Device or resource busy'" in messages(board)


@pytest.mark.lasts(46)
def test_the_card_is_unmounted_by_force_when_lsof_is_missing(board):
    card = start_with_mounted_card(board)
    board.remove_tool(LSOF)
    expect_40_seconds_of_closing(board)
    board.expect_service_end(0, within=10)
    assert messages(board, "ERROR")[-1] == "Invoke of 'lsof' utility failed with exit code -1"
    assert "SD Card is successfully unmounted" in messages(board)
    assert card.is_clean()


@pytest.mark.parametrize("run_level, record", [
    (5, "Kill softly failed: No such process"), (6, "Kill hardly failed: No such process")])
@pytest.mark.leaves_card_mounted
def test_a_program_that_is_gone_before_the_signal_is_logged(board, run_level, record):
    start_with_mounted_card(board)
    # No file is open, but the card cannot be unmounted: the forced unmount follows at once.
    board.run("mount", "-t", "tmpfs", "inside", f"{MOUNT_POINT}/export", check=True)
    board.set_runlevel(run_level)
    board.replace_tool(LSOF, "[ ! -e /run/board/asked ] || echo 4194305\n: >/run/board/asked")
    assert board.stop_service(within=15) == 0
    board.expect_record("ERROR", "sdcard", record, source="sdcard", function="Sdcard::forced_unmounting")
    assert messages(board, "ERROR").count("Umount failed: error code 'Device or resource busy'") == 2


@pytest.mark.leaves_card_mounted
def test_the_service_ends_even_when_the_card_cannot_be_unmounted(board):
    start_with_mounted_card(board)
    board.run("mount", "-t", "tmpfs", "inside", f"{MOUNT_POINT}/export", check=True)
    assert board.stop_service(within=10) == 0
    assert messages(board, "ERROR") == ["Umount failed: error code 'Device or resource busy'"] * 2
    board.expect_no_signal("CardUnmounted")
    assert len(board.mounts()) == 2


@both_signals
@pytest.mark.parametrize("make, tool", [(Card.formatted, E2FSCK), (Card.formatted, f"{JOBS}/10-slow"),
                                        (Card.as_bought, "/usr/sbin/mke2fs")], ids=["check", "script", "format"])
def test_a_signal_while_mounting_takes_effect_when_the_card_is_mounted(board, make, tool, number):
    board.replace_tool(tool, f"{HOLD}; [ ! -x \"$ORIGINAL\" ] || \"$ORIGINAL\" \"$@\"")
    card = make()
    board.insert(card)
    board.start_service()
    board.expect("the tool runs", lambda: board.tool_calls(tool.rsplit("/")[-1]) != [])
    board.service.send_signal(number)
    board.expect_state_for(State.MOUNTING, 1.5)
    go_on(board)
    board.expect_service_end(0, within=15)
    assert messages(board)[-4:] == ["SD Card is successfully mounted", "Number of processes with open files: 0",
                                    "SD Card is successfully unmounted", "Terminating sdcardd with exit code 0"]
    assert [partition.kind for partition in card.partitions()] == ["83"]
    assert card.is_clean()


def test_a_signal_while_a_pulled_card_is_still_checked_ends_the_check(board):
    board.replace_tool(E2FSCK, "echo $$ >/run/board/check\nexec sleep 1000")
    board.start_service()
    board.insert(Card.formatted())
    board.expect("e2fsck runs", lambda: board.run("test", "-s", "/run/board/check").returncode == 0)
    check = board.read_file("/run/board/check").strip()
    board.pull()
    board.expect_state(State.NO_CARD)
    assert board.exists(f"/proc/{check}")
    assert board.stop_service(within=10) == 0
    board.expect("no check runs", lambda: not board.exists(f"/proc/{check}"), within=10)
    assert not board.exists(MOUNT_POINT)
    assert messages(board)[-1] == "Terminating sdcardd with exit code 0"


def test_a_signal_while_files_are_closed_for_an_eject_takes_effect_afterwards(board):
    card = start_with_mounted_card(board)
    held = board.hold_file_open()
    press_until_eject(board)
    board.expect_state(State.CLOSING_FILES)
    board.service.send_signal(signal.SIGTERM)
    board.expect_state_for(State.CLOSING_FILES, 1.5)
    held.stop()
    board.expect_service_end(0, within=10)
    board.expect_signal("CardUnmounted")
    assert card.is_clean()


def with_a_corrupted_card(board):
    board.insert(Card.unmountable())
    board.start_service()
    board.expect_state(State.CORRUPTED)


def during_a_check(board):
    board.replace_tool(E2FSCK, HELD_PROGRAM)
    board.insert(Card.formatted())
    board.start_service()
    board.expect("e2fsck runs", lambda: board.tool_calls("e2fsck") != [])


def processor_seconds(board):
    """The processor time that the service's main thread has used."""
    fields = board.read_file(f"/proc/{board.service.pid}/task/{board.service.pid}/stat").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@pytest.mark.parametrize("start", [with_a_corrupted_card, during_a_check])
def test_a_pending_request_uses_no_processor_time(board, start):
    start(board)
    board.service.send_signal(signal.SIGTERM)
    time.sleep(0.5)
    before = processor_seconds(board)
    time.sleep(2)
    assert processor_seconds(board) - before < 0.2
    assert board.service.running
    board.stop_service(signal.SIGKILL)


def test_a_card_pulled_while_the_service_waits_for_its_files_ends_the_service(board):
    start_with_mounted_card(board)
    # Always reports an open file: with a real one the service could end before the card is pulled.
    board.replace_tool(LSOF, "echo 4194305")
    board.service.send_signal(signal.SIGTERM)
    board.expect_state(State.CLOSING_FILES)
    board.pull()
    board.expect_service_end(0, within=10)


def test_a_restarted_service_continues_with_the_same_card(board):
    card = start_with_mounted_card(board)
    board.write_file(f"{MOUNT_POINT}/export/kept", "kept\n")
    assert board.stop_service() == 0
    board.start_service()
    expect_mounted(board)
    assert board.read_file(f"{MOUNT_POINT}/export/kept") == "kept\n"
    assert board.transition is Transition.CARD_INSERTED
    assert board.stop_service() == 0
    assert card.is_clean()
