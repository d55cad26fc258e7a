"""The choice of files and the sizes on trees of every kind, held against a computation of the test's own."""

import os
import random
import stat

import pytest

from board import CARD_INTERFACE, Card
from capacity import PAUSE, WATCHER, assert_well_chosen, card_path, enforce, limit_of, start_with_watched_card
from contents import Contents
from steps import messages

pytestmark = pytest.mark.installed

MIB = 1024 * 1024
PERCENT = 10
CONFIGURATION = f"""
<sdcard>
  <dir size="{PERCENT}" capacitywatch="true">watched</dir>
  <dir size="50" capacitywatch="true">logs<dir size="10" capacitywatch="true">archive</dir></dir>
</sdcard>
"""
ODD_NAMES = [
    b"\xff\xfe\x80 no text", b"new\nline", b"\n", b"-rf", b"--", b"-", b" ", b"*", b"\\", b"'; rm -rf .", b"$HOME",
    b"%s%n", b"\x01\x7f", "größe".encode(), b"a" * 255, b"\xc3" * 255, b".hidden", b"...", b"|", b"con|ERROR|x",
]


@pytest.fixture
def board(make_board, program):
    """A board whose card has watched directories."""
    return make_board(program=program, media_config=CONFIGURATION)


@pytest.fixture
def contents(board):
    """The mounted card."""
    start_with_watched_card(board, Card.formatted(128))
    return Contents(board)


def used_by_service(board, identifier):
    return board.call(CARD_INTERFACE, "getDirUsed", identifier)


def failed_removals(board, directory, files, after):
    """Those of a directory's files of which the service says, in its records from one on, that they could not go."""
    beginning, end = f"Cannot remove file {card_path(directory)}/", ": Operation not permitted"
    warnings = [record.message for record in board.records[after:] if record.level == "WARN"]
    assert all(warning.startswith(beginning) and warning.endswith(end) for warning in warnings)
    # A record shows what is no text in a name as a replacement character.
    paths = {path.decode(errors="replace"): path for path in files}
    return [paths[warning.removeprefix(beginning).removesuffix(end)] for warning in warnings]


class TreeMaker:
    """Fills a directory at random: everything that may lie on a card, of every age and size."""

    def __init__(self, contents, directory, seed):
        self.random = random.Random(seed)
        self.contents = contents
        self.directories = [os.fsencode(directory)]
        self.files = []
        self.immutable = []
        self.count = 0
        self.steps = []

    def make(self, steps):
        makers = [self.file] * 8 + [self.directory] * 3 + [self.link, self.hard_link, self.fifo, self.socket,
                                                           self.device, self.touch, self.freeze]
        for _ in range(steps):
            self.random.choice(makers)()
            if self.random.random() < 0.3:
                # Not all have one change time.
                self.steps.append(PAUSE)
        self.contents.change(*self.steps)

    def thaw(self):
        self.contents.change(*(("freeze", path, False) for path in self.immutable))

    def new_path(self):
        self.count += 1
        name = self.random.choice([b"%d", b".%d", b"-%d", b"%d\n", b"\xfe%d", b"%d" + b"x" * 200]) % self.count
        return os.path.join(self.random.choice(self.directories), name)

    def file(self):
        path = self.new_path()
        data = b"x" * self.random.choice([0, 1, 5000])
        # Mostly holes, which count like data.
        self.steps.append(("write", path, self.random.choice([0, 1, 4096, 100_000, 1_000_000, 2_000_000]), data))
        self.files.append(path)

    def directory(self):
        path = self.new_path()
        self.steps.append(("mkdir", path))
        self.directories.append(path)

    def link(self):
        target = self.random.choice([b"nowhere", b".", b"..", b"/etc", b"/etc/passwd", b"x" * 500])
        self.steps.append(("symlink", target, self.new_path()))

    def hard_link(self):
        movable = [path for path in self.files if path not in self.immutable]
        if movable:
            self.steps.append(("link", self.random.choice(movable), self.new_path()))

    def fifo(self):
        self.steps.append(("mkfifo", self.new_path()))

    def socket(self):
        self.steps.append(("mknod", self.new_path(), stat.S_IFSOCK | 0o600))

    def device(self):
        self.steps.append(("mknod", self.new_path(), stat.S_IFCHR | 0o600, os.makedev(1, 3)))

    def touch(self):
        if self.files:
            path = self.random.choice(self.files)
            if path not in self.immutable:
                self.steps.append(("chmod", path, self.random.choice([0o000, 0o400, 0o644])))

    def freeze(self):
        if self.files:
            path = self.random.choice(self.files)
            self.steps.append(("freeze", path))
            self.immutable.append(path)


