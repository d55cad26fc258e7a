"""The helper of udev's rule on a board, called as udev calls it."""

import time

import pytest

from board import CARD_DEVICE, PARTITION_DEVICE, Board, Card, State
from board.process import Process
from conftest import ROOT
from steps import HELD_PROGRAM, HOLD, go_on

pytestmark = pytest.mark.installed

PLATFORM = ROOT / "platform"
HELPER = "/usr/lib/udev/tavo-sdcard-hotplug"
SETTINGS = "/etc/default/tavo-sdcard"
BUS_SECONDS = 10  # that the helper gives the bus
EVENT_SECONDS = 5  # a wait for an answer takes 25
MAKE_FILE_SYSTEM = "/usr/sbin/mke2fs"
PAUSE = "0.02"  # seconds, between two looks of the helper
REMOVE_CARD = "tavo.SDCardController1.RemoveCard"


def bring_helper(board: Board) -> None:
    """Puts the helper on a board, with no settings but its own."""
    board.write_file(HELPER, (PLATFORM / "tavo-sdcard-hotplug").read_text(), 0o755)
    board.remove_file(SETTINGS)


@pytest.fixture
def hotplug(make_board, program):
    """A board with the helper on it, which nobody but the test calls."""
    board = make_board(program=program)
    bring_helper(board)
    with board.unannounced():
        yield board


@pytest.fixture
def bare_hotplug(bare_board):
    """The same without the service."""
    bring_helper(bare_board)
    with bare_board.unannounced():
        yield bare_board


def disk_number(board: Board) -> str:
    """What tells one card from the next, as the kernel counts them."""
    return board.run("sh", "-c", f"cat /sys/dev/block/$(stat -L --format=%Hr:%Lr {CARD_DEVICE})/diskseq",
                     check=True).stdout.strip()


def event(board: Board, action: str, device: str, number: str | None = None) -> float:
    """Reports a device event; returns how long that kept udev, in seconds, divided by the board's patience."""
    kind = "disk" if device == CARD_DEVICE else "partition"
    variables = [f"ACTION={action}", f"DEVNAME={device}", f"DEVTYPE={kind}"]
    if number is not None:
        variables.append(f"DISKSEQ={number}")
    began = time.monotonic()
    result = board.run("env", *variables, HELPER)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    return (time.monotonic() - began) / board.patience


def start_event_without_partition(board: Board) -> Process:
    """Takes a card's partition away, reports that, and returns while the helper waits for it until told_by()."""
    board.insert(Card.formatted(), announce=False)
    board.replace_tool("/usr/bin/dbus-send", "")
    board.replace_tool("/usr/bin/sleep", f'[ "$1" = {PAUSE} ] || exec "$ORIGINAL" "$@"; {HOLD}')
    board.run("partx", "--delete", "--nr", "1", CARD_DEVICE, check=True)
    helper = board.start("env", "ACTION=remove", f"DEVNAME={PARTITION_DEVICE}", "DEVTYPE=partition",
                         f"DISKSEQ={disk_number(board)}", HELPER)
    board.expect("the helper waits", lambda: pauses(board) == 1)
    return helper


def pauses(board: Board) -> int:
    """How often the helper has waited for the partition."""
    return board.tool_calls("sleep").count([PAUSE])


def told_by(board: Board, helper: Process) -> list[str]:
    """Lets the waiting helper go on to its end; what it has told the service then."""
    go_on(board)
    assert helper.wait(60) == 0
    return announced_methods(board)


def announced_methods(board: Board) -> list[str]:
    """What the replaced dbus-send was to call."""
    return [call[-1] for call in board.tool_calls("dbus-send")]


def put_in(board: Board, card: Card) -> str:
    """Inserts a card with the events that the kernel then reports."""
    board.insert(card, announce=False)
    number = disk_number(board)
    event(board, "add", CARD_DEVICE, number)
    if board.exists(PARTITION_DEVICE):
        event(board, "add", PARTITION_DEVICE, number)
    return number


