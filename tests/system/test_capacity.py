"""The service keeps watched directories within their share of the card: limit, choice of files, times."""

import os

import pytest

from board import MOUNT_POINT, BusError, Card
from capacity import PAUSE, WATCHER, assert_well_chosen, card_path, enforce, limit_of, start_with_watched_card
from contents import Contents
from steps import eject, expect_mounted, messages, take_out

pytestmark = pytest.mark.installed

INTERVAL_FILE = "/etc/scw_interval"
MIB = 1024 * 1024
PERCENT = 10
CONFIGURATION = f"""
<sdcard>
  <dir size="{PERCENT}" capacitywatch="true">watched</dir>
  <dir size="40" capacitywatch="true">outer<dir size="25" capacitywatch="true">inner</dir></dir>
  <dir size="1">unwatched</dir>
</sdcard>
"""


@pytest.fixture
def board(make_board, program):
    """A board with a card that has watched directories."""
    return make_board(program=program, media_config=CONFIGURATION)


@pytest.fixture
def contents(board):
    """The mounted card."""
    start_with_watched_card(board)
    return Contents(board)


def write_in_turn(contents, directory, *sizes):
    """Files 0, 1, 2, ... of these sizes, each younger than the one before."""
    contents.change(*(step for number, size in enumerate(sizes)
                      for step in (("write", f"{directory}/{number}", size), PAUSE)))


def names(contents, directory):
    return sorted(os.fsdecode(path) for path in contents.files(directory))


def watcher_messages(board, level):
    return messages(board, level, WATCHER)


