"""The MMC host, the LEDs' pins and the hot-plug events of the device's own kernel."""

import re
import time
from statistics import median

import pytest

from board import CARD_DEVICE, MOUNT_POINT, PARTITION_DEVICE, Card, LedPattern, State
from board.names import E2FSCK
from steps import HELD_PROGRAM, eject, expect_mounted, go_on, start_with_mounted_card, take_out

pytestmark = pytest.mark.emulated  # the other board has neither an MMC host nor pins

MIB = 1024 * 1024


def announcements(board):
    return [signal.name for signal in board.signals if signal.name in ("CardInserted", "CardRemoved")]


def watch_lights(board, seconds):
    """The states of both LEDs' pins over a time: (moment, red, green), read as often as possible."""
    seen = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        lights = board.led_pins()
        seen.append((time.monotonic(), lights["mmc-red"], lights["mmc-green"]))
        time.sleep(0.005)
    return seen


def changes(values):
    return sum(one != other for one, other in zip(values, values[1:]))


def lasting(seen):
    """The seconds of each on and off phase of the red LED in the result of watch_lights()."""
    moments = [now for (_, before, _), (now, red, _) in zip(seen, seen[1:]) if before != red]
    return [later - earlier for earlier, later in zip(moments, moments[1:])]


def test_the_kernels_events_alone_drive_a_new_cards_life(board):
    board.start_service()
    monitor = board.start("udevadm", "monitor", "--kernel", "--subsystem-match=block")
    board.expect("the monitor", lambda: "KERNEL" in monitor.output)
    card = Card.as_bought()
    board.insert(card)
    expect_mounted(board)
    # A new partition replaces the old one, which is not a removal of the card. This happens once or more, because udev
    # reads the table too. The monitor may be late.
    board.expect("the partition's events", lambda: re.fullmatch(
        "add(,remove,add)+", ",".join(re.findall(r"(add|remove) .*/mmcblk0p1 ", monitor.output))))
    assert set(announcements(board)) == {"CardInserted"}
    assert [partition.kind for partition in card.partitions()] == ["83"]
    assert f"{PARTITION_DEVICE} {MOUNT_POINT} ext4 rw" in board.mounts()[0]
    eject(board)
    assert board.led_pins() == {"mmc-red": False, "mmc-green": True}
    take_out(board)
    assert announcements(board)[-1] == "CardRemoved"
    assert announcements(board).count("CardRemoved") == 1
    assert board.led_pins() == {"mmc-red": False, "mmc-green": False}


def test_the_red_led_blinks_at_its_pin_while_the_card_is_checked(board):
    board.replace_tool(E2FSCK, HELD_PROGRAM)
    board.start_service()
    board.insert(Card.formatted())
    board.expect_leds(LedPattern.BUSY)

    def blinks():
        seen = watch_lights(board, 4)
        assert not any(green for _, _, green in seen)
        # 40 half periods. A busy machine may be late with some and miss others.
        return (25 <= changes([red for _, red, _ in seen]) <= 42
                and median(lasting(seen)) == pytest.approx(0.1, abs=0.015))
    board.expect("the red LED blinks every 100 ms", blinks)
    go_on(board)
    expect_mounted(board)


def test_the_red_led_shows_at_its_pin_that_the_card_is_busy(board):
    start_with_mounted_card(board)
    board.expect_leds(LedPattern.MOUNTED)
    board.run("sync", check=True)
    board.expect("the card at rest", lambda: not any(red for _, red, _ in watch_lights(board, 1)))
    writer = board.start("dd", "if=/dev/zero", f"of={MOUNT_POINT}/export/data", "bs=64k", "count=200", "oflag=sync")
    seen = watch_lights(board, 3)
    writer.wait(120)
    assert changes([red for _, red, _ in seen]) >= 2
    assert not any(green for _, _, green in seen)
    board.expect("the card at rest", lambda: not any(red for _, red, _ in watch_lights(board, 1)))


def test_the_boards_counters_change_when_the_card_is_read_and_only_then(bare_board):
    assert bare_board.card_counters() == ""
    bare_board.insert(Card.formatted())
    bare_board.settle()
    at_rest = bare_board.card_counters()
    assert bare_board.card_counters() == at_rest != ""
    bare_board.run("dd", f"if={CARD_DEVICE}", "of=/dev/null", "iflag=direct", "count=1", check=True)
    assert bare_board.card_counters() != at_rest
    bare_board.pull()
    assert bare_board.card_counters() == ""


