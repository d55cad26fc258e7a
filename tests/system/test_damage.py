"""Damaged, write-protected and already mounted cards; tools that fail or are missing."""

import signal

import pytest

from board import MOUNT_POINT, PARTITION_DEVICE, Card, LedPattern, State, Transition
from board.card import LINUX
from board.names import CARD_INTERFACE, E2FSCK, FORMAT_SCRIPT
from steps import eject, expect_mounted, messages, signal_names, start_with_mounted_card, take_out

pytestmark = pytest.mark.installed

CORRECTED = "Corrected some file system errors on SD Card!"
DEEP_CHECK = "Run deeply file system check"
CARD_OPTIONS = "noatime,data=journal,nodelalloc,journal_checksum"


def with_two_linux_partitions():
    """A card with a mountable first partition and one partition too many."""
    card = Card(64)
    card.partition(LINUX, LINUX)
    card.make_ext4(1)
    return card


def mount_by_hand(board, options):
    board.run("mkdir", "-p", MOUNT_POINT, check=True)
    board.run("mount", "-t", "ext4", "-o", options, PARTITION_DEVICE, MOUNT_POINT, check=True)


@pytest.mark.parametrize("make, is_corrected", [(Card.formatted, False), (Card.lightly_damaged, True)])
def test_an_intact_or_lightly_damaged_card_is_checked_once(board, make, is_corrected):
    board.replace_tool(E2FSCK)
    start_with_mounted_card(board, make())
    assert board.tool_calls("e2fsck") == [["-p", PARTITION_DEVICE]]
    assert [(record.level, record.channel, record.source, record.function) for record in board.records
            if record.message == CORRECTED] == [
        ("INFO", "St:Mounting", "StateMounting", "ThreadMounting::mountDevice")] * is_corrected
    eject(board)


def test_heavy_damage_is_repaired_by_the_full_check(board):
    board.replace_tool(E2FSCK)
    start_with_mounted_card(board, Card.damaged())
    assert board.tool_calls("e2fsck") == [["-p", PARTITION_DEVICE], ["-f", "-y", "-v", "-c", PARTITION_DEVICE]]
    said = messages(board, channel="St:Mounting")
    assert said[:3] == ["SD Card Linux Ext4 format is ok", DEEP_CHECK,
                        f"Executing 'e2fsck -f -y -v -c {PARTITION_DEVICE}'..."]
    assert said[-2:] == ["Pass2 check result: 1", CORRECTED]
    assert any("FILE SYSTEM WAS MODIFIED" in message for message in said)
    eject(board)


@pytest.mark.lasts(15)
def test_a_card_that_cannot_be_repaired_is_corrupted_until_the_service_is_killed(board):
    card = Card.unmountable()
    board.insert(card)
    board.start_service()
    board.expect_state(State.CORRUPTED)
    board.expect_leds(LedPattern.BUSY)
    board.expect_record("ERROR", "sdcard", "Corrupted SD Card detected", source="sdcard", function="Sdcard::corrupted")
    said = messages(board, channel="St:Mounting")
    assert "Pass2 check result: 8" in said
    assert said[-1] == "Mount failed: Invalid argument"
    assert not board.exists(MOUNT_POINT)
    assert (board.property("MemState"), board.property("MemLevel"), board.property("IsMounted")) == (2, 0, False)
    assert board.call(CARD_INTERFACE, "RefreshMemState") == 2
    # Only memory state and state report this to clients.
    assert ("MemStateChanged", 2) in [(sent.name, *sent.arguments) for sent in board.signals]
    assert not {"CardCorrupt", "CardMounted", "CardNotMountable"} & set(signal_names(board))
    assert board.transition is Transition.CARD_INSERTED

    board.pull()
    board.expect_transition(Transition.CARD_REMOVED)
    board.insert(Card.formatted())
    board.expect_transition(Transition.CARD_INSERTED)
    board.service.send_signal(signal.SIGTERM)
    board.service.send_signal(signal.SIGHUP)
    board.expect_state_for(State.CORRUPTED, 4)
    assert board.service.running
    board.expect_leds(LedPattern.BUSY)
    assert board.stop_service(signal.SIGKILL) == -signal.SIGKILL
    assert board.mounts() == []


def test_a_write_protected_card_is_corrupted(board):
    card = Card.formatted()
    card.read_only = True
    board.insert(card)
    board.start_service()
    board.expect_state(State.CORRUPTED)
    assert messages(board, channel="St:Mounting")[-1].startswith("Mount failed: ")
    assert not board.exists(MOUNT_POINT)
    board.stop_service(signal.SIGKILL)


@pytest.mark.parametrize("first, calls", [(0, 1), (1, 1), (2, 2), (4, 2), (8, 2), (32, 2)])
def test_a_second_check_follows_from_code_2_on_and_the_mount_in_any_case(board, first, calls):
    board.replace_tool(E2FSCK, f"[ $1 = -p ] && exit {first}\necho found; echo trouble >&2; exit 4")
    start_with_mounted_card(board)
    assert len(board.tool_calls("e2fsck")) == calls
    corrected = first == 1 and calls == 1
    assert (CORRECTED in messages(board)) == corrected
    if calls == 2:
        board.expect_record("INFO", "St:Mounting", "found", source="sdcard")
        board.expect_record("ERROR", "St:Mounting", "trouble", source="sdcard")
        board.expect_record("INFO", "St:Mounting", "Pass2 check result: 4", source="StateMounting",
                            function="ThreadMounting::checkAndRepairFS")


