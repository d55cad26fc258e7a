"""Connects this terminal to a program behind a socket."""

import os
import select
import socket
import sys
import termios
import tty

READ_BYTES = 65536


def relay_terminal(connection: socket.socket) -> None:
    """Passes on input and output until the other end closes the connection."""
    keyboard, screen = sys.stdin.fileno(), sys.stdout.fileno()
    settings = termios.tcgetattr(keyboard)
    tty.setraw(keyboard)
    try:
        while True:
            for source in select.select([keyboard, connection], [], [])[0]:
                data = os.read(keyboard, READ_BYTES) if source == keyboard else connection.recv(READ_BYTES)
                if not data:
                    return
                if source == keyboard:
                    connection.sendall(data)
                else:
                    os.write(screen, data)
    finally:
        termios.tcsetattr(keyboard, termios.TCSADRAIN, settings)
