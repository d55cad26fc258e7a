"""The machine's system log: all that programs send to /dev/log, one entry a line."""

import os
import socket

SYSTEM_LOG = "/run/board/syslog"
MAX_ENTRY_BYTES = 65536


class SystemLog:
    """A selectable socket at /dev/log."""

    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setblocking(False)

    def fileno(self) -> int:
        """The descriptor to wait on."""
        return self._socket.fileno()

    def open(self) -> None:
        """Opens /dev/log."""
        self._socket.bind("/dev/log")
        os.chmod("/dev/log", 0o666)

    def drain(self) -> None:
        """Stores all pending entries."""
        with open(SYSTEM_LOG, "ab") as log:
            while True:
                try:
                    log.write(self._socket.recv(MAX_ENTRY_BYTES).rstrip(b"\0\n") + b"\n")
                except BlockingIOError:
                    return
