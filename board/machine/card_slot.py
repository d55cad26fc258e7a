"""The machine's card slot: a loop device with the names of an MMC host's card."""

import errno
import fcntl
import os
import re
import shutil
import struct
import subprocess
from pathlib import Path

from file_systems import mount

LOOP_CTL_GET_FREE = 0x4C82
LOOP_CONFIGURE = 0x4C0A
LOOP_SET_STATUS64 = 0x4C04
LOOP_MAJOR = 7
LO_FLAGS_READ_ONLY, LO_FLAGS_AUTOCLEAR, LO_FLAGS_PARTSCAN = 1, 4, 8

CARD = "mmcblk0"
BLOCK_CLASS = Path("/sys/class/block")
DEVICE_NUMBERS = Path("/sys/dev/block")
MMC_DEVICES = Path("/sys/bus/mmc/devices")
MMC_CARD = "mmc0:0001"


def _loop_info(flags: int, size_limit_bytes: int = 0) -> bytes:
    """struct loop_info64 with everything but the size limit and the flags zero."""
    return struct.pack("<5Q4I", 0, 0, 0, 0, size_limit_bytes, 0, 0, 0, flags) + bytes(64 + 64 + 32 + 16)


class CardSlot:
    """Inserts card images and pulls them, and keeps /dev and sysfs up to date, as the kernel and udev do."""

    def __init__(self) -> None:
        self._loop_control = os.open("/dev/loop-control", os.O_RDWR | os.O_CLOEXEC)
        self._loop_number: int | None = None
        self._device = -1
        self._flags = 0

    def power_on(self) -> None:
        """Creates the slot's own parts of sysfs."""
        # While a pulled loop device is in use, the kernel keeps it, unlike a pulled card.
        for directory in (BLOCK_CLASS, DEVICE_NUMBERS):
            mount("tmpfs", str(directory), "tmpfs", options="mode=0755")
        mount("tmpfs", "/sys/bus", "tmpfs", options="mode=0755")
        MMC_DEVICES.mkdir(parents=True)

    def insert(self, image: int, read_only: bool) -> int:
        """Inserts the card with the descriptor @p image; returns the loop device's number."""
        if self._loop_number is not None:
            raise RuntimeError("there is a card in the slot already")
        self._flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_PARTSCAN | (LO_FLAGS_READ_ONLY if read_only else 0)
        while self._loop_number is None:
            number = fcntl.ioctl(self._loop_control, LOOP_CTL_GET_FREE)
            os.mknod(f"/dev/{CARD}", 0o60660, os.makedev(LOOP_MAJOR, number))
            self._device = os.open(f"/dev/{CARD}", os.O_RDWR | os.O_CLOEXEC)
            try:
                fcntl.ioctl(self._device, LOOP_CONFIGURE,
                            struct.pack("<II", image, 0) + _loop_info(self._flags) + bytes(64))
                self._loop_number = number
            except OSError as problem:
                os.close(self._device)
                os.unlink(f"/dev/{CARD}")
                # Another board has taken this loop device in the meantime.
                if problem.errno != errno.EBUSY:
                    raise
        self._add_to_sysfs(CARD, f"{LOOP_MAJOR}:{self._loop_number}", f"loop{self._loop_number}")
        sysfs_device = BLOCK_CLASS / CARD / "device"
        sysfs_device.mkdir()
        (MMC_DEVICES / MMC_CARD).symlink_to(sysfs_device)
        # Some kernels do not read DOS partition tables themselves.
        subprocess.run(["partx", "--add", f"/dev/{CARD}"], capture_output=True, check=False)
        self.update_device_nodes()
        return self._loop_number

    def pull(self) -> None:
        """Removes the card; programs that use it get I/O errors from now on."""
        if self._loop_number is None:
            raise RuntimeError("there is no card in the slot")
        for partition in self._partitions():
            # A partition in use cannot be deleted, so it shrinks to one sector: every access fails.
            subprocess.run(["resizepart", f"/dev/{CARD}", str(partition), "1"], capture_output=True, check=False)
        fcntl.ioctl(self._device, LOOP_SET_STATUS64, _loop_info(self._flags, size_limit_bytes=1))
        self._loop_number = None
        self.update_device_nodes()
        for entry in DEVICE_NUMBERS.iterdir():
            entry.unlink()
        (MMC_DEVICES / MMC_CARD).unlink()
        shutil.rmtree(BLOCK_CLASS / CARD)
        os.unlink(f"/dev/{CARD}")
        os.close(self._device)

    def update_device_nodes(self) -> None:
        """Creates and removes names until they match the partitions that the kernel knows."""
        wanted = {f"{CARD}p{number}": device for number, device in self._partitions().items()}
        for path in Path("/dev").glob(f"{CARD}p*"):
            device = path.stat().st_rdev
            if wanted.get(path.name) != f"{os.major(device)}:{os.minor(device)}":
                path.unlink()
                (DEVICE_NUMBERS / f"{os.major(device)}:{os.minor(device)}").unlink()
                (BLOCK_CLASS / path.name).unlink()
                shutil.rmtree(BLOCK_CLASS / CARD / path.name)
        for name, device in wanted.items():
            if not os.path.exists(f"/dev/{name}"):
                loop = f"loop{self._loop_number}"
                self._add_to_sysfs(f"{CARD}/{name}", device, f"{loop}/{name.replace(CARD, loop)}")
                (BLOCK_CLASS / name).symlink_to(f"{CARD}/{name}")
                major, minor = map(int, device.split(":"))
                os.mknod(f"/dev/{name}", 0o60660, os.makedev(major, minor))

    def _partitions(self) -> dict[int, str]:
        """The partitions that the kernel knows, with their device numbers as "major:minor"."""
        if self._loop_number is None:
            return {}
        loop = f"loop{self._loop_number}"
        found = {}
        for entry in os.listdir(f"/sys/block/{loop}"):
            if match := re.fullmatch(loop + r"p(\d+)", entry):
                try:
                    found[int(match[1])] = Path(f"/sys/block/{loop}/{entry}/dev").read_text().strip()
                except OSError:
                    continue
        return found

    @staticmethod
    def _add_to_sysfs(name: str, device: str, loop_device: str) -> None:
        directory = BLOCK_CLASS / name
        directory.mkdir()
        (directory / "dev").write_text(device + "\n")
        (DEVICE_NUMBERS / device).symlink_to(f"/sys/devices/virtual/block/{loop_device}")
