"""The format script on a board, run as the service runs it: without arguments."""

import subprocess
import time

import pytest

from board import CARD_DEVICE, MOUNT_POINT, PARTITION_DEVICE, Board, Card, Process
from board.card import LINUX
from board.names import FORMAT_SCRIPT
from steps import HOLD, eject, expect_mounted, go_on

pytestmark = pytest.mark.installed

NOTHING_TO_DO, MADE_FILE_SYSTEM, FAILED = 0, 99, 1
MOUNT_OPTIONS = "data=journal,nodelalloc,journal_checksum"


MAKE_FILE_SYSTEM = '"$ORIGINAL" "$@"'
CHECKSUM = 0x3FC  # in the superblock of ext4
WAIT = f"touch /run/board/waiting; {HOLD}"


def start_formatting(board: Board, mke2fs: str) -> Process:
    """Starts the script with mke2fs replaced by this body, and returns when it waits."""
    board.replace_tool("/usr/sbin/mke2fs", mke2fs)
    formatting = board.start(FORMAT_SCRIPT)
    board.expect("mke2fs waits", lambda: board.exists("/run/board/waiting"))
    return formatting


def format_card(board: Board, *arguments: str) -> subprocess.CompletedProcess:
    return board.run(FORMAT_SCRIPT, *arguments)


def assert_ready(board: Board, card: Card) -> None:
    assert [partition.kind for partition in card.partitions()] == ["83"]
    assert card.is_clean(), card.check().stdout
    board.run("mkdir", "-p", MOUNT_POINT, check=True)
    board.run("mount", "-t", "ext4", "-o", MOUNT_OPTIONS, PARTITION_DEVICE, MOUNT_POINT, check=True)
    board.run("umount", MOUNT_POINT, check=True)


def two_linux_partitions() -> Card:
    card = Card(size_mib=64)
    card.partition(LINUX, LINUX)
    card.make_ext4(1)
    card.make_ext4(2)
    return card


def card_with_gpt() -> Card:
    card = Card.blank()
    card.run_tool("sfdisk", "--quiet", card.path, standard_input="label: gpt\nsize=20MiB\nsize=20MiB\n")
    return card


@pytest.mark.parametrize("make, found", [
    (Card.as_bought, "vfat"), (Card.two_partitions, "vfat"), (Card.blank, "no file system"),
    (Card.with_empty_table, "no file system"), (Card.unmountable, "no file system"), (card_with_gpt, "no file system")])
def test_a_foreign_card_is_made_ready_to_mount(bare_board, make, found):
    card = make()
    bare_board.insert(card)
    result = format_card(bare_board)
    assert (result.returncode, result.stderr) == (MADE_FILE_SYSTEM, "")
    assert result.stdout == f"Making an ext4 file system on {CARD_DEVICE} (64 MiB), which holds {found}\n"
    assert_ready(bare_board, card)
    bare_board.expect("no second node", lambda: not bare_board.exists(CARD_DEVICE + "p2"))
    assert format_card(bare_board).returncode == NOTHING_TO_DO


# In the first entry of the partition table: status, type, start and size.
ENTRY_BYTES = (0, 4, *range(8, 16))
TABLE, ENTRIES, SIGNATURE = 446, 64, 510


def flip(card: Card, offset: int, bit: int) -> None:
    [byte] = card.read(offset, 1)
    card.write(offset, bytes([byte ^ 1 << bit]))


def data_of(card: Card) -> bytes:
    return card.read(2048 * 512, card.size - 2048 * 512)


