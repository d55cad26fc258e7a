"""SD cards: images in this process's memory, of every kind that a user may insert.

An image has no name in any file system, so nothing of a card remains after a test.
"""

import os
import subprocess
import uuid
from dataclasses import dataclass
from pathlib import Path

MIB = 1024 * 1024
SECTOR_BYTES = 512
FIRST_SECTOR = 2048
FIRST_SECTOR_AS_BOUGHT = 8192
LINUX, FAT32 = "83", "c"
NAME_PREFIX = "sdcard-"


@dataclass(frozen=True)
class Partition:
    """An entry of the partition table: number, offset and size in bytes, type in hexadecimal."""

    number: int
    offset: int
    size: int
    kind: str


class Card:
    """An SD card. The class methods make the kinds of cards."""

    def __init__(self, size_mib: int, read_only: bool = False) -> None:
        """A card of zeros; @p read_only is its write-protect switch."""
        self.name = NAME_PREFIX + uuid.uuid4().hex[:12]
        self.read_only = read_only
        self.size = size_mib * MIB
        self._image = os.memfd_create(self.name, os.MFD_CLOEXEC)
        os.ftruncate(self._image, self.size)

    def __del__(self) -> None:
        os.close(self._image)

    @classmethod
    def blank(cls, size_mib: int = 64) -> "Card":
        """Neither a partition table nor a file system."""
        return cls(size_mib)

    @classmethod
    def with_empty_table(cls, size_mib: int = 64) -> "Card":
        """A partition table without an entry."""
        card = cls(size_mib)
        card.partition()
        return card

    @classmethod
    def as_bought(cls, size_mib: int = 64) -> "Card":
        """One FAT partition, at the offset of new cards, which differs from the format script's."""
        card = cls(size_mib)
        card.partition(FAT32, first_sector=FIRST_SECTOR_AS_BOUGHT)
        card.make_fat(1)
        return card

    @classmethod
    def formatted(cls, size_mib: int = 64, content: Path | None = None) -> "Card":
        """One Linux partition with ext4, as the format script makes it; @p content is copied onto it."""
        card = cls(size_mib)
        card.partition(LINUX)
        card.make_ext4(1, content)
        return card

    @classmethod
    def two_partitions(cls, size_mib: int = 64) -> "Card":
        """A FAT partition and an empty Linux partition."""
        card = cls(size_mib)
        card.partition(FAT32, LINUX)
        card.make_fat(1)
        return card

    @classmethod
    def lightly_damaged(cls, size_mib: int = 64) -> "Card":
        """ext4 with errors that the automatic repair fixes (e2fsck -p ends with 1)."""
        card = cls.formatted(size_mib)
        card.edit_ext4("set_super_value free_blocks_count 7", "set_super_value state 0")
        return card

    @classmethod
    def damaged(cls, size_mib: int = 64) -> "Card":
        """ext4 with errors that only the full repair fixes (e2fsck -p ends with 4)."""
        card = cls.formatted(size_mib)
        card.edit_ext4("clri <2>", "set_super_value state 2")
        return card

    @classmethod
    def unmountable(cls, size_mib: int = 64) -> "Card":
        """A Linux partition without a file system in it: nothing to repair and nothing to mount."""
        card = cls(size_mib)
        card.partition(LINUX)
        return card

    def fileno(self) -> int:
        """The image's descriptor."""
        return self._image

    @property
    def path(self) -> str:
        """A path of the image for programs that this process runs (see run_tool)."""
        return f"/proc/self/fd/{self._image}"

    def copy(self) -> "Card":
        """A card with the content of this moment, as a power cut would leave it."""
        twin = Card(self.size // MIB, self.read_only)
        position = 0
        while True:
            try:
                start = os.lseek(self._image, position, os.SEEK_DATA)
            except OSError:
                return twin
            end = os.lseek(self._image, start, os.SEEK_HOLE)
            position = start
            while position < end:
                data = os.pread(self._image, min(MIB, end - position), position)
                os.pwrite(twin._image, data, position)
                position += len(data)

    @property
    def stored(self) -> int:
        """How many bytes the image takes; it grows with each first write to a block."""
        return os.fstat(self._image).st_blocks * SECTOR_BYTES

    def read(self, offset: int, size: int) -> bytes:
        """Bytes of the image."""
        return os.pread(self._image, size, offset)

    def write(self, offset: int, data: bytes) -> None:
        """Overwrites bytes of the image."""
        os.pwrite(self._image, data, offset)

    def partition(self, *kinds: str, first_sector: int = FIRST_SECTOR) -> None:
        """Writes a DOS partition table with partitions of equal size and the given types.

        The first begins at @p first_sector (of 512 bytes).
        """
        lines = ["label: dos"]
        share = (self.size // SECTOR_BYTES - first_sector) // max(1, len(kinds)) // FIRST_SECTOR * FIRST_SECTOR
        for index, kind in enumerate(kinds):
            lines.append(f"start={first_sector + index * share}, size={share}, type={kind}")
        self.run_tool("sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", self.path,
                      standard_input="\n".join(lines) + "\n")

    def partitions(self) -> list[Partition]:
        """The partition table's entries; empty when there is no table."""
        result = self.run_tool("sfdisk", "--dump", self.path, check=False)
        found = []
        for line in result.stdout.splitlines():
            device, separator, fields = line.partition(" : ")
            if separator:
                values = dict(field.strip().split("=") for field in fields.split(",") if "=" in field)
                found.append(Partition(int(device.rsplit("p", 1)[1]), int(values["start"]) * SECTOR_BYTES,
                                       int(values["size"]) * SECTOR_BYTES, values["type"]))
        return found

    def make_fat(self, number: int) -> None:
        """Makes a FAT file system in a partition."""
        partition = self.partitions()[number - 1]
        self.run_tool("mkfs.vfat", "--offset", str(partition.offset // SECTOR_BYTES), "-n", "NEWCARD",
                      self.path, str(partition.size // 1024))

    def make_ext4(self, number: int, content: Path | None = None) -> None:
        """Makes an ext4 file system in a partition."""
        partition = self.partitions()[number - 1]
        options = ["-d", str(content)] if content else []
        self.run_tool("mkfs.ext4", "-q", "-F", "-E", f"offset={partition.offset},root_owner=0:0", *options,
                      self.path, f"{partition.size // 1024}k")

    def edit_ext4(self, *commands: str) -> None:
        """Damages the first partition's file system with commands of debugfs."""
        self.run_tool("debugfs", "-w", "-f", "-", self._file_system(),
                      standard_input="\n".join(commands) + "\n")

    def check(self) -> subprocess.CompletedProcess:
        """A full check of the first partition that changes nothing (e2fsck -fn)."""
        return self.run_tool("e2fsck", "-fn", self._file_system(), check=False)

    def is_clean(self) -> bool:
        """Whether check() finds no error, no journal to replay and no wrong count."""
        result = self.check()
        return result.returncode == 0 and not any(
            mark in result.stdout + result.stderr for mark in ("Fix?", "WARNING", "Warning", "error"))

    def list_files(self, directory: str = "/") -> list[str]:
        """The names in a directory of the first partition's ext4, without "." and ".."."""
        result = self.run_tool("debugfs", "-R", f"ls -p {directory}", self._file_system())
        names = [line.split("/")[5] for line in result.stdout.splitlines() if line.startswith("/")]
        return [name for name in names if name not in (".", "..")]

    def run_tool(self, *arguments: str, standard_input: str = "", check: bool = True) -> subprocess.CompletedProcess:
        """Runs a program of this machine that may open `path`."""
        return subprocess.run(arguments, input=standard_input, capture_output=True, text=True, check=check,
                              pass_fds=[self._image],
                              env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"})

    def _file_system(self) -> str:
        return f"{self.path}?offset={self.partitions()[0].offset}"
