"""Enforcement in directories with odd names, links, other file systems and entries that cannot be removed."""

import os

import pytest

from board import CARD_INTERFACE, Card
from capacity import PAUSE, WATCHER, card_path, enforce, start_with_watched_card
from contents import Contents
from steps import messages

pytestmark = pytest.mark.installed

MIB = 1024 * 1024
CONFIGURATION = """
<sdcard>
  <dir size="10" capacitywatch="true">watched</dir>
</sdcard>
"""
ODD_NAMES = [
    b"\xff\xfe\x80 no text", b"new\nline", b"\n", b"-rf", b"--", b"-", b" ", b"*", b"\\", b"'; rm -rf .", b"$HOME",
    b"%s%n", b"\x01\x7f", "größe".encode(), b"a" * 255, b"\xc3" * 255, b".hidden", b"...", b"|", b"con|ERROR|x",
]


@pytest.fixture
def board(make_board, program):
    """A board with a card that has watched directories."""
    return make_board(program=program, media_config=CONFIGURATION)


@pytest.fixture
def contents(board):
    """The mounted card."""
    start_with_watched_card(board, Card.formatted(128))
    return Contents(board)


def used_by_service(board, identifier):
    return board.call(CARD_INTERFACE, "getDirUsed", identifier)


def test_names_are_bytes_of_any_kind(board, contents):
    contents.change(*(("write", os.path.join(b"watched", name), 1000) for name in ODD_NAMES),
                    *(("write", os.path.join(b"watched/in", name, name), 1000) for name in ODD_NAMES), PAUSE)
    assert used_by_service(board, "watched") == contents.used("watched")
    contents.write("watched/young", 50 * MIB)
    enforce(board, "watched")
    assert contents.entries("watched")[1:] == []
    assert messages(board, "WARN") + messages(board, "ERROR") == []


def test_a_file_that_cannot_be_removed_is_reported_and_the_others_still_go(board, contents):
    frozen = b"watched/sub/fro\xffzen"
    contents.change(("write", "watched/sub/first", 7 * MIB), PAUSE, ("write", frozen, 7 * MIB), ("freeze", frozen),
                    PAUSE, ("write", "watched/sub/third", 7 * MIB))
    enforce(board, "watched")
    # The service chooses before it removes: no other file replaces the immutable one.
    assert contents.files("watched").keys() == {b"sub/fro\xffzen", b"sub/third"}
    warning, = [record for record in board.records if record.level == "WARN"]
    assert (warning.channel, warning.source) == (WATCHER, WATCHER)
    assert warning.message == f"Cannot remove file {card_path('watched/sub')}/fro\ufffdzen: Operation not permitted"
    contents.change(("freeze", frozen, False))


def test_a_directory_that_cannot_be_removed_is_reported(board, contents):
    contents.change(("write", "watched/outer/inner/file", 20 * MIB), ("freeze", "watched/outer"))
    enforce(board, "watched")
    assert sorted(entry.path for entry in contents.entries("watched")) == [b"", b"outer", b"outer/inner"]
    assert messages(board, "ERROR") == [
        f"Cannot remove empty directory {card_path('watched/outer/inner')}: Operation not permitted"]
    contents.change(("freeze", "watched/outer", False))


def test_a_link_is_removed_itself_and_never_what_it_leads_to(board, contents):
    board.write_file("/var/precious/file", "precious")
    targets = ["/var/precious", "/var/precious/file", "../kept", "../kept/file", "nowhere"]
    contents.change(("write", "kept/file", 30 * MIB),
                    *(("symlink", target, f"watched/{number}") for number, target in enumerate(targets)), PAUSE)
    assert used_by_service(board, "watched") == contents.used("watched")
    enforce(board, "watched")
    assert len(contents.files("watched")) == 5
    contents.write("watched/new", 30 * MIB)
    enforce(board, "watched")
    assert contents.files("watched").keys() == set()
    assert board.read_file("/var/precious/file") == "precious"
    assert contents.files("kept").keys() == {b"file"}


def test_nothing_is_removed_from_another_file_system_mounted_in_a_watched_directory(board, contents):
    contents.change(("write", "watched/old", 20 * MIB), ("mkdir", "watched/other"))
    inside = card_path("watched/other")
    board.run("mount", "-t", "tmpfs", "other", inside, check=True)
    board.write_file(inside + "/file", "precious")
    board.run("truncate", "-s", "50M", inside + "/large", check=True)
    enforce(board, "watched")
    assert board.read_file(inside + "/file") == "precious"
    assert board.exists(inside + "/large")
    assert not board.exists(card_path("watched/old"))
    assert messages(board, "WARN") + messages(board, "ERROR") == []
    board.run("umount", inside, check=True)
