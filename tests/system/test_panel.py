"""The panel in a terminal: the tests press its keys and read its screen."""

import os
import re
import signal
import subprocess
import time
import weakref
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from board.card import NAME_PREFIX
from board.leftovers import remains_on_host
from conftest import ROOT
from terminal import Terminal

pytestmark = pytest.mark.virtual  # the keys and the screen are the same with any board

PANEL = ["/usr/bin/python3", "-B", "-m", "panel"]
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/", "LC_ALL": "C.UTF-8", "PYTHONPATH": str(ROOT)}
EMPTY_SLOT = "▸ The slot is empty: put a card in (i)."
IN_USE = "▸ In use."
RED_LIT = r"\x1b\[1m\x1b\[38;5;196m.*●"
GREEN_LIT = r"\x1b\[1m\x1b\[38;5;46m.*●"
NOTHING_LEFT = "The board is switched off, and nothing is left behind."


class PanelTerminal(Terminal):
    """A terminal that shows the panel."""

    def service_starts(self) -> None:
        """Waits until the panel shows the running service before an empty slot."""
        self.expect("State       NO_CARD", EMPTY_SLOT)

    def put_in_own_card(self) -> None:
        """Inserts a card and waits until it is in use."""
        self.press("i")
        self.expect("State       MOUNTED", IN_USE, "signal CardMounted")

    def traces(self) -> tuple[str, list[str]]:
        """The process namespace and the cards of the panel's board, as seen on this machine."""
        own = os.readlink("/proc/self/ns/pid")
        inside = [pid for pid in descendants(self.pid) if os.readlink(f"/proc/{pid}/ns/pid") != own]
        namespaces = {os.readlink(f"/proc/{pid}/ns/pid") for pid in inside}
        assert len(namespaces) == 1
        # While this is open, no other board's namespace can get the same number.
        weakref.finalize(self, os.close, os.open(f"/proc/{inside[0]}/ns/pid", os.O_RDONLY | os.O_CLOEXEC))
        targets = [os.readlink(entry) for entry in Path(f"/proc/{self.pid}/fd").iterdir()]
        cards = [target.split()[0].removeprefix("/memfd:") for target in targets if f"memfd:{NAME_PREFIX}" in target]
        return namespaces.pop(), cards


def descendants(pid: int) -> Iterator[int]:
    for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split():
        yield int(child)
        yield from descendants(int(child))


def expect_nothing_left(namespace: str, cards: list[str]) -> None:
    deadline = time.monotonic() + 30
    while (remains := remains_on_host(namespace, cards)) and time.monotonic() < deadline:
        time.sleep(0.05)
    assert remains == []


@pytest.fixture
def open_panel(tmp_path: Path, program: Path) -> Iterator[Callable[..., PanelTerminal]]:
    """Opens the panel in a terminal."""
    terminals: list[PanelTerminal] = []

    def open_terminal(*variables: str) -> PanelTerminal:
        terminals.append(PanelTerminal(tmp_path, ["env", *variables, *PANEL, str(program)], ENVIRONMENT))
        return terminals[-1]
    yield open_terminal
    for terminal in terminals:
        terminal.close()


@pytest.fixture
def panel(open_panel) -> PanelTerminal:
    """The panel with the running service before an empty slot."""
    opened = open_panel()
    opened.service_starts()
    return opened


def test_the_panel_shows_the_whole_board_in_80_columns_and_24_rows(panel):
    lines = panel.expect("signal MemStateChanged 1 (NO_CARD)").splitlines()
    assert len(lines) == 24
    assert lines[0].rstrip().startswith(" The virtual board")
    assert re.search(r"the service runs as process \d+, run level 5 $", f"{lines[0]:80}")
    assert lines[1].startswith("┌ Slot ─") and lines[9].endswith("─┘")
    assert [len(line) for line in lines[1:10]] == [80] * 9
    slot, card = zip(*((line[1:29], line[31:79]) for line in lines[2:9]))
    assert [line.strip(" │") for line in slot] == [
        "┌──────────────────────────┐", "empty", "└──────────────────────────┘", "○ red    off", "○ green  off",
        "□ button not pressed", "No file is held open."]
    assert [re.sub(" +", " ", line.strip()) for line in card] == [
        "State NO_CARD", "Transition NONE", "MemState NO_CARD", "MemLevel " + 28 * "░" + " 0 %",
        "▸ logger " + 13 * "░" + " not mounted", "archive " + 13 * "░" + " not mounted", "csv " + 13 * "░" + " not mounted"]
    assert lines[20:24] == [
        "Put in  i  your card   n  a blank one   d  a damaged one   2  two partitions",
        "Card    p  pull it   b  hold the button   o  hold a file open",
        "Data    Tab  next directory   w  write until it overflows   e  EnsureDirSize",
        "System  t  SIGTERM   r  run level: reboot   s  shell   ↑↓  log   q  quit"]


