"""The helper of the udev rule on a board, called as udev calls it."""

import signal
import time

import pytest

from board import CARD_DEVICE, MOUNT_POINT, PARTITION_DEVICE, Board, Card, State
from board.process import Process
from conftest import ROOT
from steps import HELD_PROGRAM, HOLD, eject, expect_mounted, go_on

pytestmark = pytest.mark.installed

PLATFORM = ROOT / "platform"
HELPER = "/usr/lib/udev/tavo-sdcard-hotplug"
JOBS = "/opt/tavo/share/tavo-sdcard/preparing"
SETTINGS = "/etc/default/tavo-sdcard"
BUS_SECONDS = 10  # limit of the helper for a bus call
EVENT_SECONDS = 5  # waiting for a reply takes 25
MAKE_FILE_SYSTEM = "/usr/sbin/mke2fs"
PAUSE = "0.02"  # seconds between two checks of the helper
REMOVE_CARD = "tavo.SDCardController1.RemoveCard"


def bring_helper(board: Board) -> None:
    """Puts the helper on a board. None of its processes outlives its event."""
    board.write_file(HELPER, (PLATFORM / "tavo-sdcard-hotplug").read_text(), 0o755)
    write_settings(board)


def write_settings(board: Board, *settings: str) -> None:
    board.write_file(SETTINGS, "\n".join(("RESTART_WHEN_CORRUPTED=no", *settings, "")))


@pytest.fixture
def hotplug(make_board, program):
    """A board with the helper, which only the test calls."""
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
    """The number by which the kernel distinguishes the cards."""
    return board.run("sh", "-c", f"cat /sys/dev/block/$(stat -L --format=%Hr:%Lr {CARD_DEVICE})/diskseq",
                     check=True).stdout.strip()


def event(board: Board, action: str, device: str, number: str | None = None) -> float:
    """Reports a device event; returns how long it blocked udev, in seconds, divided by the board's patience."""
    kind = "disk" if device == CARD_DEVICE else "partition"
    variables = [f"ACTION={action}", f"DEVNAME={device}", f"DEVTYPE={kind}"]
    if number is not None:
        variables.append(f"DISKSEQ={number}")
    began = time.monotonic()
    result = board.run("env", *variables, HELPER)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    return (time.monotonic() - began) / board.patience


def start_event_without_partition(board: Board) -> Process:
    """Removes a card's partition and reports it. The helper then waits for the partition until announced_by()."""
    board.insert(Card.formatted(), announce=False)
    board.replace_tool("/usr/bin/dbus-send", "")
    board.replace_tool("/usr/bin/sleep", f'[ "$1" = {PAUSE} ] || exec "$ORIGINAL" "$@"; {HOLD}')
    board.run("partx", "--delete", "--nr", "1", CARD_DEVICE, check=True)
    helper = board.start("env", "ACTION=remove", f"DEVNAME={PARTITION_DEVICE}", "DEVTYPE=partition",
                         f"DISKSEQ={disk_number(board)}", HELPER)
    board.expect("the helper waits", lambda: pauses(board) == 1)
    return helper


def pauses(board: Board) -> int:
    """The number of the helper's waits for the partition."""
    return board.tool_calls("sleep").count([PAUSE])


def announced_by(board: Board, helper: Process) -> list[str]:
    """Ends the wait of the helper; returns the methods that it has called."""
    go_on(board)
    assert helper.wait(60) == 0
    return announced_methods(board)


def announced_methods(board: Board) -> list[str]:
    """The methods in the calls of the replaced dbus-send."""
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
    write_settings(hotplug, "CARD_DEVICE=/dev/sda")
    hotplug.start_service()
    event(hotplug, "add", PARTITION_DEVICE)
    event(hotplug, "remove", "/dev/sda1")
    hotplug.expect_signal("CardRemoved")
    assert announcements(hotplug) == ["CardRemoved"]


@pytest.mark.parametrize("swaps", [1, 4])
def test_a_burst_of_events_ends_with_the_state_of_the_slot(hotplug, swaps):
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
    for _ in range(swaps):
        take_out(hotplug, number)
        number = put_in(hotplug, Card.formatted())
    take_out(hotplug, number)
    hotplug.expect_state(State.NO_CARD)
    hotplug.expect_state_for(State.NO_CARD, 2)


