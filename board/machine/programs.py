"""Starts the machine's programs and reports how they ended."""

import os
import pwd
import signal
import subprocess


class Programs:
    """The machine's processes. The machine is their parent, like the first process of any system."""

    def __init__(self) -> None:
        self._status_pipes: dict[int, int] = {}
        self._wake_up, wake_up_writer = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        signal.set_wakeup_fd(wake_up_writer, warn_on_full_buffer=False)
        signal.signal(signal.SIGCHLD, lambda _number, _frame: None)

    def child_signal_descriptor(self) -> int:
        """Becomes readable when a process has ended; reap() then collects it."""
        return self._wake_up

    def start(self, arguments: list[str], environment: dict[str, str], user: str | None,
              descriptors: list[int]) -> int:
        """Starts a program in a session of its own.

        @p descriptors are its standard input, output and error, and a pipe to which the program's
        wait status is written in decimal when it ends. Returns the process id. Raises OSError.
        """
        standard_input, standard_output, standard_error, status_pipe = descriptors
        identity: dict = {}
        if user is not None:
            entry = pwd.getpwnam(user)
            identity = {"user": entry.pw_uid, "group": entry.pw_gid, "extra_groups": []}
        process = subprocess.Popen(arguments, env=environment, cwd="/", stdin=standard_input,
                                   stdout=standard_output, stderr=standard_error,
                                   start_new_session=True, **identity)
        # reap() collects the status, so Popen must not wait for it.
        process.returncode = 0
        self._status_pipes[process.pid] = os.dup(status_pipe)
        return process.pid

    def reap(self) -> None:
        """Collects every process that has ended."""
        try:
            os.read(self._wake_up, 4096)
        except BlockingIOError:
            pass
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            status_pipe = self._status_pipes.pop(pid, None)
            if status_pipe is not None:
                try:
                    os.write(status_pipe, str(status).encode())
                except BrokenPipeError:
                    pass
                os.close(status_pipe)