def test_the_oldest_files_are_removed_until_the_rest_is_below_the_limit(board, contents):
    write_in_turn(contents, "watched", *[MIB] * 9)
    limit = limit_of(contents, PERCENT)
    before = contents.entries("watched")
    enforce(board, "watched")
    assert_well_chosen(before, contents.entries("watched"), limit)
    assert names(contents, "watched") == [str(number) for number in range(9 - (limit - 4096) // MIB, 9)]
    assert contents.used("watched") < limit


def test_age_is_the_time_of_the_last_change_of_a_files_status(board, contents):
    write_in_turn(contents, "watched", *[3 * MIB] * 3)
    contents.change(("utime", "watched/2", (1, 1)), PAUSE, ("chmod", "watched/0", 0o600))
    enforce(board, "watched")
    assert names(contents, "watched") == ["0"]


def test_a_directory_exactly_at_its_limit_is_left_alone_and_a_byte_more_is_too_much(board, contents):
    limit = limit_of(contents, PERCENT)
    write_in_turn(contents, "watched", 1, MIB)
    last_size = limit - contents.used("watched")
    contents.write("watched/last", last_size)
    assert contents.used("watched") == limit
    enforce(board, "watched")
    assert names(contents, "watched") == ["0", "1", "last"]
    contents.change(("truncate", "watched/last", last_size + 1))
    enforce(board, "watched")
    # Without the oldest file the use is exactly at the limit, which still is too much.
    assert names(contents, "watched") == ["last"]


def test_directories_count_with_their_own_size(board, contents):
    limit = limit_of(contents, PERCENT)
    contents.change(*(("mkdir", f"watched/{number}") for number in range(20)))
    contents.write("watched/file", limit - contents.used("watched"))
    enforce(board, "watched")
    assert names(contents, "watched") == ["file"]
    contents.change(("mkdir", "watched/one-more"))
    enforce(board, "watched")
    assert names(contents, "watched") == []
    assert len(contents.names("watched")) == 21


def test_emptied_directories_are_removed_with_their_empty_parents(board, contents):
    contents.change(("write", "watched/a/b/c/old", 7 * MIB), ("write", "watched/a/beside", 1),
                    ("write", "watched/d/e/old", 7 * MIB), ("mkdir", "watched/empty-before"), PAUSE,
                    ("write", "watched/d/new", 1), ("chmod", "watched/a/beside", 0o600))
    before = contents.entries("watched")
    enforce(board, "watched")
    assert_well_chosen(before, contents.entries("watched"), limit_of(contents, PERCENT))
    assert sorted(entry.path for entry in contents.entries("watched")) == [
        b"", b"a", b"a/beside", b"d", b"d/new", b"empty-before"]


def test_a_directory_of_directories_has_nothing_to_remove(make_board, program):
    board = make_board(program=program, media_config='<sdcard><dir size="0" capacitywatch="true">none</dir></sdcard>')
    start_with_watched_card(board)
    warning = card_path("none") + " exceed limit but there are no files to remove"
    board.expect_record("WARN", WATCHER, warning, source="StorageCapacityWatcher",
                        function="StorageCapacityWatcher::ensureDirSizeSingle")
    contents = Contents(board)
    contents.change(("makedirs", "none/a/b"), ("write", "none/c/file"))
    enforce(board, "none")
    assert [entry.path for entry in contents.entries("none")] == [b"", b"a", b"a/b"]
    count = watcher_messages(board, "WARN").count(warning)
    enforce(board, "none")
    assert watcher_messages(board, "WARN").count(warning) == count + 1


def test_each_watched_directory_has_its_own_share(board, contents):
    write_in_turn(contents, "watched", *[MIB] * 9)
    write_in_turn(contents, "outer/inner", *[MIB] * 9)
    before = contents.entries("outer/inner")
    watched = names(contents, "watched")
    enforce(board, "inner")
    assert names(contents, "watched") == watched
    assert_well_chosen(before, contents.entries("outer/inner"), limit_of(contents, 40, 25))


def test_a_directory_in_a_watched_directory_counts_for_both(board, contents):
    write_in_turn(contents, "outer/inner", *[MIB] * 4)
    write_in_turn(contents, "outer", *[4 * MIB] * 6)
    before = contents.entries("outer")
    enforce(board, "outer")
    assert_well_chosen(before, contents.entries("outer"), limit_of(contents, 40))
    assert not {b"inner/0", b"inner/1"} & contents.files("outer").keys()


def test_an_empty_identifier_means_all_watched_directories(board, contents):
    write_in_turn(contents, "unwatched", *[MIB] * 9)
    for directory in ("watched", "outer/inner"):
        write_in_turn(contents, directory, *[MIB] * 9)
    enforce(board, "")
    assert contents.used("watched") < limit_of(contents, PERCENT)
    assert contents.used("outer/inner") < limit_of(contents, 40, 25)
    assert len(names(contents, "unwatched")) == 9


@pytest.mark.parametrize("mode, complaint", [("0300", "is not readable"), ("0500", "is not writable")])
def test_a_directory_that_its_owner_may_not_use_is_not_watched(make_board, program, mode, complaint):
    board = make_board(program=program, media_config='<sdcard><dir size="1" capacitywatch="true" '
                                                     f'mode="{mode}">watched</dir></sdcard>')
    start_with_watched_card(board)
    assert watcher_messages(board, "ERROR") == [f"{card_path('watched')} {complaint}"]
    with pytest.raises(BusError):
        enforce(board, "watched")


def test_a_directory_whose_place_is_taken_is_not_watched(board, tmp_path):
    (tmp_path / "elsewhere").mkdir()
    (tmp_path / "watched").symlink_to("elsewhere")
    (tmp_path / "outer").write_text("")
    start_with_watched_card(board, Card.formatted(content=tmp_path))
    assert watcher_messages(board, "ERROR") == [
        f"{card_path('watched')} is not a directory", f"{card_path('outer')} is not a directory",
        f"{card_path('outer/inner')} does not exist"]
    contents = Contents(board)
    contents.write("elsewhere/file", 30 * MIB)
    with pytest.raises(BusError):
        enforce(board, "watched")
    assert names(contents, "elsewhere") == ["file"]


def test_a_card_is_brought_within_its_limits_as_soon_as_it_is_mounted(board, tmp_path):
    (tmp_path / "watched").mkdir()
    for number in range(3):
        with open(tmp_path / f"watched/{number}", "wb") as file:
            os.truncate(file.fileno(), 4 * MIB)
    start_with_watched_card(board, Card.formatted(content=tmp_path))
    contents = Contents(board)
    board.expect("the oldest are gone", lambda: len(names(contents, "watched")) == 1)
    assert watcher_messages(board, "WARN") == []


def test_runs_repeat_at_the_interval_in_the_file(board):
    board.write_file(INTERVAL_FILE, "\t 1500 \n\n")
    start_with_watched_card(board)
    board.expect_record("INFO", WATCHER, "Use special Storage Capacity Watcher interval of 1500 ms",
                        source="StorageCapacityWatcher", function="StorageCapacityWatcher::StorageCapacityWatcher")
    contents = Contents(board)
    for round_number in range(2):
        contents.write(f"watched/{round_number}", 30 * MIB)
        board.expect("the file is gone", lambda: names(contents, "watched") == [], within=4)


def test_runs_continue_after_the_card_was_out(board):
    board.write_file(INTERVAL_FILE, "500\n")
    card = start_with_watched_card(board)
    eject(board)
    take_out(board)
    board.insert(card)
    expect_mounted(board)
    contents = Contents(board)
    contents.write("watched/file", 30 * MIB)
    board.expect("the file is gone", lambda: names(contents, "watched") == [], within=4)


def test_nothing_is_enforced_after_an_eject(board, contents):
    eject(board)
    # The mount point is now an ordinary directory.
    board.run("mkdir", "-p", f"{MOUNT_POINT}/watched", check=True)
    board.run("truncate", "-s", "60M", f"{MOUNT_POINT}/watched/file", check=True)
    for identifier in ("watched", "", "unknown"):
        enforce(board, identifier)
    assert board.exists(f"{MOUNT_POINT}/watched/file")
    take_out(board)
    board.remove_file(MOUNT_POINT)