def take_out(board: Board, number: str) -> None:
    """Pulls a card with the events that the kernel then reports."""
    had_partition = board.exists(PARTITION_DEVICE)
    board.pull(announce=False)
    if had_partition:
        event(board, "remove", PARTITION_DEVICE, number)
    event(board, "remove", CARD_DEVICE, number)


def announcements(board: Board) -> list[str]:
    return [signal.name for signal in board.signals if signal.name in ("CardInserted", "CardRemoved")]


def test_a_card_that_is_put_in_and_taken_out_is_announced_once_each(hotplug):
    hotplug.start_service()
    number = put_in(hotplug, Card.formatted())
    hotplug.expect_state(State.MOUNTED, within=20)
    take_out(hotplug, number)
    hotplug.expect_state(State.NO_CARD)
    assert announcements(hotplug) == ["CardInserted", "CardRemoved"]


def test_other_devices_are_not_announced(hotplug):
    hotplug.start_service()
    for device in ("/dev/mmcblk0p2", "/dev/mmcblk0p10", "/dev/mmcblk1", "/dev/mmcblk1p1", "/dev/mmcblk0boot0",
                   "/dev/sda1", CARD_DEVICE):
        for action in ("add", "remove", "change"):
            event(hotplug, action, device)
    for action in ("change", "bind", "move"):
        event(hotplug, action, PARTITION_DEVICE)
    event(hotplug, "add", PARTITION_DEVICE)
    hotplug.expect_signal("CardInserted")
    assert announcements(hotplug) == ["CardInserted"]


def test_the_card_is_the_one_that_the_settings_name(hotplug):
    hotplug.write_file(SETTINGS, "CARD_DEVICE=/dev/sda\n")
    hotplug.start_service()
    event(hotplug, "add", PARTITION_DEVICE)
    event(hotplug, "remove", "/dev/sda1")
    hotplug.expect_signal("CardRemoved")
    assert announcements(hotplug) == ["CardRemoved"]


@pytest.mark.parametrize("swaps", [1, 4])
def test_a_burst_ends_with_the_card_that_is_in_the_slot(hotplug, swaps):
    hotplug.start_service()
    number = put_in(hotplug, Card.formatted())
    for _ in range(swaps):
        take_out(hotplug, number)
        card = Card.formatted()
        number = put_in(hotplug, card)
    hotplug.expect("every announcement in its order", lambda: announcements(hotplug) == [
        "CardInserted", *["CardRemoved", "CardInserted"] * swaps])
    hotplug.expect_state(State.MOUNTED, within=20)
    hotplug.write_file("/media/sdcard/here", "")
    hotplug.press_eject_button()
    hotplug.expect_state(State.UNMOUNTED, within=10)
    assert "here" in card.list_files()


def test_a_burst_that_ends_with_a_removal_ends_without_a_card(hotplug):
    hotplug.start_service()
    for _ in range(3):
        take_out(hotplug, put_in(hotplug, Card.formatted()))
    hotplug.expect_state(State.NO_CARD)
    hotplug.expect_state_for(State.NO_CARD, 2)


def test_late_events_of_a_burst_still_end_with_the_card_that_is_in_the_slot(hotplug):
    hotplug.start_service()
    hotplug.insert(Card.formatted(), announce=False)
    first = disk_number(hotplug)
    hotplug.pull(announce=False)
    hotplug.insert(Card.formatted(), announce=False)
    second = disk_number(hotplug)
    event(hotplug, "add", PARTITION_DEVICE, first)
    event(hotplug, "remove", PARTITION_DEVICE, first)
    event(hotplug, "add", PARTITION_DEVICE, second)
    hotplug.expect_state(State.MOUNTED, within=20)
    assert announcements(hotplug) == ["CardInserted", "CardRemoved", "CardInserted"]


def test_a_table_that_is_read_anew_is_no_removal(hotplug):
    hotplug.start_service()
    number = put_in(hotplug, Card.formatted())
    hotplug.expect_signal("CardInserted")
    event(hotplug, "remove", PARTITION_DEVICE, number)
    event(hotplug, "add", PARTITION_DEVICE, number)
    hotplug.expect_state(State.MOUNTED, within=20)
    hotplug.expect_no_signal("CardRemoved")


