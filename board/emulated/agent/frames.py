"""The frames between the test process and an emulated board. Both ends use this file."""

import struct
from collections.abc import Iterator

# Kind, the number of the request that it belongs to, size of the payload in bytes.
HEADER = struct.Struct(">BII")

REQUEST, ANSWER, READY, OUTPUT, ERRORS, END, DATA, CLOSE, LIGHTS, HEARTBEAT = range(10)


def pack(kind: int, number: int, payload: bytes) -> bytes:
    """One frame."""
    return HEADER.pack(kind, number, len(payload)) + payload


class Reader:
    """Cuts a stream of bytes into frames."""

    def __init__(self) -> None:
        self._data = bytearray()

    def feed(self, data: bytes) -> Iterator[tuple[int, int, bytes]]:
        """Takes more bytes and yields each complete frame: kind, number, payload."""
        self._data += data
        while len(self._data) >= HEADER.size:
            kind, number, size = HEADER.unpack_from(self._data)
            end = HEADER.size + size
            if len(self._data) < end:
                return
            payload = bytes(self._data[HEADER.size:end])
            del self._data[:end]
            yield kind, number, payload
