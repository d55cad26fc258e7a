"""Possible leftovers of a virtual board on this machine."""

import os
import re
from collections.abc import Iterable
from pathlib import Path


def remains_on_host(namespace: str, card_names: Iterable[str]) -> list[str]:
    """In words: processes of a process namespace, loop devices of cards, mounts of any board."""
    remains = [f"process {pid}" for pid in _processes_in(namespace)]
    for backing_file in Path("/sys/block").glob("loop*/loop/backing_file"):
        try:
            image = backing_file.read_text()
        except OSError:
            continue
        if any(name in image for name in card_names):
            remains.append(f"loop device {backing_file.parts[3]}")
    mounts = Path("/proc/self/mounts").read_text()
    return remains + [f"mount: {line}" for line in mounts.splitlines() if re.search("mmcblk0|sdcardd-board", line)]


def _processes_in(namespace: str) -> list[int]:
    found = []
    for entry in Path("/proc").iterdir():
        if entry.name.isdecimal():
            try:
                if os.readlink(entry / "ns/pid") == namespace:
                    found.append(int(entry.name))
            except OSError:
                continue
    return found
