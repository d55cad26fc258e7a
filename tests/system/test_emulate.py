"""The emulated board in a terminal: its panel and its shell."""

from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from conftest import ROOT
from terminal import Terminal

pytestmark = pytest.mark.emulated  # tests the display of that board

ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8", "PYTHONPATH": str(ROOT)}
GREEN_LIT = r"\x1b\[1m\x1b\[38;5;46m.*●"
START_SECONDS = 120


@pytest.fixture
def open_terminal(tmp_path: Path, program: Path) -> Iterator[Callable[[str], Terminal]]:
    """Opens the panel or the shell in a terminal."""
    terminals: list[Terminal] = []

    def open_with(shown: str) -> Terminal:
        command = ["/usr/bin/python3", "-B", "-m", shown, "--emulated", str(program)]
        terminals.append(Terminal(tmp_path, command, ENVIRONMENT))
        return terminals[-1]
    yield open_with
    for terminal in terminals:
        terminal.close()


def test_the_panel_shows_a_cards_life_and_the_light_at_the_pins(open_terminal):
    panel = open_terminal("panel")
    panel.expect("The emulated board", "State       NO_CARD", within=START_SECONDS)
    panel.press("i")
    panel.expect("State       MOUNTED", "signal CardMounted", "red    card activity", within=START_SECONDS)
    panel.press("b")
    panel.expect("State       UNMOUNTED", "Safe to pull now")
    panel.expect_match(GREEN_LIT, colours=True)
    panel.press("q")
    panel.expect("The board is switched off, and nothing is left behind.")
    assert panel.expect_end() == 0


def test_the_shell_has_a_mounted_card_and_the_client(open_terminal):
    shell = open_terminal("board.shell")
    shell.expect("A shell on the emulated board", "board:/#", within=START_SECONDS)
    shell.press("sdcardctl status", "Enter")
    shell.expect_match(r"(?m)^State +mounted")
    shell.press("exit 3", "Enter")
    assert shell.expect_end() == 3
