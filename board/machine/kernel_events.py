"""The kernel's events for added and removed devices."""

import re
import socket

NETLINK_KOBJECT_UEVENT = 15
KERNEL_GROUP = 1
MAX_EVENT_BYTES = 16384


class KernelEvents:
    """A selectable source of the kernel's device events."""

    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, NETLINK_KOBJECT_UEVENT)
        self._socket.setblocking(False)
        self._socket.bind((0, KERNEL_GROUP))

    def fileno(self) -> int:
        """The descriptor to wait on."""
        return self._socket.fileno()

    def drain(self) -> bool:
        """Reads all pending events; returns whether one concerns a loop device's partition."""
        found = False
        while True:
            try:
                event = self._socket.recv(MAX_EVENT_BYTES)
            except BlockingIOError:
                return found
            except OSError:
                # Events were lost: assume the worst.
                found = True
                continue
            if re.search(rb"/block/loop\d+/loop\d+p\d+\0", event):
                found = True