def test_late_events_of_a_burst_end_with_the_card_in_the_slot(hotplug):
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


def test_a_partition_table_that_is_read_again_is_no_removal(hotplug):
    hotplug.start_service()
    number = put_in(hotplug, Card.formatted())
    hotplug.expect_signal("CardInserted")
    event(hotplug, "remove", PARTITION_DEVICE, number)
    event(hotplug, "add", PARTITION_DEVICE, number)
    hotplug.expect_state(State.MOUNTED, within=20)
    hotplug.expect_no_signal("CardRemoved")


def partition_comes_back(board):
    board.run("partx", "--add", "--nr", "1", CARD_DEVICE, check=True)


def card_goes(board):
    board.pull(announce=False)


def another_card_comes(board):
    board.pull(announce=False)
    board.insert(Card.formatted(), announce=False)
    board.expect("its partition", lambda: board.exists(PARTITION_DEVICE))


@pytest.mark.parametrize("change, announced, waits", [
    (partition_comes_back, [], 1), (lambda board: None, [REMOVE_CARD], 50), (card_goes, [REMOVE_CARD], 1),
    (another_card_comes, [REMOVE_CARD], 1)], ids=["comes back", "stays away", "card goes", "another card"])
def test_a_missing_partition_is_a_removal_after_50_looks_or_without_its_card(bare_hotplug, change, announced, waits):
    helper = start_event_without_partition(bare_hotplug)
    change(bare_hotplug)
    assert announced_by(bare_hotplug, helper) == announced
    assert pauses(bare_hotplug) == waits


def test_a_removal_is_announced_at_once_where_the_kernel_does_not_number_disks(bare_hotplug):
    bare_hotplug.insert(Card.formatted(), announce=False)
    bare_hotplug.replace_tool("/usr/bin/dbus-send", "")
    event(bare_hotplug, "remove", PARTITION_DEVICE)
    assert announced_methods(bare_hotplug) == [REMOVE_CARD]


def restart_in_foreground(board: Board) -> None:
    board.remove_file(SETTINGS)
    board.replace_tool("/usr/bin/setsid", 'shift; exec "$@"')
    board.replace_tool("/etc/init.d/sdcardd", "")


def corrupt(board: Board) -> str:
    """Inserts a card that the service calls corrupted."""
    restart_in_foreground(board)
    board.start_service()
    number = put_in(board, Card.unmountable())
    board.expect_state(State.CORRUPTED, within=20)
    return number


def test_a_service_is_restarted_when_its_corrupted_card_is_taken_out(hotplug):
    number = corrupt(hotplug)
    assert hotplug.tool_calls("sdcardd") == []
    take_out(hotplug, number)
    assert hotplug.tool_calls("sdcardd") == [["reset"]]
    hotplug.stop_service(signal.SIGKILL)


def test_a_service_is_restarted_when_its_check_fails_at_the_moment_of_the_removal(hotplug):
    number = corrupt(hotplug)
    hotplug.replace_tool("/usr/bin/dbus-send", """
        case "$*" in
            *string:State) [ -e /run/board/asked ] || { touch /run/board/asked; echo '   variant       int32 6'; exit; } ;;
        esac
        exec "$ORIGINAL" "$@" """)
    take_out(hotplug, number)
    assert hotplug.exists("/run/board/asked")
    assert hotplug.tool_calls("sdcardd") == [["reset"]]
    hotplug.stop_service(signal.SIGKILL)


def test_a_corrupted_service_is_not_restarted_if_so_configured(hotplug):
    number = corrupt(hotplug)
    write_settings(hotplug)
    take_out(hotplug, number)
    assert hotplug.tool_calls("setsid") == hotplug.tool_calls("sdcardd") == []
    hotplug.stop_service(signal.SIGKILL)


def test_another_removal_does_not_restart_the_service(hotplug):
    restart_in_foreground(hotplug)
    hotplug.start_service()
    number = put_in(hotplug, Card.formatted())
    expect_mounted(hotplug)
    take_out(hotplug, number)
    hotplug.expect_state(State.NO_CARD)
    assert hotplug.tool_calls("setsid") == [["--fork", HELPER, "restart"]]
    assert hotplug.tool_calls("sdcardd") == []


def no_service(board):
    pass