def assert_repaired(board: Board, card: Card, start: int, sectors: int) -> None:
    """Checks that the script keeps the file system and repairs its table."""
    data = data_of(card)
    board.insert(card)
    result = format_card(board)
    assert (result.returncode, result.stderr) == (NOTHING_TO_DO, "")
    assert result.stdout == f"Repairing the partition table of {CARD_DEVICE}, which holds ext4 at sector {start}\n"
    assert [(partition.offset // 512, partition.size // 512, partition.kind) for partition in card.partitions()] == [
        (start, sectors, "83")]
    assert data_of(card) == data
    assert_ready(board, card)
    result = format_card(board)
    assert (result.returncode, result.stdout) == (NOTHING_TO_DO, "")
    board.pull()


@pytest.mark.parametrize("offset", ENTRY_BYTES)
def test_a_flipped_bit_in_the_partition_table_costs_no_data(bare_board, offset):
    card = Card.formatted()
    [partition] = card.partitions()
    for bit in range(8):
        if (offset, bit) == (0, 7):
            continue  # this one marks a boot partition
        flip(card, TABLE + offset, bit)
        assert_repaired(bare_board, card, partition.offset // 512, partition.size // 512)


def test_the_service_mounts_a_card_with_a_flipped_type_and_keeps_its_files(board, tmp_path):
    (tmp_path / "kept").write_text("kept")
    card = Card.formatted(content=tmp_path)
    flip(card, TABLE + 4, 1)
    board.insert(card)
    board.start_service()
    expect_mounted(board)
    assert board.read_file(f"{MOUNT_POINT}/kept") == "kept"
    board.expect_record("INFO", "St:Mounting",
                        f"Repairing the partition table of {CARD_DEVICE}, which holds ext4 at sector 2048")
    eject(board)


@pytest.mark.parametrize("offset, length", [(TABLE, ENTRIES), (SIGNATURE, 2), (0, 512)])
def test_a_lost_partition_table_costs_no_data(bare_board, offset, length):
    card = Card.formatted()
    [partition] = card.partitions()
    card.write(offset, bytes(length))
    assert_repaired(bare_board, card, partition.offset // 512, partition.size // 512)


def test_an_ext4_file_system_stays_where_another_machine_has_put_it(bare_board):
    card = Card(64)
    card.partition(LINUX, first_sector=8192)
    card.make_ext4(1)
    [partition] = card.partitions()
    flip(card, TABLE + 4, 1)
    assert_repaired(bare_board, card, 8192, partition.size // 512)


@pytest.mark.parametrize("first_sector", [63, 8192])
def test_an_ext4_file_system_of_another_machine_is_found_without_a_table(bare_board, first_sector):
    card = Card(64)
    card.partition(LINUX, first_sector=first_sector)
    card.make_ext4(1)
    card.write(0, bytes(512))
    assert_repaired(bare_board, card, first_sector, card.size // 512 - first_sector)


def test_an_ext4_file_system_with_a_damaged_superblock_is_not_replaced(bare_board):
    card = Card.formatted()
    [partition] = card.partitions()
    superblock = partition.offset + 1024
    card.write(superblock + CHECKSUM, b"wrong"[:4])
    flip(card, TABLE + 4, 1)
    bare_board.insert(card, announce=False)
    result = format_card(bare_board)
    assert result.returncode == 0, result.stderr
    assert "Making" not in result.stdout
    [repaired] = card.partitions()
    assert (repaired.kind, repaired.offset, repaired.size) == ("83", partition.offset, partition.size)


def test_an_ext4_file_system_beside_another_partition_stays(bare_board):
    card = Card.two_partitions()
    card.make_ext4(2)
    partition = card.partitions()[1]
    assert_repaired(bare_board, card, partition.offset // 512, partition.size // 512)


def test_neither_of_two_ext4_file_systems_is_lost(bare_board):
    card = two_linux_partitions()
    before = card.read(0, card.size)
    bare_board.insert(card)
    result = format_card(bare_board)
    assert (result.returncode, result.stderr) == (
        FAILED, f"tavo-create-sdcardFS.sh: {CARD_DEVICE} holds more than one ext4 file system\n")
    assert card.read(0, card.size) == before


def test_remains_of_ext4_below_another_file_system_are_not_kept(bare_board):
    card = Card.formatted()
    card.partition("c", first_sector=8192)
    card.make_fat(1)
    bare_board.insert(card)
    assert format_card(bare_board).returncode == MADE_FILE_SYSTEM


def test_an_unfinished_file_system_is_made_again(bare_board):
    card = Card.unmountable()
    bare_board.insert(card)
    formatting = start_formatting(bare_board, f"{MAKE_FILE_SYSTEM} && {WAIT}")
    copy = card.copy()
    bare_board.pull()
    go_on(bare_board)
    assert formatting.wait(within=60) == FAILED
    bare_board.insert(copy)
    result = format_card(bare_board)
    assert result.returncode == MADE_FILE_SYSTEM
    assert "which holds unfinished-ext4" in result.stdout
    assert_ready(bare_board, copy)


def test_a_node_that_goes_and_comes_again_is_awaited_without_a_message(bare_board):
    card = Card.as_bought()
    bare_board.insert(card)
    gone = f"mkdir /run/board/asked 2>/dev/null && {{ echo \"stat: cannot statx '{PARTITION_DEVICE}'\" >&2; exit 1; }}"
    bare_board.replace_tool("/usr/bin/stat", f'case "$*" in *{PARTITION_DEVICE}) {gone} ;; esac; exec "$ORIGINAL" "$@"')
    result = format_card(bare_board)
    assert bare_board.exists("/run/board/asked")
    assert (result.returncode, result.stderr) == (MADE_FILE_SYSTEM, "")
    assert_ready(bare_board, card)


def test_a_ready_card_is_left_as_it_is(bare_board):
    card = Card.formatted()
    before = card.read(0, card.size)
    bare_board.insert(card)
    result = format_card(bare_board)
    assert (result.returncode, result.stderr) == (NOTHING_TO_DO, "")
    assert card.read(0, card.size) == before


def test_the_kernel_gets_the_partition_of_a_ready_card_that_it_did_not_know(bare_board):
    bare_board.insert(Card.formatted())
    bare_board.run("partx", "--delete", "--nr", "1:1", CARD_DEVICE, check=True)
    bare_board.expect("the node has gone", lambda: not bare_board.exists(PARTITION_DEVICE))
    assert format_card(bare_board).returncode == NOTHING_TO_DO
    assert bare_board.exists(PARTITION_DEVICE)


def test_a_device_that_is_not_the_configured_card_is_refused(bare_board):
    other = Card.as_bought()
    before = other.read(0, other.size)
    bare_board.insert(other)
    bare_board.write_file("/etc/default/tavo-sdcard", "CARD_DEVICE=/dev/mmcblk1\n")
    for arguments in ([CARD_DEVICE], [PARTITION_DEVICE], [CARD_DEVICE, CARD_DEVICE], []):
        result = format_card(bare_board, *arguments)
        assert result.returncode == FAILED, arguments
        assert result.stderr
    assert other.read(0, other.size) == before


def test_the_configured_device_is_formatted_under_its_own_name(bare_board):
    card = Card.as_bought()
    bare_board.insert(card)
    bare_board.run("ln", "-s", CARD_DEVICE, "/dev/card", check=True)
    bare_board.write_file("/etc/default/tavo-sdcard", "CARD_DEVICE=/dev/card\n")
    assert format_card(bare_board, CARD_DEVICE).returncode == FAILED
    assert format_card(bare_board, "/dev/card").returncode == MADE_FILE_SYSTEM


@pytest.mark.parametrize("partition", ["p1", "p2"])
def test_a_mounted_card_is_refused(bare_board, partition):
    card = two_linux_partitions()
    before = card.read(0, 2048 * 512)
    bare_board.insert(card)
    bare_board.run("mkdir", "/mnt/card", check=True)
    bare_board.run("mount", "-o", "ro", CARD_DEVICE + partition, "/mnt/card", check=True)
    result = format_card(bare_board)
    assert result.returncode == FAILED
    assert result.stderr == "tavo-create-sdcardFS.sh: /dev/mmcblk0 is mounted\n"
    assert card.read(0, 2048 * 512) == before


def test_a_card_mounted_where_the_script_cannot_see_it_is_refused(bare_board):
    card = Card.unmountable()
    [partition] = card.partitions()
    card.run_tool("mke2fs", "-q", "-F", "-t", "ext2", "-E", f"offset={partition.offset}", card.path,
                  f"{partition.size // 1024}k")
    bare_board.insert(card)
    holder = bare_board.start("unshare", "--mount", "sh", "-c",
                              f"mount -o ro {PARTITION_DEVICE} /mnt && echo mounted && exec sleep 1000")
    bare_board.expect("the hidden mount", lambda: "mounted" in holder.output)
    result = format_card(bare_board)
    assert result.returncode == FAILED
    assert "in use" in result.stderr
    assert card.partitions() == [partition]


def empty_slot(board):
    pass


def write_protected_card(board):
    card = Card.as_bought()
    card.read_only = True
    board.insert(card)


def partition_as_card(board):
    board.insert(Card.as_bought())
    board.write_file("/etc/default/tavo-sdcard", f"CARD_DEVICE={PARTITION_DEVICE}\n")


def card_that_goes(board):
    board.insert(Card.as_bought())
    board.replace_tool("/usr/bin/stat", f"echo \"stat: cannot statx '{CARD_DEVICE}'\" >&2; exit 1")


def failing_tool(board):
    board.insert(Card.as_bought())
    board.replace_tool("/usr/sbin/mke2fs", "echo 'mke2fs: bad blocks' >&2; exit 1")


@pytest.mark.parametrize("start, reason", [
    (empty_slot, f"{CARD_DEVICE} is not a block device"), (write_protected_card, "is write-protected"),
    (partition_as_card, "is a partition, not a card"), (card_that_goes, f"{CARD_DEVICE} is gone"),
    (failing_tool, "no file system could be made on /dev/mmcblk0: mke2fs: bad blocks")])
def test_a_failure_is_reported_in_one_line_and_leaves_the_card_as_it_was(bare_board, start, reason):
    start(bare_board)
    card = bare_board.card
    before = card and card.read(0, card.size)
    result = format_card(bare_board)
    assert result.returncode == FAILED
    assert reason in result.stderr
    assert len(result.stderr.splitlines()) == 1
    assert card is None or card.read(0, card.size) == before


def test_a_card_that_is_being_formatted_is_not_formatted_twice(bare_board):
    bare_board.insert(Card.as_bought())
    first = start_formatting(bare_board, f"{WAIT}; {MAKE_FILE_SYSTEM}")
    result = format_card(bare_board)
    assert result.returncode == FAILED
    assert "is being formatted already" in result.stderr
    go_on(bare_board)
    assert first.wait(within=60) == MADE_FILE_SYSTEM


def test_an_exchanged_card_does_not_get_the_other_cards_table(bare_board):
    first, second = Card.as_bought(), Card.as_bought()
    bare_board.insert(first)
    formatting = start_formatting(bare_board, f"{MAKE_FILE_SYSTEM} && {WAIT}")
    bare_board.pull()
    bare_board.insert(second)
    go_on(bare_board)
    assert formatting.wait(within=60) == FAILED
    assert "no file system could be made" in formatting.errors
    assert [partition.kind for partition in second.partitions()] == ["c"]


@pytest.mark.parametrize("moment", [0.0, 0.005, 0.01, 0.02, 0.03, 0.04, 0.05, 0.06, 0.08, 0.1, 0.15])
def test_a_card_pulled_at_any_moment_is_made_ready_the_next_time(bare_board, moment):
    card = Card.as_bought()
    bare_board.insert(card)
    formatting = bare_board.start(FORMAT_SCRIPT)
    time.sleep(moment)
    bare_board.pull()
    status = formatting.wait(within=30)
    assert status in (FAILED, MADE_FILE_SYSTEM)
    assert status == MADE_FILE_SYSTEM or formatting.errors
    # Either the card still looks foreign, or its format is complete.
    if [partition.kind for partition in card.partitions()] == ["83"]:
        assert card.is_clean()
    bare_board.insert(card)
    assert format_card(bare_board).returncode in (MADE_FILE_SYSTEM, NOTHING_TO_DO)
    assert_ready(bare_board, card)


def test_a_card_pulled_while_the_file_system_is_made_ends_the_script_at_once(bare_board):
    bare_board.insert(Card.as_bought())
    formatting = start_formatting(bare_board, f"{WAIT}; {MAKE_FILE_SYSTEM}")
    bare_board.pull()
    go_on(bare_board)
    assert formatting.wait(within=5 * bare_board.patience) == FAILED
    assert formatting.errors
