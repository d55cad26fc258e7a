"""The first process of a virtual board's machine.

Runs as process 1 of new mount and process namespaces, turns them into a device, and serves the requests of the
test process on a socket; the socket's descriptor is the only argument. When the test process ends, the socket
closes and the machine ends too.
"""

import json
import os
import selectors
import signal
import socket
import sys

from bus import start_message_bus
from card_slot import CardSlot
from file_systems import build_root, install_files
from kernel_events import KernelEvents
from programs import Programs
from system_log import SystemLog

MAX_REQUEST_BYTES = 200_000
MAX_DESCRIPTORS = 8


class Machine:
    """Serves requests. Each is a JSON object with "do" and its arguments, and may carry descriptors."""

    def __init__(self, control: socket.socket) -> None:
        self._control = control
        self._programs = Programs()
        self._slot = CardSlot()
        self._events = KernelEvents()
        self._log = SystemLog()

    def run(self) -> None:
        """Serves until the other end of the control socket is closed."""
        child_signal = self._programs.child_signal_descriptor()
        with selectors.DefaultSelector() as selector:
            for source in (self._control, self._events, self._log, child_signal):
                selector.register(source, selectors.EVENT_READ)
            while True:
                for key, _ in selector.select():
                    if key.fileobj is self._control:
                        if not self._serve_request():
                            return
                    elif key.fileobj is self._events:
                        if self._events.drain():
                            self._slot.update_device_nodes()
                    elif key.fileobj is self._log:
                        self._log.drain()
                    else:
                        self._programs.reap()

    def _serve_request(self) -> bool:
        data, descriptors, _, _ = socket.recv_fds(self._control, MAX_REQUEST_BYTES, MAX_DESCRIPTORS)
        if not data:
            return False
        try:
            request = json.loads(data)
            action = getattr(self, "_do_" + request.pop("do"))
            reply = action(descriptors, **request) or {}
        except (OSError, ValueError, RuntimeError) as problem:
            reply = {"error": str(problem), "errno": getattr(problem, "errno", None)}
        finally:
            for descriptor in descriptors:
                os.close(descriptor)
        self._control.send(json.dumps(reply).encode())
        return True

    def _do_build(self, _descriptors: list[int], service: str, program: str | None, shared: str | None,
                  files: dict[str, dict]) -> dict:
        host_pid = int(os.readlink("/proc/self"))
        build_root(service, program, shared)
        self._slot.power_on()
        install_files(files)
        self._log.open()
        start_message_bus()
        return {"host_pid": host_pid}

    def _do_insert(self, descriptors: list[int], read_only: bool) -> dict:
        return {"loop_device": self._slot.insert(descriptors[0], read_only)}

    def _do_pull(self, _descriptors: list[int]) -> None:
        self._slot.pull()

    def _do_start(self, descriptors: list[int], arguments: list[str], environment: dict[str, str],
                  user: str | None) -> dict:
        return {"pid": self._programs.start(arguments, environment, user, descriptors)}

    def _do_kill(self, _descriptors: list[int], pid: int, number: int) -> None:
        os.kill(pid, number)


def main() -> None:
    # The kernel does not deliver signals without a handler to a namespace's first process.
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    Machine(socket.socket(fileno=int(sys.argv[1]))).run()


main()