def test_an_e2fsck_that_is_missing_or_crashes_does_not_keep_the_card_from_being_mounted(board):
    board.remove_tool(E2FSCK)
    card = start_with_mounted_card(board)
    assert messages(board, channel="St:Mounting") == [
        "SD Card Linux Ext4 format is ok", "Starting command failed (exitstatus:0)", CORRECTED]
    eject(board)
    take_out(board)
    board.replace_tool(E2FSCK, "kill -SEGV $$")
    board.insert(card)
    expect_mounted(board)
    assert any(message.startswith("QProcess::CrashExit: ") for message in messages(board, "ERROR", "St:Mounting"))


def test_a_read_only_mount_of_the_card_is_made_writable(board):
    card = Card.formatted()
    board.insert(card)
    mount_by_hand(board, "ro," + CARD_OPTIONS)
    board.replace_tool(E2FSCK)
    board.start_service()
    expect_mounted(board)
    assert "rw" in board.mounts()[0].split()[3].split(",")
    assert board.tool_calls("e2fsck") == []
    board.expect_signal("CardMounted")
    assert board.exists(f"{MOUNT_POINT}/logger")
    eject(board)


@pytest.mark.leaves_card_mounted
def test_a_read_only_mount_that_cannot_be_made_writable_is_not_mountable(board):
    board.insert(Card.formatted())
    mount_by_hand(board, "ro")
    board.start_service()
    board.expect_state(State.NOT_MOUNTABLE)
    assert messages(board, "ERROR") == ["Mount failed: Invalid argument"]
    board.expect_signal("CardNotMountable")
    board.expect_no_record("Corrupted")


def test_a_service_started_on_a_mounted_card_takes_it_as_it_is(board):
    card = Card.formatted()
    board.insert(card)
    mount_by_hand(board, CARD_OPTIONS)
    board.replace_tool(E2FSCK)
    board.replace_tool(FORMAT_SCRIPT)
    board.start_service()
    expect_mounted(board)
    assert board.tool_calls("e2fsck") == [] and board.tool_calls("tavo-create-sdcardFS.sh") == []
    assert not board.exists(f"{MOUNT_POINT}/logger")
    assert messages(board, channel="sdcard")[-3:] == ["SD Card is already present", "Eject button timer started",
                                                      "SD Card is successfully mounted"]
    assert LedPattern.BUSY not in [pattern for _, pattern in board.led_panel.history]
    eject(board)


def test_a_service_started_again_after_a_kill_finds_its_card_mounted(board):
    card = start_with_mounted_card(board)
    board.stop_service(signal.SIGKILL)
    assert len(board.mounts()) == 1
    board.start_service()
    expect_mounted(board)
    eject(board)
    assert card.is_clean()


def test_a_file_in_the_mount_points_place_makes_the_card_not_mountable(board):
    board.write_file(MOUNT_POINT, "")
    board.insert(Card.formatted())
    board.start_service()
    board.expect_state(State.NOT_MOUNTABLE)
    assert messages(board, "ERROR") == []
    board.expect_signal("CardNotMountable")
    board.remove_file(MOUNT_POINT)


@pytest.mark.parametrize("status, said", [
    (0, "SD Card Linux Ext4 format is ok"), (99, "SD Card Linux Ext4 format was new initialized")])
def test_a_card_that_the_format_script_calls_ready_is_mounted(board, status, said):
    board.replace_tool(FORMAT_SCRIPT, f"exit {status}")
    start_with_mounted_card(board, with_two_linux_partitions())
    assert board.tool_calls("tavo-create-sdcardFS.sh") == [[]]
    assert messages(board, channel="St:Mounting") == [
        "New SD Card detected", f"Executing '{FORMAT_SCRIPT}'...", said]


@pytest.mark.parametrize("status, errors", [
    (1, ["no room", "SD Card MMC formatting failed (exit code: 1)"]),
    (100, ["no room", "SD Card MMC formatting failed (exit code: 100)"]),
    (None, ["Starting command failed (exitstatus:0)", "SD Card MMC formatting failed (exit code: -1)"]),
])
def test_a_format_script_that_fails_or_is_missing_makes_the_card_not_mountable(board, status, errors):
    if status is None:
        board.remove_tool(FORMAT_SCRIPT)
    else:
        board.replace_tool(FORMAT_SCRIPT, f"echo no room >&2; exit {status}")
    board.insert(Card.as_bought())
    board.start_service()
    board.expect_state(State.NOT_MOUNTABLE)
    board.expect_leds(LedPattern.NOT_MOUNTABLE)
    assert messages(board, "ERROR", "St:Mounting") == errors
    assert signal_names(board).count("CardNotMountable") == 1
    assert board.property("IsMounted") is False
    take_out(board)
    board.insert(Card.formatted())
    expect_mounted(board)