def no_bus(board):
    board.run("mv", "/run/dbus", "/run/dbus-gone", check=True)


@pytest.mark.parametrize("fault", [no_service, no_bus])
def test_udev_continues_without_the_service_or_the_bus(hotplug, fault):
    fault(hotplug)
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS
    assert event(hotplug, "remove", PARTITION_DEVICE) < EVENT_SECONDS


def test_udev_continues_when_the_service_does_not_answer(hotplug):
    # A helper that waits for a reply would wait this long.
    write_settings(hotplug, "BUS_SECONDS=60")
    service = hotplug.start_service()
    hotplug.run("kill", "-STOP", str(service.pid), check=True)
    assert event(hotplug, "remove", PARTITION_DEVICE) < EVENT_SECONDS
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS
    hotplug.run("kill", "-CONT", str(service.pid), check=True)
    hotplug.expect_signal("CardInserted")
    assert announcements(hotplug) == ["CardRemoved", "CardInserted"]


def test_udev_continues_when_the_bus_does_not_answer(hotplug):
    hotplug.replace_tool("/usr/bin/dbus-send", "sleep 600")
    assert event(hotplug, "add", PARTITION_DEVICE) < EVENT_SECONDS + BUS_SECONDS


def test_a_blank_card_is_formatted_in_the_background_even_if_it_replaces_another_and_is_then_announced(hotplug):
    hotplug.start_service()
    hotplug.replace_tool(MAKE_FILE_SYSTEM, HELD_PROGRAM)
    number = put_in(hotplug, Card.blank())
    hotplug.expect("mke2fs runs", lambda: hotplug.tool_calls("mke2fs") != [])
    take_out(hotplug, number)
    card = Card.blank()
    hotplug.insert(card, announce=False)
    assert event(hotplug, "add", CARD_DEVICE, disk_number(hotplug)) < EVENT_SECONDS
    assert event(hotplug, "change", CARD_DEVICE) < EVENT_SECONDS
    go_on(hotplug)
    hotplug.expect("a partition", lambda: hotplug.exists(PARTITION_DEVICE), within=20)
    event(hotplug, "add", PARTITION_DEVICE, disk_number(hotplug))
    hotplug.expect_state(State.MOUNTED, within=20)
    assert [partition.kind for partition in card.partitions()] == ["83"]
    hotplug.expect_no_record("New SD Card detected")


def open_file(board: Board) -> None:
    board.hold_file_open(f"{MOUNT_POINT}/export/held")


def working_directory(board: Board) -> None:
    holder = board.start("sh", "-c", f"cd {MOUNT_POINT}/export && echo there && exec sleep 100000")
    board.expect("the holder", lambda: "there" in holder.output)


def mounted_device(board: Board) -> str:
    return board.run("mountpoint", "-d", MOUNT_POINT).stdout.strip()


def expect_own_mount(board: Board, old: Card) -> None:
    """Checks that the card in the slot, and not the old one, is mounted and writable."""
    new = board.card
    expect_mounted(board)
    device = board.run("stat", "-L", "--format=%Hr:%Lr", PARTITION_DEVICE, check=True).stdout.strip()
    assert mounted_device(board) == device
    board.run("sh", "-c", f"echo new >{MOUNT_POINT}/new", check=True)
    eject(board)
    assert "new" in new.list_files() and "new" not in old.list_files()


# The kernel of a real slot refuses the file system of the next card (File exists) until the program lets go.
@pytest.mark.virtual
@pytest.mark.parametrize("hold", [open_file, working_directory])
def test_a_card_is_mounted_as_itself_after_one_that_was_pulled_while_in_use(hotplug, hold):
    hotplug.start_service()
    old = Card.formatted()
    number = put_in(hotplug, old)
    expect_mounted(hotplug)
    hold(hotplug)
    take_out(hotplug, number)
    hotplug.expect_state(State.NO_CARD)
    # udev's programs have their own mount namespace.
    hotplug.write_file(HELPER, f"#!/bin/sh\nexec unshare --mount --propagation private {HELPER}.real\n", 0o755)
    hotplug.write_file(f"{HELPER}.real", (PLATFORM / "tavo-sdcard-hotplug").read_text(), 0o755)
    assert mounted_device(hotplug) != ""
    put_in(hotplug, Card.formatted())
    expect_own_mount(hotplug, old)