def test_another_card_is_mounted_in_the_place_of_the_first(board):
    start_with_mounted_card(board)
    board.write_file(f"{MOUNT_POINT}/export/first", "")
    board.run("sync", check=True)
    board.pull()
    board.expect_state(State.NO_CARD)
    second = Card.as_bought(128)
    board.insert(second)
    expect_mounted(board)
    assert not board.exists(f"{MOUNT_POINT}/export/first")
    assert "I/O error" not in board.kernel_messages().rsplit("new high speed SD", 1)[1]
    eject(board)


def test_a_blank_card_is_formatted_and_mounted_when_it_is_put_in(make_board, program):
    board = make_board(program=program, format_blank_cards=True)
    board.start_service()
    card = Card.blank()
    board.insert(card, announce=None)
    expect_mounted(board)
    assert set(announcements(board)) == {"CardInserted"}
    assert [partition.kind for partition in card.partitions()] == ["83"]
    eject(board)


def test_a_blank_card_is_never_announced_when_the_installer_wants_it_left_alone(board):
    board.start_service()
    card = Card.blank()
    board.insert(card, announce=None)
    board.settle()
    board.expect_state_for(State.NO_CARD, 3)
    assert announcements(board) == []
    assert card.partitions() == []


def test_a_power_cut_while_files_are_written_loses_none_that_was_synced(board, make_board, program):
    card = start_with_mounted_card(board)
    writer = board.start("sh", "-c", f"i=0; while echo $i >{MOUNT_POINT}/export/$i && sync {MOUNT_POINT}/export/$i && "
                                     "echo $i; do i=$((i + 1)); done")
    board.expect("it writes", lambda: len(writer.output.split()) > 5)
    board.cut_power()
    synced = writer.output.split()
    header = card.run_tool("dumpe2fs", "-h", f"{card.path}?offset={card.partitions()[0].offset}").stdout
    assert "needs_recovery" in header, "nothing is left for the journal to recover"
    again = make_board(program=program, cold_start=True)
    start_with_mounted_card(again, card)
    names = again.run("ls", f"{MOUNT_POINT}/export", check=True).stdout.split()
    assert set(synced) <= set(names)
    assert again.read_file(f"{MOUNT_POINT}/export/{synced[-1]}") == synced[-1] + "\n"
    eject(again)


@pytest.mark.parametrize("gibibytes", [4, 64])
def test_sizes_of_large_cards_are_right_and_their_directories_kept_within_their_share(board, gibibytes):
    start_with_mounted_card(board, Card.formatted(gibibytes * 1024))
    def file_system():
        return map(int, board.run("stat", "-f", "-c", "%b %f %S", MOUNT_POINT, check=True).stdout.split())
    blocks, _, size = file_system()
    total = blocks * size
    assert total > gibibytes * 1024 * MIB * 0.9
    for name, share in (("csv", 0.3), ("export", 0.2)):
        # The service also computes with floating-point numbers; one byte may be lost by rounding.
        assert abs(board.call("tavo.SDCard1", "GetDirSize", name) - total * share) <= 1
    assert board.property("MemLevel") in (0, 1, 2)
    # Two fifths of the card, allocated but not written; the older half must be deleted.
    csv = f"{MOUNT_POINT}/csv"
    for name in ("old", "new"):
        board.run("fallocate", "-l", str(total // 5), f"{csv}/{name}", check=True)
    assert 2 * (total // 5) < board.call("tavo.SDCard1", "getDirUsed", "csv") < total // 2
    blocks, free, _ = file_system()
    board.call("tavo.SDCard1", "RefreshMemState")
    assert board.property("MemLevel") == -(-100 * (blocks - free) // blocks) >= 40
    board.call("tavo.SDCard1", "EnsureDirSize", "csv")
    assert board.run("ls", csv, check=True).stdout.split() == ["new"]
    assert total // 5 <= board.call("tavo.SDCard1", "getDirUsed", "csv") < total * 0.3
    eject(board)


def test_files_above_two_gibibytes_and_newer_than_2038_are_kept_within_their_share(board):
    card = Card.formatted(4096)
    start_with_mounted_card(board, card)
    csv = f"{MOUNT_POINT}/csv"
    # 30 % of the card is 1.2 GiB.
    board.run("fallocate", "-l", "2300M", f"{csv}/old", check=True)
    board.run("fallocate", "-l", "1M", f"{csv}/new", check=True)
    assert board.call("tavo.SDCard1", "getDirUsed", "csv") > 2300 * MIB
    eject(board)
    take_out(board)
    # 2030 and 2040
    card.edit_ext4("sif /csv/old ctime @1893456000", "sif /csv/new ctime @2208988800")
    board.insert(card)
    expect_mounted(board)
    board.call("tavo.SDCard1", "EnsureDirSize", "csv")
    assert board.run("ls", csv, check=True).stdout.split() == ["new"]
    eject(board)
