"""A mounted card's contents as the test sees them, and what the service should make of them."""

import fcntl
import os
import struct
from dataclasses import dataclass
from pathlib import Path

from board import MOUNT_POINT, Board

FS_IOC_SETFLAGS = 0x40086602
FS_IMMUTABLE_FL = 0x10


@dataclass(frozen=True)
class Entry:
    """A file, link or directory: path below the scanned one, size in bytes, change time in ns."""

    path: bytes
    size: int
    changed: int
    is_directory: bool


class Contents:
    """The card of a board, through the board's own eyes; most of it with the test's own calls, on a virtual one."""

    def __init__(self, board: Board) -> None:
        self._board = board

    @property
    def root(self) -> Path:
        """Where a virtual board's card is found from here."""
        return Path(f"/proc/{self._board.host_pid}/root{MOUNT_POINT}")

    def path(self, name: str | bytes) -> bytes:
        """Where something on the card is found from here."""
        return os.path.join(os.fsencode(self.root), os.fsencode(name))

    def file_system(self) -> os.statvfs_result:
        """The card's size and use; on any board."""
        values = self._board.run("stat", "-f", "-c", "%s %S %b %f %a", MOUNT_POINT, check=True).stdout.split()
        return os.statvfs_result((*map(int, values), 0, 0, 0, 0, 0))

    def fill(self, name: str, size: int) -> None:
        """Writes a file of zeros that takes its room on the card; on any board."""
        self._board.run("fallocate", "-l", str(size), f"{MOUNT_POINT}/{name}", check=True)

    def write(self, name: str | bytes, size: int = 0) -> None:
        """Makes a file of so many bytes, which are all holes, with its directories."""
        path = self.path(name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            os.truncate(file.fileno(), size)

    def entries(self, directory: str | bytes) -> list[Entry]:
        """Everything below a directory, and the directory itself with an empty path."""
        top = self.path(directory)
        found = [self._entry(top, b"")]
        pending = [b""]
        while pending:
            inner = pending.pop()
            for name in os.listdir(os.path.join(top, inner)):
                entry = self._entry(top, os.path.join(inner, name))
                found.append(entry)
                if entry.is_directory:
                    pending.append(entry.path)
        return found

    def files(self, directory: str | bytes) -> dict[bytes, Entry]:
        """Everything below a directory that is no directory, by its path."""
        return {entry.path: entry for entry in self.entries(directory) if not entry.is_directory}

    def used(self, directory: str | bytes) -> int:
        """The bytes that a directory is charged with: its own and those of all that is in it."""
        return sum(entry.size for entry in self.entries(directory))

    @staticmethod
    def _entry(top: bytes, path: bytes) -> Entry:
        status = os.lstat(os.path.join(top, path) if path else top)
        return Entry(path, status.st_size, status.st_ctime_ns, os.path.isdir(os.path.join(top, path))
                     and not os.path.islink(os.path.join(top, path)))


def set_immutable(path: bytes, immutable: bool) -> None:
    """Makes a file or directory one that nobody may change or remove, or ends that."""
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    try:
        fcntl.ioctl(descriptor, FS_IOC_SETFLAGS, struct.pack("i", FS_IMMUTABLE_FL if immutable else 0))
    finally:
        os.close(descriptor)
