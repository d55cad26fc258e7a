"""A card from insertion to removal: format, mount, eject; the button, foreign cards and cards present at start."""

import time

import pytest

from board import MOUNT_POINT, PARTITION_DEVICE, Card, LedPattern, State, Transition
from board.names import CARD_DEVICE, E2FSCK, FORMAT_SCRIPT
from steps import (HELD_PROGRAM, START_RECORDS, eject, expect_mounted, go_on, messages, press_until_eject,
                   seconds_since_format, signal_names, start_with_mounted_card, take_out)

pytestmark = pytest.mark.installed

MOUNT_OPTIONS = "data=journal,nodelalloc,journal_checksum"
COARSE = 0.05  # share of its time by which a timer of the service may be early


def published(board):
    """The card's properties on the bus."""
    properties = board.bus.properties()
    return State(properties["State"]), Transition(properties["Transition"]), properties["IsMounted"]


def test_a_new_card_is_formatted_mounted_and_ejected_clean(board):
    # A new partition causes events. Without this the hot-plug rule would report them.
    with board.unannounced():
        board.replace_tool(E2FSCK, HELD_PROGRAM)
        board.start_service()
        board.expect_leds(LedPattern.OFF)
        assert published(board) == (State.NO_CARD, Transition.NONE, False)

        card = Card.as_bought()
        board.insert(card, announce=False)
        board.bus.announce_insertion()
        board.expect_state(State.MOUNTING)
        board.expect_leds(LedPattern.BUSY)
        assert published(board) == (State.MOUNTING, Transition.CARD_INSERTED, False)

        go_on(board)
        board.expect_signal("CardMounted", within=30)
        board.expect_leds(LedPattern.MOUNTED)
        assert published(board) == (State.MOUNTED, Transition.CARD_INSERTED, True)
        assert [partition.kind for partition in card.partitions()] == ["83"]
        assert sorted(board.run("ls", MOUNT_POINT).stdout.split()) == ["archive", "csv", "export", "logger", "lost+found"]

        held = board.hold_file_open()
        press_until_eject(board)
        board.expect_leds(LedPattern.BUSY)
        assert published(board) == (State.CLOSING_FILES, Transition.EJECT_REQUESTED, True)

        held.stop()
        board.expect_signal("CardUnmounted")
        board.expect_leds(LedPattern.UNMOUNTED)
        assert published(board) == (State.UNMOUNTED, Transition.FILES_CLOSED, False)
        assert not board.exists(MOUNT_POINT)
        assert card.is_clean(), card.check().stdout

        board.pull(announce=False)
        board.bus.announce_removal()
        board.expect_state(State.NO_CARD)
        board.expect_leds(LedPattern.OFF)
        assert published(board) == (State.NO_CARD, Transition.CARD_REMOVED, False)

        assert board.stop_service() == 0
        assert [(signal.name, *signal.arguments) for signal in board.signals] == [
            ("MemStateChanged", 1), ("CardInserted",),
            ("MemStateChanged", 3), ("MemLevelChanged", 1), ("CardMounted",),
            ("EjectPressed",),
            ("CardUnmounted",), ("MemLevelChanged", 0), ("MemStateChanged", 1), ("CardRemoved",)]
        assert [pattern for _, pattern in board.led_panel.history] == [
            LedPattern.OFF, LedPattern.BUSY, LedPattern.MOUNTED, LedPattern.BUSY, LedPattern.UNMOUNTED, LedPattern.OFF]
        assert messages(board)[1:] == [
            *START_RECORDS,
            "New SD Card detected", f"Executing '{FORMAT_SCRIPT}'...",
            "Making an ext4 file system on /dev/mmcblk0 (64 MiB), which holds vfat", "SD Card Linux Ext4 format was new initialized",
            f"Logger directory is '{MOUNT_POINT}/logger'",
            "Eject button timer started", "SD Card is successfully mounted",
            "SD Card eject trigger received",
            f"Processes with open files on {MOUNT_POINT}:", f"{held.pid}: 'python3'",
            "Number of processes with open files: 1",
            "SD Card is successfully unmounted",
            "Terminating sdcardd with exit code 0"]


