"""systemd as the first process of a system of its own on a board.

The system has namespaces of its own below the board's, including the network, and cannot write to the
kernel's settings or to sysfs: its programs do not affect this machine.
"""

import signal
import subprocess
import uuid
from collections.abc import Callable

from board import Process, VirtualBoard
from board.bus import BusClient
from board.names import SYSTEM_BUS_SOCKET

BOOT_SECONDS = 60
READY = ("running", "degraded")

# The units that the service needs, without udev, kernel settings, time and network.
PREPARE = r"""
set -e
cd /lib/systemd/system
rm -rf sysinit.target.wants multi-user.target.wants basic.target.wants timers.target.wants local-fs.target.wants
find /etc/systemd/system -path '*.wants/*' ! -name 'sdcardd.service' -delete
find /lib/systemd/system-generators /usr/lib/systemd/system-generators -type f ! -name '*sysv*' -delete
find sockets.target.wants -type l ! -name 'dbus.socket' ! -name 'systemd-journald*.socket' -delete
"""

BOOT = r"""
set -e
mkdir -p /run/board/cgroups
mount -t cgroup2 none /run/board/cgroups
own=/run/board/cgroups$(sed -n 's/^0:://p' /proc/self/cgroup)/$1
mkdir "$own"
echo $$ >"$own/cgroup.procs"
exec unshare --pid --mount --net --uts --ipc --cgroup --fork --kill-child --mount-proc sh -ec '
    mount --bind /proc/sys /proc/sys
    mount -o remount,bind,ro /proc/sys
    umount /run/board/cgroups
    mount -t cgroup2 none /sys/fs/cgroup
    mount -o remount,bind,ro /sys
    mount --make-rshared /
    rm -f /run/dbus/system_bus_socket
    exec env container=board /lib/systemd/systemd --system --unit=multi-user.target --show-status=no'
"""
FORGET_CGROUPS = 'find /run/board/cgroups$(sed -n "s/^0:://p" /proc/self/cgroup)/"$1" -depth -type d -exec rmdir {} +'


class SystemdSystem:
    """Has the board's card slot, LEDs and button, and systemd in charge. Use it in a with statement."""

    def __init__(self, board: VirtualBoard) -> None:
        """Boots and returns when all enabled units have started. Raises Unexpected."""
        self._board = board
        self._name = f"sdcardd-board-{uuid.uuid4().hex[:12]}"
        self._first_process = ""
        board.run("sh", "-c", PREPARE, check=True)
        self._boot = board.start("sh", "-c", BOOT, "sh", self._name)
        try:
            board.expect("systemd is up", self._is_up, within=BOOT_SECONDS)
        except BaseException:
            print(self._boot.output, self._boot.errors)
            self.close()
            raise
        self.connect_to_bus()

    def __enter__(self) -> "SystemdSystem":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends systemd and everything that it has started."""
        self._board.bus.close()
        self._boot.stop(signal.SIGKILL)
        self._board.expect("its processes have gone", lambda: self._board.run(
            "sh", "-c", FORGET_CGROUPS, "sh", self._name).returncode == 0)

    def connect_to_bus(self) -> None:
        """Connects the board to this system's bus, after each start of the bus."""
        self._board.bus.close()
        self._board.bus = BusClient(f"/proc/{self._board.host_pid}/root{SYSTEM_BUS_SOCKET}", self._board._notify)

    def run(self, *command: str, check: bool = True, within: float = 60) -> subprocess.CompletedProcess:
        """Runs a program in this system to its end."""
        return self._board.run("nsenter", "--target", self._first_process, "--all", "--", *command,
                               check=check, within=within)

    def start(self, *command: str) -> Process:
        """Starts a program in this system."""
        return self._board.start("nsenter", "--target", self._first_process, "--all", "--", *command)

    def wait_for(self, condition: Callable[[], bool]) -> None:
        """Waits until a condition is true. Raises Unexpected."""
        self._board.expect("the condition", condition)

    def power_off(self, within: float = 60) -> None:
        """Shuts down and waits for the end."""
        self._board.bus.close()
        self.run("systemctl", "--no-block", "poweroff")
        self._boot.wait(within)

    def show(self, unit: str, name: str) -> str:
        """A property of a unit."""
        return self.run("systemctl", "show", "--value", f"--property={name}", unit).stdout.strip()

    def _is_up(self) -> bool:
        if not self._first_process:
            children = self._board.run("ps", "--ppid", str(self._boot.pid), "-o", "pid=,comm=").stdout
            self._first_process = next((line.split()[0] for line in children.splitlines() if "systemd" in line), "")
        return bool(self._first_process) and self.run(
            "systemctl", "is-system-running", check=False).stdout.strip() in READY