def test_a_partition_that_comes_back_only_after_its_event_is_no_removal(bare_hotplug):
    helper = start_event_without_partition(bare_hotplug)
    bare_hotplug.run("partx", "--add", "--nr", "1", CARD_DEVICE, check=True)
    assert told_by(bare_hotplug, helper) == []


def test_a_partition_that_does_not_come_back_for_50_looks_is_a_removal(bare_hotplug):
    helper = start_event_without_partition(bare_hotplug)
    assert told_by(bare_hotplug, helper) == [REMOVE_CARD]
    assert pauses(bare_hotplug) == 50


def test_a_card_that_goes_after_its_partition_is_a_removal_at_once(bare_hotplug):
    helper = start_event_without_partition(bare_hotplug)
    bare_hotplug.pull(announce=False)
    assert told_by(bare_hotplug, helper) == [REMOVE_CARD]
    assert pauses(bare_hotplug) == 1


def test_another_card_put_in_while_the_partition_is_waited_for_is_a_removal(bare_hotplug):
    helper = start_event_without_partition(bare_hotplug)
    bare_hotplug.pull(announce=False)
    bare_hotplug.insert(Card.formatted(), announce=False)
    bare_hotplug.expect("its partition", lambda: bare_hotplug.exists(PARTITION_DEVICE))
    assert told_by(bare_hotplug, helper) == [REMOVE_CARD]


def test_a_removal_is_told_at_once_where_the_kernel_does_not_number_disks(bare_hotplug):
    bare_hotplug.insert(Card.formatted(), announce=False)
    bare_hotplug.replace_tool("/usr/bin/dbus-send", "")
    event(bare_hotplug, "remove", PARTITION_DEVICE)
    assert announced_methods(bare_hotplug) == [REMOVE_CARD]


def test_udev_goes_on_when_the_service_does_not_run(hotplug):
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS
    assert event(hotplug, "remove", PARTITION_DEVICE) < EVENT_SECONDS


def test_udev_goes_on_when_there_is_no_bus(hotplug):
    hotplug.run("mv", "/run/dbus", "/run/dbus-gone", check=True)
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS


def test_udev_goes_on_when_the_service_does_not_answer(hotplug):
    # Who waited for an answer would wait long.
    hotplug.write_file(SETTINGS, "BUS_SECONDS=60\n")
    service = hotplug.start_service()
    hotplug.run("kill", "-STOP", str(service.pid), check=True)
    assert event(hotplug, "remove", PARTITION_DEVICE) < EVENT_SECONDS
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS
    hotplug.run("kill", "-CONT", str(service.pid), check=True)
    hotplug.expect_signal("CardInserted")
    assert announcements(hotplug) == ["CardRemoved", "CardInserted"]


def test_udev_goes_on_when_the_bus_does_not_answer(hotplug):
    hotplug.replace_tool("/usr/bin/dbus-send", "sleep 600")
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS + BUS_SECONDS


def test_a_blank_card_is_formatted_and_then_announced(hotplug):
    hotplug.start_service()
    card = Card.blank()
    assert put_in(hotplug, card)
    hotplug.expect("a partition", lambda: hotplug.exists(PARTITION_DEVICE))
    event(hotplug, "add", PARTITION_DEVICE, disk_number(hotplug))
    hotplug.expect_state(State.MOUNTED, within=20)
    assert [partition.kind for partition in card.partitions()] == ["83"]
    hotplug.expect_no_record("New SD Card detected")


def test_udev_goes_on_while_a_blank_card_is_formatted(hotplug):
    hotplug.replace_tool(MAKE_FILE_SYSTEM, HELD_PROGRAM)
    hotplug.insert(Card.blank(), announce=False)
    assert event(hotplug, "add", CARD_DEVICE) < EVENT_SECONDS
    hotplug.expect("mke2fs runs", lambda: hotplug.tool_calls("mke2fs") != [])
    assert event(hotplug, "change", CARD_DEVICE) < EVENT_SECONDS
    go_on(hotplug)
    hotplug.expect("a partition", lambda: hotplug.exists(PARTITION_DEVICE))


def bare_file_system() -> Card:
    card = Card.blank()
    card.run_tool("mkfs.ext4", "-q", "-F", card.path)
    return card