def test_a_card_is_mounted_once_and_unmounted_by_these_system_calls(board):
    service = board.start_service()
    trace = board.start("strace", "-f", "-qq", "-s", "200", "-e", "trace=mount,umount2", "-e", "signal=none",
                        "-p", str(service.pid))
    board.expect("the trace", lambda: board.run("grep", "TracerPid:\t0", f"/proc/{service.pid}/status").returncode)
    board.insert(Card.formatted())
    expect_mounted(board)
    # A second announcement of a mounted card changes nothing.
    board.bus.announce_insertion()
    board.expect_state_for(State.MOUNTED, 1.5)
    assert {"rw", "noatime", "nodelalloc", "data=journal"} <= set(board.mounts()[0].split()[3].split(","))
    eject(board)
    trace.stop()
    calls = [line[line.index("] ") + 2:] if line.startswith("[pid") else line for line in trace.errors.splitlines()
             if "mount" in line]
    assert calls == [
        f'mount("{PARTITION_DEVICE}", "{MOUNT_POINT}", "ext4", MS_NOATIME, "{MOUNT_OPTIONS}") = 0',
        f'umount2("{MOUNT_POINT}", 0) = 0']


def test_a_card_in_the_slot_at_start_is_mounted_without_being_announced(board):
    start_with_mounted_card(board)
    board.expect_record("INFO", "sdcard", "SD Card is already present", source="sdcard")
    assert signal_names(board) == ["MemStateChanged", "MemStateChanged", "MemLevelChanged", "CardMounted"]
    assert board.transition is Transition.CARD_INSERTED


def test_a_device_without_a_button_mounts_its_card_too(make_board, program):
    board = make_board(program=program, eject_button=False)
    start_with_mounted_card(board)
    board.expect_record("INFO", "sdcard", "No eject button detected", source="sdcard")
    board.expect_no_record("Eject button timer started")


def test_a_device_without_leds_does_everything_else(make_board, program):
    board = make_board(program=program, leds=False)
    card = start_with_mounted_card(board)
    press_until_eject(board)
    board.expect_state(State.UNMOUNTED)
    assert card.is_clean()
    assert messages(board, "ERROR") == []


def test_a_button_held_for_less_than_five_seconds_does_nothing(board):
    start_with_mounted_card(board)
    held = 0
    for _ in range(10):
        signals, pressed = len(board.signals), time.monotonic()
        board.hold_eject_button(4.2)
        if time.monotonic() - pressed > 4.7:
            # This process released the button too late, and the card may be ejected.
            assert board.stop_service() == 0
            board.start_service()
            expect_mounted(board)
            continue
        board.expect_state_for(State.MOUNTED, 0.6)
        board.expect_no_signal("EjectPressed", after=signals)
        assert board.transition is Transition.CARD_INSERTED
        held += 1
        if held == 2:
            break
    assert held == 2


def test_a_card_taken_out_within_a_second_is_never_mounted(board):
    board.start_service()
    board.insert(Card.formatted(), announce=False)
    board.bus.announce_insertion()
    board.bus.announce_removal()
    board.expect_state_for(State.NO_CARD, 2)
    assert board.transition is Transition.CARD_REMOVED
    assert messages(board)[1:] == START_RECORDS
    assert signal_names(board) == ["MemStateChanged", "CardInserted", "CardRemoved"]


def test_each_insertion_restarts_the_delay_of_one_second(board):
    board.start_service()
    board.insert(Card.formatted(), announce=False)
    for _ in range(12):
        last = time.monotonic()
        board.bus.announce_insertion()
        time.sleep(0.2)
    assert board.state is State.NO_CARD
    mounted = board.expect_signal("CardMounted").time
    assert mounted - last >= 1 - COARSE


def test_an_insertion_while_the_system_reboots_is_only_logged(board):
    board.set_runlevel(6)
    board.start_service()
    board.insert(Card.formatted())
    board.expect_record("ERROR", "sdcard", "Ignoring SD Card insert event because of System is rebooting",
                        source="sdcard")
    expect_mounted(board)
    assert board.transition is Transition.NONE


