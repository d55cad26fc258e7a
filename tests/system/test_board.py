"""The virtual board itself, on which the other tests rely."""

import os
from concurrent.futures import ThreadPoolExecutor

import pytest

from board import CARD_DEVICE, MOUNT_POINT, PARTITION_DEVICE, Card, LedPattern, VirtualBoard
from board.emulated import snapshot
from board.leftovers import remains_on_host
from board.log_records import parse_records
from board.names import EJECT_BUTTON, LED_DIRECTORY

pytestmark = pytest.mark.virtual  # tests the boards themselves: once is enough

MOUNT_COMMAND = f"mkdir {MOUNT_POINT} && mount -t ext4 {PARTITION_DEVICE} {MOUNT_POINT}"


def sh(board: VirtualBoard, script: str) -> str:
    return board.run("sh", "-c", script, check=True).stdout


def test_two_boards_side_by_side_do_not_see_each_other(make_board):
    one, other = make_board(), make_board()
    first, second = Card.formatted(), Card.formatted()
    one.insert(first)
    other.insert(second)
    sh(one, MOUNT_COMMAND + f" && echo one >{MOUNT_POINT}/name")
    sh(other, MOUNT_COMMAND + f" && echo other >{MOUNT_POINT}/name")
    assert one.read_file(f"{MOUNT_POINT}/name") == "one\n"
    assert other.read_file(f"{MOUNT_POINT}/name") == "other\n"
    one.start("sleep", "1234567")
    assert "sleep 1234567" in one.run("ps", "-e", "-o", "args").stdout
    assert "sleep 1234567" not in other.run("ps", "-e", "-o", "args").stdout
    one.write_file("/etc/only-here", "")
    assert not other.exists("/etc/only-here")
    assert not os.path.exists("/etc/only-here")


def test_a_closed_board_leaves_nothing_even_with_the_card_mounted_and_in_use(make_board):
    board = make_board()
    board.insert(Card.formatted())
    sh(board, MOUNT_COMMAND)
    board.hold_file_open(ignore_sigterm=True)
    board.start("setsid", "sh", "-c", "sleep 1000 & sleep 1000")
    assert remains_on_host(board.namespace, [board.card.name]) != []
    board.close()
    assert board.leftovers() == []


