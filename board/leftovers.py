"""What the service may have left on a board, and a board that is gone on this machine."""

import os
import re
from abc import ABC, abstractmethod
from collections.abc import Iterable
from pathlib import Path
from typing import TYPE_CHECKING

from .names import MOUNT_POINT

if TYPE_CHECKING:
    from .board import Board


class Leftovers(ABC):
    """The part of a board that tells what is left over."""

    # What ends (sh) when all that events of the kernel have started has ended.
    _settle = ":"

    def leftovers(self: "Board") -> list[str]:
        """What should not be there any more, in words.

        While the board is open: what the service, after its end, left on the board. Once it is
        closed: what the board left on this machine.
        """
        return self._remains_on_board() if self.is_open else self._remains_of_board()

    def _remains_on_board(self: "Board") -> list[str]:
        own = {str(process.pid) for process in self._started}
        # In one go, as each program's start takes a slow board its time.
        look = (f"{self._settle}; ps -e -o pid=,ppid=,stat=,args=; echo; cat /proc/mounts; echo; "
                f"[ ! -e {MOUNT_POINT} ] || echo {MOUNT_POINT}")
        processes, mounts, directory = self.run("sh", "-c", look).stdout.split("\n\n")
        remains = []
        for line in processes.splitlines():
            pid, parent, state, arguments = line.split(None, 3)
            if (pid == "1" or pid in own or parent in own or arguments == f"sh -c {look}"
                    or self._is_system_process(parent, arguments)):
                continue
            remains.append(f"process {pid} ({state}): {arguments}")
        remains += [f"mount: {line}" for line in self._card_mounts(mounts)]
        if directory:
            remains.append(f"directory: {directory.strip()}")
        return remains

    def _is_system_process(self, _parent: str, arguments: str) -> bool:
        return arguments.startswith(("ps -e", "dbus-daemon "))

    @abstractmethod
    def _remains_of_board(self) -> list[str]:
        """What the closed board left on this machine."""


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
