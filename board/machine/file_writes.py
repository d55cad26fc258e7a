"""Events of files that a program has written to and closed (inotify). Used by the test process and on the boards."""

import ctypes
import os
import struct
from collections.abc import Iterable

IN_CLOSE_WRITE = 0x8
EVENT_HEADER = struct.Struct("iIII")
READ_BYTES = 65536


class FileWrites:
    """A selectable source of the writes to the files of some directories."""

    def __init__(self, directories: Iterable[str | os.PathLike]) -> None:
        """Raises OSError when a directory cannot be watched."""
        libc = ctypes.CDLL(None, use_errno=True)
        self._inotify = libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        if self._inotify < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        self._directories: dict[int, str] = {}
        for directory in directories:
            watch = libc.inotify_add_watch(self._inotify, os.fsencode(directory), IN_CLOSE_WRITE)
            if watch < 0:
                raise OSError(ctypes.get_errno(), f"cannot watch {directory}")
            self._directories[watch] = os.fspath(directory)

    def fileno(self) -> int:
        """The descriptor to wait on."""
        return self._inotify

    def read(self) -> list[tuple[str, str]]:
        """The writes since the last call, in order: directory and file name. Does not wait."""
        try:
            data = os.read(self._inotify, READ_BYTES)
        except BlockingIOError:
            return []
        writes = []
        position = 0
        while position < len(data):
            watch, _, _, length = EVENT_HEADER.unpack_from(data, position)
            position += EVENT_HEADER.size
            name = data[position:position + length].rstrip(b"\0").decode()
            position += length
            if watch in self._directories:
                writes.append((self._directories[watch], name))
        return writes

    def close(self) -> None:
        """Ends the watch."""
        os.close(self._inotify)