@pytest.mark.parametrize("seeds", [range(4), range(4, 8), range(8, 12)], ids="{0[0]} to {0[3]}".format)
def test_the_choice_in_a_random_tree_is_the_computed_one(board, contents, seeds):
    limit = limit_of(contents, PERCENT)
    for seed in seeds:
        records = len(board.records)
        tree = TreeMaker(contents, "watched", seed)
        tree.make(150)
        before = contents.entries("watched")
        used = sum(entry.size for entry in before)
        assert used_by_service(board, "watched") == used
        enforce(board, "watched")
        after = contents.entries("watched")
        assert_well_chosen(before, after, limit,
                           failed_removals(board, "watched", [entry.path for entry in before], records))
        assert used_by_service(board, "watched") == sum(entry.size for entry in after)
        tree.thaw()
        # What could not be removed the first time can be now.
        before = contents.entries("watched")
        enforce(board, "watched")
        assert_well_chosen(before, contents.entries("watched"), limit)
        assert used > limit, "the tree is too small to be a test"
        board.run("find", card_path("watched"), "-mindepth", "1", "-delete", check=True)
    # A directory may have gone together with the last one in it before its own turn comes.
    assert all(message.startswith(f"Cannot remove empty directory {card_path('watched')}/")
               and message.endswith(": No such file or directory") for message in messages(board, "ERROR"))


def test_names_are_bytes_of_any_kind(board, contents):
    contents.change(*(("write", os.path.join(b"watched", name), 1000) for name in ODD_NAMES),
                    *(("write", os.path.join(b"watched/in", name, name), 1000) for name in ODD_NAMES), PAUSE)
    assert used_by_service(board, "watched") == contents.used("watched")
    contents.write("watched/new", 50 * MIB)
    enforce(board, "watched")
    assert contents.files("watched").keys() == set()
    assert contents.entries("watched")[1:] == []
    assert messages(board, "WARN") + messages(board, "ERROR") == []


def test_odd_names_of_files_that_are_young_enough_stay(board, contents):
    contents.change(("write", "watched/old", 20 * MIB), PAUSE,
                    *(("write", os.path.join(b"watched", name), 1000) for name in ODD_NAMES))
    enforce(board, "watched")
    assert contents.files("watched").keys() == set(ODD_NAMES)


def test_a_file_that_cannot_be_removed_is_reported_and_the_others_still_go(board, contents):
    frozen = b"watched/sub/fro\xffzen"
    contents.change(("write", "watched/sub/first", 7 * MIB), PAUSE, ("write", frozen, 7 * MIB), ("freeze", frozen),
                    PAUSE, ("write", "watched/sub/third", 7 * MIB))
    enforce(board, "watched")
    # The choice rests on the sizes before: nothing goes in the frozen one's place.
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


def test_a_deep_tree_is_counted_and_emptied(board, contents):
    path = b"watched"
    for level in range(200):
        path = os.path.join(path, b"level%d" % level)
    contents.write(path + b"/old", 20 * MIB)
    assert used_by_service(board, "watched") == contents.used("watched")
    enforce(board, "watched")
    assert [entry.path for entry in contents.entries("watched")] == [b""]


def test_a_large_directory_is_counted_and_thinned_out(board, contents):
    contents.change(*(("write", f"watched/many/{number}", 4000) for number in range(5000)))
    limit = limit_of(contents, PERCENT)
    before = contents.entries("watched")
    assert used_by_service(board, "watched") == sum(entry.size for entry in before)
    enforce(board, "watched")
    assert_well_chosen(before, contents.entries("watched"), limit)


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
    board.run("umount", inside, check=True)


def test_nothing_is_removed_where_a_link_on_the_card_leads_out_of_it(board, tmp_path):
    board.write_file("/var/precious/archive/file", "precious")
    board.run("truncate", "-s", "60M", "/var/precious/archive/large", check=True)
    (tmp_path / "logs").symlink_to("/var/precious")
    start_with_watched_card(board, Card.formatted(content=tmp_path))
    for identifier in ("", "archive"):
        try:
            enforce(board, identifier)
        except Exception as problem:  # refused or done: either way nothing may be gone
            assert "does not specify a capacity watched directory" in str(problem)
    assert board.read_file("/var/precious/archive/file") == "precious"
    assert board.exists("/var/precious/archive/large")


def test_a_socket_that_is_listened_on_is_an_entry_like_a_file(board, contents):
    listen = ("import socket, time\nlistener = socket.socket(socket.AF_UNIX)\n"
              f"listener.bind({card_path('watched/listener')!r})\nlistener.listen()\n"
              "print('listens', flush=True)\ntime.sleep(1000)\n")
    listener = board.start("/usr/bin/python3", "-I", "-S", "-c", listen)
    board.expect("the listener", lambda: "listens" in listener.output)
    assert contents.files("watched").keys() == {b"listener"}
    assert used_by_service(board, "watched") == contents.used("watched")
    contents.change(PAUSE, ("write", "watched/new", 30 * MIB))
    enforce(board, "watched")
    assert contents.files("watched").keys() == set()