def test_a_card_is_put_in_filled_ejected_and_pulled_with_keys(panel):
    panel.put_in_own_card()
    panel.expect("│        your card         │", "red    card activity", "Transition  CARD_INSERTED",
                 "INFO   sdcard: SD Card is successfully mounted", "MemState    UP_TO_20_PERCENT")
    panel.press("Tab")
    panel.expect_match(r"▸ archive +█░+ +0\.0 of 5\.\d MiB")
    panel.press("w")
    panel.expect_match(RED_LIT, colours=True)
    panel.expect_match(r"▸ archive +█+ +5\.\d of 5\.\d MiB !", colours=False)
    panel.expect("fill archive above its limit: e deletes its oldest files", "e  EnsureDirSize")
    panel.press("e")
    panel.expect_match(r"call EnsureDirSize archive")
    panel.expect_match(r"▸ archive +█+░+ +[1-5]\.\d of 5\.\d MiB *│")
    panel.press("b")
    panel.expect_match(r"▣ button █*░* [0-4]\.\d s")
    panel.expect_match(r"▣ button █+░* [3-5]\.\d s")
    panel.expect("signal EjectPressed", "State       UNMOUNTED", "Transition  FILES_CLOSED", "● green  on",
                 "○ red    off", "□ button not pressed", "▸ Safe to pull now (p)")
    panel.press("p")
    panel.expect("empty", "State       NO_CARD", "Transition  CARD_REMOVED", "○ green  off", "signal CardRemoved",
                 "you    pull the card out", EMPTY_SLOT)
    panel.press("q")
    assert panel.expect_end() == 0
    assert NOTHING_LEFT in panel.screen()


@pytest.mark.parametrize("key, kind, record", [
    ("d", "a damaged card", "Corrected some file system errors on SD Card!"),
    ("2", "a card with two partitions", "SD Card Linux Ext4 format was new initialized"),
])
def test_cards_of_other_kinds_can_be_put_in(panel, key, kind, record):
    panel.resize(120, 80)
    panel.press(key)
    panel.expect(f"│{kind:^26}│", f"put in {kind} of 64 MiB", record, "State       MOUNTED")


def test_a_blank_card_makes_the_green_light_blink(panel):
    panel.press("n")
    panel.expect("│       a blank card       │", "State       NOT_MOUNTABLE", "green  blinks 500/500 ms",
                 "▸ Not mountable: pull it (p). A device's hot-plug rule formats blank cards.")
    for _ in range(2):
        panel.expect("○ green  blinks")
        panel.expect_match(GREEN_LIT, colours=True)


def test_a_held_file_keeps_the_card_from_being_ejected_while_the_red_light_blinks(panel):
    panel.put_in_own_card()
    panel.press("o")
    pid = panel.expect_match(r"Process (\d+) holds a file\.")[1]
    panel.press("b")
    panel.expect("State       CLOSING_FILES", "Transition  EJECT_REQUESTED", "red    blinks 100/100 ms",
                 f"INFO   sdcard: {pid}: 'python3'", "o  close the held file")
    for _ in range(3):
        panel.expect_match(RED_LIT, colours=True)
        panel.expect("○ red    blinks")
    panel.expect_match(r"logger +█?░+ +0\.0 of 21\.\d MiB")
    panel.press("o")
    panel.expect("State       UNMOUNTED", "No file is held open.", f"process {pid} has ended", "not mounted")


def test_a_button_that_is_released_early_ejects_nothing(panel):
    panel.put_in_own_card()
    panel.press("b")
    panel.expect("▣ button", "b  let the button go")
    panel.press("b")
    panel.expect("□ button not pressed", "let the button go after", "State       MOUNTED")


def test_the_service_is_ended_and_started_again(panel):
    panel.put_in_own_card()
    panel.press("t")
    panel.expect("send SIGTERM to the service", "the service has ended with status 0", "State       -",
                 "▸ The service has ended with status 0: t starts it.", "○ red    off")
    panel.expect_match(r"▸ logger +░+ +not mounted")
    panel.press("t")
    panel.expect("the service runs as process", "State       MOUNTED")


def test_a_service_that_does_not_end_is_killed_with_the_second_press(panel):
    panel.put_in_own_card()
    panel.press("o")
    panel.expect_match(r"Process \d+ holds a file\.")
    panel.press("t")
    panel.expect("t  SIGKILL", "State       CLOSING_FILES")
    panel.press("t")
    panel.expect("ERROR  the service has ended by signal 9")


def test_the_run_level_is_set_to_reboot_and_back_and_ctrl_z_stops_nothing(panel):
    panel.resize(120, 50)
    panel.press("C-z", "r")
    panel.expect("run level 6\n", "set run level 6: the system is rebooting")
    panel.press("i")
    panel.expect("ERROR  sdcard: Ignoring SD Card insert event because of System is rebooting")
    panel.press("r")
    panel.expect("run level 5\n", "r  run level: reboot")


def test_the_panel_comes_back_after_a_shell_on_the_board(panel):
    panel.press("s")
    panel.expect("board:/#")
    panel.press("ls /dev/mmcblk0; tty; cat /run/board/runlevel", "Enter")
    panel.expect("No such file", "/dev/pts/0", "N 5")
    panel.press("sdcardctl pa", "Tab", "lo", "Tab", "Enter")
    panel.expect("\n/media/sdcard/logger\n")
    panel.resize(100, 30)
    panel.press("exit", "Enter")
    lines = panel.expect(EMPTY_SLOT, "State       NO_CARD").splitlines()
    assert [len(line) for line in lines[1:10]] == [100] * 9
    panel.press("q")
    assert panel.expect_end() == 0


