"""A terminal in which a test runs a program, presses keys and reads the screen."""

import re
import shlex
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

POLL_SECONDS = 0.03
ENDED = r"ended with status (\d+), terminal (changed|as before)"
# Waits at the end, so that the screen can be read.
SCRIPT = """
trap : INT QUIT
before=$(stty -g)
sh -c 'echo $$ >"$0"; exec "$@"' {pid_file} {command}
status=$?
[ "$before" = "$(stty -g)" ] && terminal="as before" || terminal="changed"
echo
echo "ended with status $status, terminal $terminal"
sleep 1000
"""


class Terminal:
    """A terminal of its own for one command. Close it."""

    def __init__(self, directory: Path, command: list[str], environment: dict[str, str], columns: int = 80,
                 rows: int = 24) -> None:
        """Starts a command with this environment; @p directory is for files of the terminal."""
        self._socket = directory / "tmux"
        self._pid_file = directory / "pid"
        self._environment = environment
        script = SCRIPT.format(pid_file=shlex.quote(str(self._pid_file)), command=shlex.join(command))
        self._tmux("start-server", ";", "set-option", "-g", "default-terminal", "screen-256color", ";",
                   "new-session", "-d", "-x", str(columns), "-y", str(rows), "sh", "-c", script)

    def close(self) -> None:
        """Closes the terminal like a window: its programs get SIGHUP."""
        self._tmux("kill-server", check=False)

    @property
    def pid(self) -> int:
        """The command's process id."""
        deadline = time.monotonic() + 10
        while not (text := self._pid_file.read_text() if self._pid_file.exists() else ""):
            assert time.monotonic() < deadline, "the command was not started"
            time.sleep(POLL_SECONDS)
        return int(text)

    def press(self, *keys: str) -> None:
        """Presses keys, one after the other; some have names ("Tab", "Up", "Enter", "C-c")."""
        self._tmux("send-keys", *keys)

    def resize(self, columns: int, rows: int) -> None:
        """Changes the size of the terminal."""
        self._tmux("resize-window", "-x", str(columns), "-y", str(rows))

    def screen(self, colours: bool = False) -> str:
        """The text on the screen; with @p colours their escape sequences are in it."""
        return self._tmux("capture-pane", "-p", *(["-e"] if colours else []))

    def expect(self, *texts: str, within: float = 60) -> str:
        """Waits until all texts are on the screen at once, and returns the screen."""
        return self._until(lambda screen: all(text in screen for text in texts), " and ".join(texts), within)

    def expect_match(self, pattern: str, within: float = 60, colours: bool = False) -> re.Match:
        """Waits until a part of the screen matches a regular expression; @p colours as for screen()."""
        screen = self._until(lambda shown: bool(re.search(pattern, shown)), pattern, within, colours)
        return re.search(pattern, screen)

    def expect_end(self, within: float = 60) -> int:
        """Waits for the command's end, checks that it restored the terminal, and returns its exit status."""
        status, settings = self.expect_match(ENDED, within).groups()
        assert settings == "as before"
        # The normal screen, with a cursor.
        assert self._tmux("display-message", "-p", "#{alternate_on} #{cursor_flag}").split() == ["0", "1"]
        return int(status)

    def _until(self, condition: Callable[[str], bool], what: str, within: float, colours: bool = False) -> str:
        deadline = time.monotonic() + within
        while True:
            is_late = time.monotonic() > deadline
            if condition(screen := self.screen(colours)):
                return screen
            assert not is_late, f"not seen within {within} s: {what}\n{screen}"
            time.sleep(POLL_SECONDS)

    def _tmux(self, *arguments: str, check: bool = True) -> str:
        return subprocess.run(["tmux", "-u", "-S", str(self._socket), "-f", "/dev/null", *arguments], check=check,
                              env=self._environment, stdin=subprocess.DEVNULL, capture_output=True, text=True).stdout
