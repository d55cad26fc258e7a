"""The test process's side of the connection to the agent of an emulated board."""

import itertools
import json
import os
import queue
import socket
import threading
from collections.abc import Callable

from .agent import frames

ANSWER_SECONDS = 60
HEARTBEAT_SECONDS = 1.0
READ_BYTES = 65536


class BoardGone(Exception):
    """The board does not answer: it was switched off or is blocked."""


class Link:
    """Sends requests and passes on what comes back. Any thread may use it."""

    def __init__(self, channel: socket.socket) -> None:
        self.ready = threading.Event()
        # Called with the values of the LEDs' files, in another thread.
        self.on_lights: Callable[[dict], None] = lambda _: None
        self._channel = channel
        self._numbers = itertools.count(1)
        self._sending = threading.Lock()
        self._answers: dict[int, queue.SimpleQueue] = {}
        self._listeners: dict[int, Callable[[int, bytes], None]] = {}
        self._closed = threading.Event()
        self._thread = threading.Thread(target=self._receive, name="board", daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Closes the connection; requests without an answer fail."""
        self._closed.set()
        try:
            self._channel.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._thread.join()
        self._channel.close()

    def ask(self, what: str, listener: Callable[[int, bytes], None] | None = None, number: int | None = None,
            within: float = ANSWER_SECONDS, **arguments: object) -> dict:
        """Sends the agent a request and returns its answer.

        @p listener is called in another thread with every frame that belongs to the request, also after the answer.
        Raises OSError with the board's reason, RuntimeError, and BoardGone.
        """
        number = number or next(self._numbers)
        answer = self._answers[number] = queue.SimpleQueue()
        if listener is not None:
            self._listeners[number] = listener
        try:
            self.send(frames.REQUEST, number, json.dumps({"do": what, **arguments}).encode())
            reply = answer.get(timeout=within)
        except (queue.Empty, OSError) as problem:
            raise BoardGone(f"no answer to '{what}'") from problem
        finally:
            del self._answers[number]
        if reply is None:
            raise BoardGone(f"the board was switched off ('{what}')")
        if "error" in reply:
            self._listeners.pop(number, None)
            if reply["errno"] is None:
                raise RuntimeError(reply["error"])
            raise OSError(reply["errno"], reply["error"])
        return reply

    def keep_awake(self) -> None:
        """Sends the board a frame every second, until the connection is closed.

        On a busy machine the emulator sometimes loses the board's next timer interrupt. The board then stops
        scheduling until another interrupt arrives.
        """
        threading.Thread(target=self._beat, name="heartbeat", daemon=True).start()

    def _beat(self) -> None:
        while not self._closed.wait(HEARTBEAT_SECONDS):
            try:
                self.send(frames.HEARTBEAT, 0, b"")
            except OSError:
                return

    def new_number(self) -> int:
        """A number for a request that the caller needs before it is sent."""
        return next(self._numbers)

    def forget(self, number: int) -> None:
        """Stops listening to a request."""
        self._listeners.pop(number, None)

    def send(self, kind: int, number: int, payload: bytes) -> None:
        """Sends one frame. Raises OSError when the board is gone."""
        with self._sending:
            self._channel.sendall(frames.pack(kind, number, payload))

    def _receive(self) -> None:
        reader = frames.Reader()
        while True:
            try:
                data = self._channel.recv(READ_BYTES)
            except OSError:
                data = b""
            if not data:
                break
            for kind, number, payload in reader.feed(data):
                self._dispatch(kind, number, payload)
        for answer in list(self._answers.values()):
            answer.put(None)
        for listener in list(self._listeners.values()):
            listener(frames.CLOSE, b"")

    def _dispatch(self, kind: int, number: int, payload: bytes) -> None:
        if kind == frames.READY:
            self.ready.set()
        elif kind == frames.LIGHTS:
            self.on_lights(json.loads(payload))
        elif kind == frames.ANSWER:
            if (answer := self._answers.get(number)) is not None:
                answer.put(json.loads(payload))
        elif (listener := self._listeners.get(number)) is not None:
            listener(kind, payload)


class SocketGate:
    """A socket of this machine that is forwarded to a socket of the board."""

    def __init__(self, link: Link, board_path: str, path: str) -> None:
        self._link = link
        self._board_path = board_path
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(path)
        self._listener.listen()
        threading.Thread(target=self._serve, name="gate", daemon=True).start()

    def close(self) -> None:
        """Accepts no more connections; open connections stay."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _serve(self) -> None:
        while True:
            try:
                visitor, _ = self._listener.accept()
            except OSError:
                return
            number = self._link.new_number()

            def to_visitor(kind: int, payload: bytes, visitor: socket.socket = visitor) -> None:
                try:
                    if kind == frames.DATA:
                        visitor.sendall(payload)
                    else:
                        visitor.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

            self._link.ask("connect", to_visitor, number, path=self._board_path)
            threading.Thread(target=self._from_visitor, args=(visitor, number), name="gate", daemon=True).start()

    def _from_visitor(self, visitor: socket.socket, number: int) -> None:
        with visitor:
            try:
                while data := visitor.recv(READ_BYTES):
                    self._link.send(frames.DATA, number, data)
                self._link.send(frames.CLOSE, number, b"")
            except OSError:
                pass
        self._link.forget(number)


class RemoteProgram:
    """Receives the output and the wait status of a program of the board."""

    def __init__(self, link: Link, number: int, output: int, errors: int, status_pipe: int) -> None:
        """The descriptors are duplicated."""
        self._link = link
        self._number = number
        self._output, self._errors, self._status_pipe = map(os.dup, (output, errors, status_pipe))

    def receive(self, kind: int, payload: bytes) -> None:
        """A link's listener."""
        if kind == frames.OUTPUT:
            os.write(self._output, payload)
        elif kind == frames.ERRORS:
            os.write(self._errors, payload)
        else:
            if kind == frames.END:
                os.write(self._status_pipe, payload)
            self._link.forget(self._number)
            self.close()

    def close(self) -> None:
        """Closes the descriptors."""
        for descriptor in (self._output, self._errors, self._status_pipe):
            os.close(descriptor)