def test_keys_without_an_effect_say_why(panel):
    panel.press("p")
    panel.expect("panel  There is no card to pull: put one in (i).")
    panel.press("e")
    panel.expect("panel  No card is mounted.")
    panel.put_in_own_card()
    panel.press("n")
    panel.expect("panel  There is a card in the slot: pull it first (p).")


def test_the_log_scrolls_back_and_forth(panel):
    for _ in range(20):
        panel.press("p")
    # More lines than fit into the log on the screen.
    panel.expect_match(r"(.* panel  There is no card to pull.*\n){7}")
    panel.press(*(["Up"] * 40))
    panel.expect("INFO   sdcard: Starting")
    panel.press("r")
    panel.expect("run level 6\n", "INFO   sdcard: Starting")
    panel.press(*(["Down"] * 60))
    panel.expect("you    set run level 6")


def test_the_panel_follows_the_size_of_its_terminal(panel):
    panel.resize(60, 15)
    panel.expect("This terminal is 60x15.", "The panel needs 80x24.", "(q quits)")
    panel.resize(2, 1)
    panel.resize(132, 40)
    lines = panel.expect("State       NO_CARD", EMPTY_SLOT).splitlines()
    assert [len(line) for line in lines[1:10]] == [132] * 9
    panel.resize(79, 24)
    panel.expect("This terminal is 79x24.")
    panel.press("q")
    assert panel.expect_end() == 0


@pytest.mark.parametrize("number, status", [(signal.SIGTERM, 143), (signal.SIGHUP, 129), (signal.SIGQUIT, 131)])
def test_a_signal_ends_the_panel_and_restores_the_terminal(panel, number, status):
    panel.put_in_own_card()
    traces = panel.traces()
    assert remains_on_host(*traces) != []
    os.kill(panel.pid, number)
    assert panel.expect_end() == status
    expect_nothing_left(*traces)


def test_ctrl_c_ends_the_panel_and_restores_the_terminal(panel):
    traces = panel.traces()
    panel.press("C-c")
    assert panel.expect_end() == 130
    assert "Interrupted; the board is switched off." in panel.screen()
    expect_nothing_left(*traces)


def test_a_signal_during_the_shell_restores_the_terminal(panel):
    traces = panel.traces()
    panel.press("s")
    panel.expect("board:/#")
    os.kill(panel.pid, signal.SIGTERM)
    assert panel.expect_end() == 143
    expect_nothing_left(*traces)


@pytest.mark.parametrize("end", [Terminal.close, lambda panel: os.kill(panel.pid, signal.SIGKILL)],
                         ids=["closed terminal", "killed panel"])
def test_a_closed_terminal_or_a_killed_panel_leaves_no_board(panel, end):
    panel.put_in_own_card()
    panel.press("o")
    panel.expect_match(r"Process \d+ holds a file\.")
    traces = panel.traces()
    end(panel)
    expect_nothing_left(*traces)


def test_no_color_in_the_environment_switches_colours_off(open_panel):
    panel = open_panel("NO_COLOR=1")
    panel.service_starts()
    panel.put_in_own_card()
    assert not re.search(r"\x1b\[(?:\d+;)*(?:[34][0-8]|[19]\d)", panel.screen(colours=True))


def test_a_terminal_of_16_colours_gets_no_others(open_panel):
    panel = open_panel("TERM=linux")
    panel.service_starts()
    panel.put_in_own_card()
    panel.press("w")
    panel.expect_match(r"\x1b\[1m\x1b\[(?:31|91)m.*●", colours=True)
    assert not re.search(r"\x1b\[(?:\d+;)*[34]8;", panel.screen(colours=True))


def test_a_lost_board_ends_the_panel(panel):
    machine = next(pid for pid in descendants(panel.pid)
                   if os.readlink(f"/proc/{pid}/ns/pid") != os.readlink("/proc/self/ns/pid"))
    os.kill(machine, signal.SIGKILL)
    assert panel.expect_end() == 1
    assert "The panel has lost its board: the board's first process has gone." in panel.screen()


def test_a_board_that_cannot_be_switched_on_is_reported_in_one_line(tmp_path):
    terminal = Terminal(tmp_path, [*PANEL, "/nowhere"], ENVIRONMENT)
    try:
        assert terminal.expect_end() == 1
        assert "The board cannot be switched on: [Errno 2] No such file or directory: '/nowhere'" in terminal.screen()
        assert "Traceback" not in terminal.screen()
    finally:
        terminal.close()


def test_without_a_terminal_there_is_no_panel(program):
    result = subprocess.run([*PANEL, str(program)], cwd=ROOT, capture_output=True, text=True,
                            stdin=subprocess.DEVNULL)
    assert (result.returncode, result.stderr) == (2, "The panel needs a terminal.\n")
