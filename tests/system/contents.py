"""A mounted card's contents, read and changed by programs of its board."""

import io
import os
import tarfile
from collections.abc import Iterator
from dataclasses import dataclass

from board import MOUNT_POINT, Board

KINDS = {b"d": "directory", b"f": "file"}
NANOSECOND_DIGITS = 9

# Calls functions of os, and the ones below, in order: one program for many files.
CHANGES = """
import fcntl, os, struct, sys, time
SET_FLAGS, IMMUTABLE = 0x40006602 | struct.calcsize('l') << 16, 0x10
def write(path, size=0, data=b''):
    os.makedirs(os.path.dirname(path) or '.', exist_ok=True)
    with open(path, 'wb') as file:
        file.write(data)
        os.truncate(file.fileno(), size)
def freeze(path, frozen=True):
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    fcntl.ioctl(descriptor, SET_FLAGS, struct.pack('i', IMMUTABLE if frozen else 0))
    os.close(descriptor)
own = {'write': write, 'freeze': freeze, 'sleep': time.sleep}
os.chdir(sys.argv[1])
for name, *arguments in eval(sys.stdin.buffer.read()):
    (own.get(name) or getattr(os, name))(*arguments)
"""


@dataclass(frozen=True)
class Entry:
    """A file, link or directory: path below the scanned one, size in bytes, change time in ns."""

    path: bytes
    size: int
    changed: int
    is_directory: bool


class Contents:
    """The card in a board's slot. All paths are relative to its root."""

    def __init__(self, board: Board) -> None:
        self._board = board

    def file_system(self) -> os.statvfs_result:
        """The card's size and use."""
        values = self._board.run("stat", "-f", "-c", "%s %S %b %f %a", MOUNT_POINT, check=True).stdout.split()
        return os.statvfs_result((*map(int, values), 0, 0, 0, 0, 0))

    def fill(self, name: str, size: int) -> None:
        """Writes a file of zeros that occupies its blocks on the card."""
        self._board.run("fallocate", "-l", str(size), f"{MOUNT_POINT}/{name}", check=True)

    def change(self, *steps: tuple) -> None:
        """Calls functions in quick succession; a step is a function's name and its arguments.

        Paths are str or bytes. The functions are those of os, and three more: write (path, size in bytes, data)
        makes a file and its directories, with its data cut off at the size or followed by a hole; freeze (path,
        whether) makes a file immutable, or mutable again; sleep (seconds).
        """
        self._board.run("/usr/bin/python3", "-I", "-S", "-c", CHANGES, MOUNT_POINT, input=repr(steps), check=True)

    def write(self, name: str | bytes, size: int = 0) -> None:
        """Makes a sparse file of this size, with its directories."""
        self.change(("write", name, size))

    def entries(self, directory: str | bytes) -> list[Entry]:
        """Everything below a directory, and the directory itself as the empty path."""
        return [Entry(path, int(size), _nanoseconds(changed), kind == b"d")
                for path, size, changed, kind in self._find(directory, b"%P", b"%s", b"%C@", b"%y")]

    def files(self, directory: str | bytes) -> dict[bytes, Entry]:
        """Everything below a directory except directories, by path."""
        return {entry.path: entry for entry in self.entries(directory) if not entry.is_directory}

    def used(self, directory: str | bytes) -> int:
        """The bytes that count for a directory: its own and those of its content."""
        return sum(entry.size for entry in self.entries(directory))

    def names(self, directory: str = ".") -> list[str]:
        """The names in a directory itself, sorted."""
        return sorted(os.fsdecode(entry.path) for entry in self.entries(directory)
                      if entry.path and b"/" not in entry.path)

    def described(self) -> dict[str, str | tuple[str, str, str, str]]:
        """Kind, octal permissions, owner and group of all files and directories, and the target of each link."""
        found = {}
        for path, kind, mode, user, group, target in self._find(".", b"%P", b"%y", b"%m", b"%u", b"%g", b"%l"):
            found[os.fsdecode(path)] = (target.decode() if kind == b"l" else
                                        (KINDS[kind], mode.decode(), user.decode(), group.decode()))
        return found

    def texts(self, *names: str) -> list[str | None]:
        """The texts of files; None for a missing one."""
        archive = self._board.run("tar", "--create", "--directory", MOUNT_POINT, "--", *names, as_bytes=True).stdout
        with tarfile.open(fileobj=io.BytesIO(archive)) as files:
            found = {member.name: files.extractfile(member).read().decode() for member in files}
        return [found.get(name) for name in names]

    def _find(self, directory: str | bytes, *fields: bytes) -> Iterator[tuple[bytes, ...]]:
        path = os.path.join(MOUNT_POINT, os.fsdecode(directory))
        result = self._board.run("find", path, "-printf", "".join(os.fsdecode(field) + r"\0" for field in fields),
                                 as_bytes=True)
        values = result.stdout.split(b"\0")[:-1]
        # Files may vanish during the search. Any other error would leave the tree incomplete.
        assert values and all(line.endswith("No such file or directory") for line in result.stderr.splitlines()), \
            result.stderr
        return zip(*(values[index::len(fields)] for index in range(len(fields))))


def _nanoseconds(seconds: bytes) -> int:
    whole, _, fraction = seconds.partition(b".")
    return int(whole) * 10 ** NANOSECOND_DIGITS + int(fraction[:NANOSECOND_DIGITS])