def test_a_card_is_mounted_as_itself_after_one_that_was_pulled_while_it_was_prepared(hotplug):
    hotplug.write_file(f"{JOBS}/10-slow", f"#!/bin/sh\ncd {MOUNT_POINT}\ntouch /run/board/runs\n{HOLD}\n", 0o755)
    hotplug.start_service()
    old = Card.formatted()
    number = put_in(hotplug, old)
    hotplug.expect("the script runs", lambda: hotplug.exists("/run/board/runs"), within=20)
    take_out(hotplug, number)
    hotplug.expect_state(State.NO_CARD)
    put_in(hotplug, Card.formatted())
    go_on(hotplug)
    expect_own_mount(hotplug, old)


@pytest.mark.virtual  # as above
def test_only_a_dead_mount_at_the_mount_point_is_detached(hotplug):
    hotplug.replace_tool("/usr/bin/umount")
    number = put_in(hotplug, Card.formatted())
    hotplug.run("mkdir", "-p", "/mnt/other", MOUNT_POINT, check=True)
    hotplug.run("mount", "-o", "ro", PARTITION_DEVICE, "/mnt/other", check=True)
    hotplug.run("mount", "-t", "tmpfs", "none", MOUNT_POINT, check=True)
    hotplug.start("sh", "-c", "cd /mnt/other && exec sleep 100000")
    take_out(hotplug, number)
    put_in(hotplug, Card.formatted())
    hotplug.run("umount", MOUNT_POINT, check=True)
    hotplug.run("mount", PARTITION_DEVICE, MOUNT_POINT, check=True)
    event(hotplug, "add", PARTITION_DEVICE)
    assert hotplug.tool_calls("umount") == [[MOUNT_POINT]]
    hotplug.run("umount", "--lazy", "/mnt/other", check=True)
    hotplug.run("umount", MOUNT_POINT, check=True)


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
    """Runs the background program of the event."""
    board.run(HELPER, "format", check=True)


@pytest.mark.parametrize("make", [Card.as_bought, Card.formatted, Card.two_partitions, Card.unmountable,
                                  Card.with_empty_table, bare_file_system, swap_space, gpt_without_partitions])
def test_a_card_with_any_signature_is_left_alone(bare_hotplug, make):
    card = make()
    before = card.read(0, card.size)
    bare_hotplug.insert(card)
    format_now(bare_hotplug)
    assert card.read(0, card.size) == before
    assert bare_hotplug.system_log == []


def test_a_blank_card_is_left_alone_if_so_configured(hotplug):
    write_settings(hotplug, "FORMAT_BLANK_CARDS=no")
    hotplug.replace_tool("/usr/bin/setsid")
    hotplug.insert(Card.blank(), announce=False)
    event(hotplug, "add", CARD_DEVICE)
    assert hotplug.tool_calls("setsid") == []
    write_settings(hotplug, "FORMAT_BLANK_CARDS=yes")
    event(hotplug, "add", CARD_DEVICE)
    assert hotplug.tool_calls("setsid") == [["--fork", HELPER, "format"]]
    hotplug.expect("a partition", lambda: hotplug.exists(PARTITION_DEVICE))


def test_a_card_that_looks_blank_since_its_table_was_lost_keeps_its_file_system(bare_hotplug):
    card = Card.formatted()
    card.write(0, bytes(512))
    file_system = card.read(2048 * 512, card.size - 2048 * 512)
    bare_hotplug.insert(card)
    format_now(bare_hotplug)
    assert [partition.kind for partition in card.partitions()] == ["83"]
    assert card.read(2048 * 512, card.size - 2048 * 512) == file_system


def test_a_card_that_cannot_be_read_does_not_count_as_blank(bare_hotplug):
    bare_hotplug.replace_tool(MAKE_FILE_SYSTEM)
    bare_hotplug.replace_tool("/usr/bin/dd", "echo 'dd: Input/output error' >&2; exit 1")
    bare_hotplug.insert(Card.blank())
    format_now(bare_hotplug)
    assert bare_hotplug.tool_calls("mke2fs") == []
    bare_hotplug.expect("the reason in the system log",
                      lambda: any("Input/output error" in entry for entry in bare_hotplug.system_log))


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
