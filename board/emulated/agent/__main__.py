"""The first process of an emulated board: carries out the requests of the test process.

Both exchange frames over a serial port (see frames.py). Every request has a number. The answer has the same number,
and so have all later frames of the request: a program's output and wait status, the bytes of a connection.
"""

import base64
import json
import os
import selectors
import socket
import time
from typing import Callable

import frames
from file_systems import install_files
from lights import Lights
from programs import Programs
from system_log import SystemLog

PORT = "/dev/virtio-ports/board"
READ_BYTES = 65536


class Agent:
    """Serves requests until the board is switched off."""

    def __init__(self) -> None:
        self._port = os.open(PORT, os.O_RDWR | os.O_CLOEXEC)
        self._reader = frames.Reader()
        self._selector = selectors.DefaultSelector()
        self._programs = Programs()
        self._log = SystemLog()
        self._connections: dict[int, socket.socket] = {}

    def run(self) -> None:
        """Never returns."""
        self._log.open()
        self._watch(self._port, self._serve_port)
        self._watch(self._log, self._log.drain)
        self._watch(self._programs.child_signal_descriptor(), self._programs.reap)
        self._send(frames.READY, 0, b"")
        while True:
            for key, _ in self._selector.select():
                # An earlier action of this round may have closed it.
                if key.fd in self._selector.get_map():
                    key.data()

    def _watch(self, source: object, action: Callable[[], object]) -> None:
        self._selector.register(source, selectors.EVENT_READ, action)

    def _send(self, kind: int, number: int, payload: bytes) -> None:
        data = frames.pack(kind, number, payload)
        while data:
            data = data[os.write(self._port, data):]

    def _serve_port(self) -> None:
        data = os.read(self._port, READ_BYTES)
        if not data:
            # The port stays readable while nobody is connected.
            time.sleep(0.05)
        for kind, number, payload in self._reader.feed(data):
            if kind == frames.REQUEST:
                self._serve_request(number, payload)
            elif kind == frames.DATA and number in self._connections:
                self._pass_on(number, payload)
            elif kind == frames.CLOSE:
                self._disconnect(number)

    def _serve_request(self, number: int, payload: bytes) -> None:
        try:
            request = json.loads(payload)
            answer = getattr(self, "_do_" + request.pop("do"))(number, **request) or {}
        except (OSError, ValueError, KeyError, TypeError, AttributeError) as problem:
            answer = {"error": str(problem), "errno": getattr(problem, "errno", None)}
        self._send(frames.ANSWER, number, json.dumps(answer).encode())

    def _do_start(self, number: int, arguments: list[str], environment: dict[str, str], user: str | None,
                  standard_input: str) -> dict:
        given = os.memfd_create("stdin")
        os.write(given, base64.b64decode(standard_input))
        os.lseek(given, 0, os.SEEK_SET)
        pipes = [os.pipe2(os.O_CLOEXEC) for _ in range(3)]
        writers = [writer for _, writer in pipes]
        try:
            pid = self._programs.start(arguments, environment, user, [given, *writers])
        except BaseException:
            for reader, _ in pipes:
                os.close(reader)
            raise
        finally:
            for descriptor in (given, *writers):
                os.close(descriptor)
        output, errors, status = (reader for reader, _ in pipes)
        for reader, kind in ((output, frames.OUTPUT), (errors, frames.ERRORS)):
            os.set_blocking(reader, False)
            self._watch(reader, lambda reader=reader, kind=kind: self._forward_output(number, reader, kind))
        self._watch(status, lambda: self._report_end(number, status, output, errors))
        return {"pid": pid}

    def _forward_output(self, number: int, reader: int, kind: int) -> bool:
        try:
            data = os.read(reader, READ_BYTES)
        except BlockingIOError:
            return False
        if data:
            self._send(kind, number, data)
            return True
        self._selector.unregister(reader)
        os.close(reader)
        return False

    def _report_end(self, number: int, status: int, output: int, errors: int) -> None:
        # The program's last output comes first. The pipes may stay open, as a descendant may have them.
        for reader, kind in ((output, frames.OUTPUT), (errors, frames.ERRORS)):
            while reader in self._selector.get_map() and self._forward_output(number, reader, kind):
                pass
        self._send(frames.END, number, os.read(status, 32))
        self._selector.unregister(status)
        os.close(status)

    def _do_kill(self, _number: int, pid: int, signal: int) -> None:
        os.kill(pid, signal)

    def _do_connect(self, number: int, path: str) -> None:
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.connect(path)
        self._connections[number] = connection
        self._watch(connection, lambda: self._forward_data(number))

    def _forward_data(self, number: int) -> None:
        data = self._connections[number].recv(READ_BYTES)
        if data:
            self._send(frames.DATA, number, data)
        else:
            self._disconnect(number)
            self._send(frames.CLOSE, number, b"")

    def _pass_on(self, number: int, payload: bytes) -> None:
        try:
            self._connections[number].sendall(payload)
        except OSError:
            self._disconnect(number)

    def _disconnect(self, number: int) -> None:
        connection = self._connections.pop(number, None)
        if connection is not None:
            self._selector.unregister(connection)
            connection.close()

    def _do_read(self, number: int, path: str, offset: int) -> dict:
        """A file's size; its content from an offset on follows as a DATA frame."""
        with open(path, "rb") as file:
            file.seek(offset)
            data = file.read()
            size = os.fstat(file.fileno()).st_size
        self._send(frames.DATA, number, data)
        return {"size": size}

    def _do_install(self, _number: int, files: dict[str, dict]) -> None:
        install_files(files)

    def _do_set_clock(self, _number: int, seconds: float) -> None:
        time.clock_settime(time.CLOCK_REALTIME, seconds)

    def _do_watch_lights(self, _number: int, names: list[str]) -> None:
        lights = Lights(names)
        self._watch(lights, lambda: self._report_lights(lights))
        self._report_lights(lights)

    def _report_lights(self, lights: Lights) -> None:
        self._send(frames.LIGHTS, 0, json.dumps(lights.read()).encode())


Agent().run()
