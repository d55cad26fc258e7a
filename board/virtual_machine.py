"""The machine behind a virtual board: namespaces of its own on this machine's kernel."""

import json
import os
import socket
import subprocess
import threading
from pathlib import Path

from .process import Process

MACHINE_PROGRAM = Path(__file__).parent / "machine"
MAX_REPLY_BYTES = 200_000
REPLY_SECONDS = 30


class MachineError(Exception):
    """The machine could not carry out a request."""


class VirtualMachine:
    """Starts the namespaces' first process, sends it requests and ends it."""

    def __init__(self, service: str, program: Path | None, files: dict[str, dict], shared: Path | None = None) -> None:
        """Starts a machine on which @p program appears as @p service, with @p files.

        The directory @p shared is this machine's own, at the same path. Raises MachineError.
        """
        self._control, machine_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._control.settimeout(REPLY_SECONDS)
        self._lock = threading.Lock()
        with machine_end:
            self._launcher = subprocess.Popen(
                ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--propagation", "private",
                 "/usr/bin/python3", "-E", "-s", "-S", "-B", str(MACHINE_PROGRAM), str(machine_end.fileno())],
                stdin=subprocess.DEVNULL, pass_fds=[machine_end.fileno()], start_new_session=True,
                env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
        try:
            reply = self._ask("build", service=service, program=program and str(program), files=files,
                              shared=shared and str(shared))
            self.host_pid: int = reply["host_pid"]
            self.namespace = os.readlink(f"/proc/{self.host_pid}/ns/pid")
        except BaseException:
            self.power_off()
            raise

    def power_off(self) -> None:
        """Ends the machine with everything on it. The kernel undoes its mounts and devices."""
        self._control.close()
        self._launcher.wait()

    def insert(self, image: int, read_only: bool) -> None:
        """Puts the card image behind the descriptor @p image into the slot."""
        self._ask("insert", [image], read_only=read_only)

    def pull(self) -> None:
        """Takes the card out of the slot."""
        self._ask("pull")

    def start(self, arguments: list[str], environment: dict[str, str], user: str | None,
              standard_input: bytes) -> Process:
        """Starts a program with the given standard input. Raises MachineError."""
        process = Process(arguments, standard_input, self.signal)
        with process.status_pipe_writer() as status_pipe:
            pid = self._ask("start", [*process.standard_descriptors(), status_pipe.fileno()],
                            arguments=arguments, environment=environment, user=user)["pid"]
        process.pid = pid
        return process

    def signal(self, pid: int, number: int) -> None:
        """Sends a signal to a process of the machine; does nothing when it has ended."""
        try:
            self._ask("kill", pid=pid, number=number)
        except ProcessLookupError:
            pass

    def path_from_host(self, path: str) -> Path:
        """The path on this machine of a path on the other. No part of it may be an absolute link."""
        return Path(f"/proc/{self.host_pid}/root{path}")

    def _ask(self, what: str, descriptors: list[int] | None = None, **arguments: object) -> dict:
        request = json.dumps({"do": what, **arguments}).encode()
        try:
            with self._lock:
                socket.send_fds(self._control, [request], descriptors or [])
                data = self._control.recv(MAX_REPLY_BYTES)
        except OSError as problem:
            raise MachineError(f"no answer to '{what}': {problem}") from problem
        if not data:
            raise MachineError(f"the machine has gone ('{what}')")
        reply = json.loads(data)
        if "error" in reply:
            if reply["errno"] is not None:
                raise OSError(reply["errno"], reply["error"])
            raise MachineError(reply["error"])
        return reply