def swap_space() -> Card:
    card = Card.blank()
    card.run_tool("mkswap", card.path)
    return card


def gpt_without_partitions() -> Card:
    card = Card.blank()
    card.run_tool("sfdisk", "--quiet", card.path, standard_input="label: gpt\n")
    return card


def format_now(board: Board) -> None:
    """What the event starts in the background, to its end."""
    board.run(HELPER, "format", check=True)


@pytest.mark.parametrize("make", [Card.as_bought, Card.formatted, Card.two_partitions, Card.unmountable,
                                  Card.with_empty_table, bare_file_system, swap_space, gpt_without_partitions])
def test_a_card_on_which_anything_is_found_is_left_alone(bare_hotplug, make):
    card = make()
    before = card.read(0, card.size)
    bare_hotplug.insert(card)
    format_now(bare_hotplug)
    assert card.read(0, card.size) == before
    assert bare_hotplug.system_log == []


def test_a_blank_card_is_left_alone_when_the_installer_wants_so(hotplug):
    hotplug.write_file(SETTINGS, "FORMAT_BLANK_CARDS=no\n")
    hotplug.replace_tool("/usr/bin/setsid")
    hotplug.insert(Card.blank(), announce=False)
    event(hotplug, "add", CARD_DEVICE)
    assert hotplug.tool_calls("setsid") == []
    hotplug.write_file(SETTINGS, "FORMAT_BLANK_CARDS=yes\n")
    event(hotplug, "add", CARD_DEVICE)
    assert hotplug.tool_calls("setsid") == [["--fork", HELPER, "format"]]
    hotplug.expect("a partition", lambda: hotplug.exists(PARTITION_DEVICE))


def test_a_card_that_cannot_be_read_does_not_pass_for_a_blank_one(bare_hotplug):
    bare_hotplug.replace_tool(MAKE_FILE_SYSTEM)
    bare_hotplug.replace_tool("/usr/bin/dd", "echo 'dd: Input/output error' >&2; exit 1")
    bare_hotplug.insert(Card.blank())
    format_now(bare_hotplug)
    assert bare_hotplug.tool_calls("mke2fs") == []
    bare_hotplug.expect("the reason in the system log",
                      lambda: any("Input/output error" in entry for entry in bare_hotplug.system_log))


def test_a_blank_card_that_replaces_another_is_formatted_too(hotplug):
    hotplug.replace_tool(MAKE_FILE_SYSTEM, HELD_PROGRAM)
    number = put_in(hotplug, Card.blank())
    hotplug.expect("mke2fs runs", lambda: hotplug.tool_calls("mke2fs") != [])
    take_out(hotplug, number)
    second = Card.blank()
    put_in(hotplug, second)
    go_on(hotplug)
    hotplug.expect("a partition", lambda: hotplug.exists(PARTITION_DEVICE), within=20)
    assert [partition.kind for partition in second.partitions()] == ["83"]


def test_the_rule_runs_the_helper_for_block_devices_that_come_and_go(bare_board):
    rule = (PLATFORM / "60-tavo-sdcard.rules").read_text()
    assert 'KERNEL=="mmcblk*"' in rule
    disk = bare_board.run("ls", "/sys/block", check=True).stdout.split()[0]
    bare_board.write_file("/run/udev/rules.d/60-tavo-sdcard.rules", rule.replace("mmcblk*", disk))
    bare_board.write_file(HELPER, "#!/bin/sh\n", 0o755)

    def what_runs(action: str, device: str) -> list[str]:
        result = bare_board.run("udevadm", "test", f"--action={action}", device, check=True)
        output = result.stdout + result.stderr
        assert "Reading rules file: /run/udev/rules.d/60-tavo-sdcard.rules" in output
        return [line.split(" ", 2)[2] for line in output.splitlines() if "60-tavo-sdcard.rules:" in line]
    for action in ("add", "remove"):
        assert what_runs(action, f"/sys/block/{disk}") == ["RUN 'tavo-sdcard-hotplug'"]
        assert what_runs(action, "/sys/class/net/lo") == []
    assert what_runs("change", f"/sys/block/{disk}") == []