def test_the_host_environment_does_not_reach_the_board(bare_board, monkeypatch):
    monkeypatch.setenv("LEAK", "1")
    assert sorted(bare_board.run("env").stdout.splitlines()) == ["HOME=/", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"]


def test_a_card_in_the_slot_has_the_names_of_an_mmc_card(bare_board):
    bare_board.insert(Card.two_partitions())
    assert sh(bare_board, "ls /dev/mmcblk*").split() == [CARD_DEVICE, CARD_DEVICE + "p1", CARD_DEVICE + "p2"]
    assert sh(bare_board, "realpath /sys/class/block/mmcblk0p1/..") == "/sys/class/block/mmcblk0\n"
    assert sh(bare_board, "test -h /sys/bus/mmc/devices/mmc0:0001 && echo link") == "link\n"
    bare_board.pull()
    assert sh(bare_board, "cd /dev && ls -d mmc* /sys/class/block/* /sys/bus/mmc/devices/* 2>&1 | grep -vc 'No such file' || true") == "0\n"


def test_device_names_follow_a_repartitioning(bare_board):
    bare_board.insert(Card.two_partitions())
    sh(bare_board, f"echo 'start=2048, type=83' | sfdisk -q {CARD_DEVICE} && partx --update {CARD_DEVICE}")
    bare_board.expect("the second partition's node has gone", lambda: not bare_board.exists(CARD_DEVICE + "p2"))
    assert bare_board.exists(PARTITION_DEVICE)
    assert not bare_board.exists("/sys/class/block/mmcblk0p2")


def test_a_pulled_card_gives_errors_to_its_users_and_keeps_what_was_synced(bare_board):
    card = Card.formatted()
    bare_board.insert(card)
    sh(bare_board, MOUNT_COMMAND + f" && echo kept >{MOUNT_POINT}/kept && sync {MOUNT_POINT}/kept")
    bare_board.pull()
    assert bare_board.run("sh", "-c", f"echo lost >{MOUNT_POINT}/lost && sync {MOUNT_POINT}/lost").returncode != 0
    assert bare_board.run("dd", f"if={MOUNT_POINT}/../../dev/mmcblk0", "count=1").returncode != 0
    sh(bare_board, f"umount {MOUNT_POINT}")
    bare_board.insert(card)
    assert bare_board.run("e2fsck", "-p", PARTITION_DEVICE).returncode <= 1
    assert card.is_clean()
    assert "kept" in card.list_files()
    assert "lost" not in card.list_files()


def test_a_card_is_write_protected_by_its_switch(bare_board):
    card = Card.formatted()
    card.read_only = True
    bare_board.insert(card)
    assert bare_board.run("dd", "if=/dev/zero", f"of={PARTITION_DEVICE}", "count=1").returncode != 0


@pytest.mark.parametrize("make, kinds", [
    (Card.blank, []),
    (Card.with_empty_table, []),
    (Card.as_bought, ["c"]),
    (Card.formatted, ["83"]),
    (Card.two_partitions, ["c", "83"]),
    (Card.unmountable, ["83"]),
])
def test_cards_have_the_partitions_of_their_kind(make, kinds):
    assert [partition.kind for partition in make().partitions()] == kinds


@pytest.mark.parametrize("make, automatic, full", [
    (Card.formatted, 0, 0),
    (Card.lightly_damaged, 1, 0),
    (Card.damaged, 4, 1),
    (Card.unmountable, 8, 8),
])
def test_damaged_cards_need_the_repair_of_their_kind(bare_board, make, automatic, full):
    card = make()
    bare_board.insert(card)
    assert card.is_clean() == (automatic == 0)
    assert bare_board.run("e2fsck", "-p", PARTITION_DEVICE).returncode == automatic
    assert bare_board.run("e2fsck", "-f", "-y", PARTITION_DEVICE).returncode == full
    assert card.is_clean() == (full <= 1)


def test_a_copy_of_a_card_is_a_card_of_its_own():
    card = Card.formatted()
    twin = card.copy()
    card.write(twin.partitions()[0].offset, bytes(65536))
    assert twin.is_clean()
    assert not card.is_clean()


def test_a_replaced_tool_records_its_arguments_and_can_be_put_back(bare_board):
    bare_board.replace_tool("/usr/sbin/e2fsck", "echo broken >&2; exit 12")
    result = bare_board.run("e2fsck", "-p", "a b", "", "line\nbreak")
    assert (result.returncode, result.stderr) == (12, "broken\n")
    assert bare_board.tool_calls("e2fsck") == [["-p", "a b", "", "line\nbreak"]]
    bare_board.restore_tool("/usr/sbin/e2fsck")
    assert bare_board.run("e2fsck", "-V").returncode == 0
    assert len(bare_board.tool_calls("e2fsck")) == 1


def test_several_threads_may_wait_for_one_program(bare_board):
    for _ in range(20):
        process = bare_board.start("sleep", "0.05")
        with ThreadPoolExecutor() as threads:
            assert list(threads.map(lambda _: process.wait(), range(4))) == [0] * 4


def test_the_button_file_is_never_empty_while_it_changes(bare_board):
    watcher = bare_board.start("sh", "-c", "echo begins; until [ -e /run/board/enough ]; do "
                                           f"read -r value <{EJECT_BUTTON} || echo empty; done")
    bare_board.expect("the watcher", lambda: "begins" in watcher.output)
    for _ in range(200):
        bare_board.press_eject_button()
        bare_board.release_eject_button()
    bare_board.write_file("/run/board/enough", "")
    assert watcher.wait() == 0
    assert watcher.output == "begins\n"


# The service's writes, in order, starting with dark LEDs after power-on.
BUSY = ["mmc-green/brightness 0", "mmc-red/trigger timer", "mmc-red/delay_on 100", "mmc-red/delay_off 100"]
MOUNTED = ["mmc-green/brightness 0", "mmc-red/brightness 255", "mmc-red/trigger mmc0"]
UNMOUNTED = ["mmc-red/brightness 0", "mmc-green/brightness 255"]
NOT_MOUNTABLE = ["mmc-green/trigger timer", "mmc-red/brightness 0"]
OFF = ["mmc-green/brightness 0", "mmc-red/brightness 0"]


@pytest.mark.parametrize("writes, pattern", [
    (BUSY, LedPattern.BUSY),
    (BUSY + MOUNTED, LedPattern.MOUNTED),
    (BUSY + MOUNTED + BUSY + UNMOUNTED, LedPattern.UNMOUNTED),
    (BUSY + UNMOUNTED + OFF, LedPattern.OFF),
    (BUSY + UNMOUNTED + BUSY, LedPattern.BUSY),
    (BUSY + NOT_MOUNTABLE, LedPattern.NOT_MOUNTABLE),
    (BUSY + NOT_MOUNTABLE + OFF, LedPattern.OFF),
    (["mmc-red/brightness 255"], LedPattern.UNKNOWN),
    (["mmc-red/trigger timer"], LedPattern.UNKNOWN),
], ids=lambda value: value.name if isinstance(value, LedPattern) else None)
def test_led_patterns_are_recognised_from_the_writes(bare_board, writes, pattern):
    sh(bare_board, "\n".join(f"echo -n {value} >{LED_DIRECTORY}/{path}" for path, value in map(str.split, writes)))
    bare_board.expect_leds(pattern, within=10)


def test_log_records_are_read_with_all_their_parts():
    text = ("12:00:00.001|INFO|sdcard|sdcard|Sdcard::mounted|a | b\n"
            "12:00:00.002|ERROR|St:Mounting|StateMounting|ThreadMounting::run|two\nlines\n"
            "12:00:00.003|INFO|sdcard|sdcard|Sdcard::x|unfinished")
    records = parse_records(text)
    assert [(record.level, record.channel, record.message) for record in records] == [
        ("INFO", "sdcard", "a | b"), ("ERROR", "St:Mounting", "two\nlines")]
    assert records[1].function == "ThreadMounting::run"


def test_a_new_image_gets_a_new_snapshot(tmp_path):
    root = tmp_path / "root.ext4"
    root.write_text("")
    first = snapshot.state_name(tmp_path, None, 256)
    assert snapshot.state_name(tmp_path, None, 256) == first
    os.utime(root, ns=(1, 1))
    assert snapshot.state_name(tmp_path, None, 256) != first
