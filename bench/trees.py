"""Card images full of small files, made once and kept for the next time."""

import os
import random
import shutil
import subprocess
import time
from pathlib import Path

CACHE = Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "sdcardd" / "bench"
MOUNT_OPTIONS = "noatime,data=journal,nodelalloc,journal_checksum"  # those of the service
FILE_SIZE = 1000
PAUSE_SECONDS = 1.0
DEEP_LEVELS = 200

# Shares of the files to delete. A gap in the change times follows each, for a tool that deletes by age.
SHARES = (0.01, 0.1, 0.9)


def directories_of(shape: str) -> list[str]:
    """The directories of a shape: a tenth of the files in each of ten, all in one, or a deep chain."""
    if shape == "tenths":
        return [f"tree/part-{i}" for i in range(10)]
    if shape == "flat":
        return ["tree/all"]
    if shape == "deep":
        return ["tree" + "/level" * level for level in range(1, DEEP_LEVELS + 1)]
    raise ValueError(shape)


class CardImage:
    """An ext4 image with `tree` in it. Once mounted, it is at self.tree."""

    def __init__(self, shape: str, files: int) -> None:
        self.shape, self.files = shape, files
        self.template = CACHE / f"{shape}-{files}.img"
        self.copy = CACHE / "work.img"
        self.mount_point = CACHE / "mnt"
        self.tree = self.mount_point / "tree"
        self.cuts: dict[float, float] = {}

    def make(self) -> None:
        """Makes the template if it is missing, and reads the times of its gaps."""
        self.mount_point.mkdir(parents=True, exist_ok=True)
        self.unmount()
        if not self.template.exists():
            unfinished = self.template.with_suffix(".unfinished")
            with open(unfinished, "wb") as image:
                image.truncate(max(256 << 20, self.files * 1024))
            subprocess.run(["mkfs.ext4", "-q", "-F", "-N", str(int(self.files * 1.1) + 1000), unfinished], check=True)
            self._mount(unfinished)
            try:
                self._fill()
            finally:
                self.unmount()
            unfinished.rename(self.template)
        self.mount()
        text = (self.mount_point / "cuts").read_text().split()
        self.cuts = dict(zip(SHARES, map(float, text)))

    def _fill(self) -> None:
        directories = directories_of(self.shape)
        for directory in directories:
            (self.mount_point / directory).mkdir(parents=True)
        numbers = list(range(self.files))
        random.Random(self.files).shuffle(numbers)
        pauses = {int(share * self.files) for share in SHARES}
        cuts = []
        descriptors = [os.open(self.mount_point / directory, os.O_RDONLY) for directory in directories]
        for position, number in enumerate(numbers):
            if position in pauses:
                time.sleep(PAUSE_SECONDS)
                cuts.append(time.time())
                time.sleep(PAUSE_SECONDS)
            name = f"record-of-channel-{number % 16:02d}-{number:010d}.csv"
            descriptor = os.open(name, os.O_CREAT | os.O_WRONLY, 0o644, dir_fd=descriptors[number % len(descriptors)])
            os.ftruncate(descriptor, FILE_SIZE)
            os.close(descriptor)
        for descriptor in descriptors:
            os.close(descriptor)
        (self.mount_point / "cuts").write_text(" ".join(map(str, cuts)))

    def _mount(self, image: Path) -> None:
        # Direct I/O, so that pages are not cached twice.
        device = subprocess.run(["losetup", "--find", "--show", "--direct-io=on", image], check=True,
                                capture_output=True, text=True).stdout.strip()
        try:
            subprocess.run(["mount", "-t", "ext4", "-o", MOUNT_OPTIONS, device, self.mount_point], check=True)
        finally:
            subprocess.run(["losetup", "--detach", device], check=True)  # takes effect with the unmount

    def mount(self) -> None:
        """Mounts the template with an empty cache."""
        self.unmount()
        self._mount(self.template)

    def mount_fresh_copy(self) -> None:
        """Mounts a copy that may be changed."""
        self.unmount()
        subprocess.run(["cp", "--sparse=always", self.template, self.copy], check=True)
        self._mount(self.copy)
        self.tree.stat()

    def mount_warm_copy(self) -> None:
        """Mounts a copy that may be changed, with its status records cached."""
        self.mount_fresh_copy()
        subprocess.run(["find", self.tree, "-printf", "%C@"], check=True, stdout=subprocess.DEVNULL)

    def unmount(self) -> None:
        """Unmounts what is mounted."""
        while os.path.ismount(self.mount_point):
            subprocess.run(["umount", self.mount_point], check=True)

    def close(self) -> None:
        """Unmounts and removes the copy; the template stays."""
        self.unmount()
        self.copy.unlink(missing_ok=True)


def forget() -> None:
    """Removes all images."""
    shutil.rmtree(CACHE, ignore_errors=True)