def announce_echo(board):
    """Announces a removal within three seconds after the format of a card that is then mounted.

    Returns how many records there were before the removal.
    """
    for _ in range(5):
        start_with_mounted_card(board, Card.as_bought())
        before = len(board.records)
        board.bus.announce_removal()
        if seconds_since_format(board) < 2.9:
            return before
        # This may be too late on a busy machine. The second removal is never an echo.
        board.bus.announce_removal()
        board.expect("the card is unmounted", lambda: board.mounts() == [])
        assert board.stop_service() == 0
        board.pull(announce=False)
    raise AssertionError("no card was mounted soon enough after its format")


def test_a_removal_within_three_seconds_of_a_format_changes_nothing(board):
    # A new partition causes events. Without this the hot-plug rule would report them.
    with board.unannounced():
        before = announce_echo(board)
        board.expect_state_for(State.MOUNTED, 0.5)
        assert board.transition is Transition.CARD_INSERTED
        board.bus.announce_insertion()
        board.expect_state_for(State.MOUNTED, 1.5)
        assert board.mounts() != []
        assert board.records[before:] == []
    eject(board)


def test_a_removal_later_than_three_seconds_after_a_format_unmounts_the_card(board):
    # A new partition causes events. Without this the hot-plug rule would report them.
    with board.unannounced():
        card = start_with_mounted_card(board, Card.as_bought())
        time.sleep(3.2)
        board.bus.announce_removal()
        board.expect_state(State.NO_CARD)
    assert board.transition is Transition.CARD_REMOVED
    assert board.mounts() == []
    board.expect_record("INFO", "sdcard", "Force unmount device (if not already)")
    assert card.is_clean()


@pytest.mark.parametrize("make", [Card.blank, Card.with_empty_table])
def test_a_card_without_a_partition_cannot_be_mounted(board, make):
    board.start_service()
    board.insert(make())
    board.expect_state(State.NOT_MOUNTABLE)
    assert messages(board, "ERROR", "St:Mounting") == [
        f"FDisk: Unable to get device path '{PARTITION_DEVICE}'", "SD Card MMC formatting failed (exit code: -1)"]
    take_out(board)
    assert board.stop_service() == 0


@pytest.mark.virtual  # a kernel that detects the changed table removes the partition
def test_a_card_whose_partition_table_cannot_be_read_cannot_be_mounted(board):
    board.replace_tool(FORMAT_SCRIPT)
    board.start_service()
    board.insert(Card.formatted(), announce=False)
    board.run("dd", "if=/dev/zero", f"of={CARD_DEVICE}", "count=1", check=True)
    board.bus.announce_insertion()
    board.expect_signal("CardNotMountable")
    board.expect_leds(LedPattern.NOT_MOUNTABLE)
    assert published(board) == (State.NOT_MOUNTABLE, Transition.CARD_INSERTED, False)
    assert messages(board, "ERROR", "St:Mounting") == [
        f"FDisk: Failed to read partition table of device '{CARD_DEVICE}'",
        "SD Card MMC formatting failed (exit code: -2)"]
    assert board.tool_calls("tavo-create-sdcardFS.sh") == []
    assert board.call("tavo.SDCard1", "RefreshMemState") == 2


def test_a_card_that_cannot_be_opened_cannot_be_mounted(make_board, program):
    board = make_board(program=program, media_config='<sdcard devicepath="/run/nodes/mmcblk0p1"/>')
    board.run("mkdir", "/run/nodes", check=True)
    board.run("ln", "-s", PARTITION_DEVICE, "/run/nodes", check=True)
    board.insert(Card.formatted())
    board.start_service()
    board.expect_state(State.NOT_MOUNTABLE)
    assert messages(board, "ERROR", "St:Mounting") == [
        "FDisk: Unable to open '/run/nodes/mmcblk0'", "SD Card MMC formatting failed (exit code: -1)"]
