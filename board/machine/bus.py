"""The machine's system bus: the stock daemon with the stock configuration."""

import socket
import subprocess
import time

SOCKET = "/run/dbus/system_bus_socket"
MESSAGES = "/run/board/bus-messages"
START_SECONDS = 10


def start_message_bus() -> None:
    """Starts the daemon and returns when it accepts connections. Raises RuntimeError."""
    with open(MESSAGES, "wb") as messages:
        daemon = subprocess.Popen(["dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog"],
                                  stdin=subprocess.DEVNULL, stderr=messages, start_new_session=True)
    deadline = time.monotonic() + START_SECONDS
    while not _is_reachable():
        if daemon.poll() is not None or time.monotonic() > deadline:
            raise RuntimeError("the message bus daemon did not start")
        time.sleep(0.005)
    # Programs.reap() collects its status.
    daemon.returncode = 0


def _is_reachable() -> bool:
    with socket.socket(socket.AF_UNIX) as probe:
        try:
            probe.connect(SOCKET)
        except (FileNotFoundError, ConnectionRefusedError):
            return False
    return True
