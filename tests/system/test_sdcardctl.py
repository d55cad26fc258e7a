"""sdcardctl on a device, as root and as another user."""

import json
import re
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import pytest

from board import MOUNT_POINT, Board, Card, Process, State
from board.client import CLIENT, COMPLETION, install_client
from conftest import ROOT
from steps import HELD_PROGRAM, eject, expect_mounted, go_on, press_until_eject, start_with_mounted_card

pytestmark = pytest.mark.installed

NOT_PERMITTED, TIMED_OUT = 4, 6
EXPECT_SECONDS = 30
MIB = 1024 * 1024


@pytest.fixture
def board(make_board: Callable[..., Board], program: Path) -> Board:
    """A board with the client."""
    board = make_board(program=program)
    install_client(board, program)
    return board


def ctl(board: Board, *arguments: str, user: str | None = None) -> subprocess.CompletedProcess:
    return board.run(CLIENT, *arguments, user=user)


def answer(board: Board, *arguments: str, user: str | None = None) -> str:
    result = ctl(board, *arguments, user=user)
    assert result.returncode == 0, result.stderr
    return result.stdout


def typed(board: Board, *lines: str) -> str:
    """The output of a shell on a terminal when these lines are typed."""
    keys = "".join(line + "\n" for line in (f"source {COMPLETION}", *lines, "exit"))
    shell = "stty -echo; exec bash --norc --noprofile -i"
    return board.run("script", "--quiet", "--return", "--command", shell, "/dev/null", input=keys).stdout


def start_monitor(board: Board) -> Process:
    monitor = board.start(CLIENT, "monitor")
    expect_lines(monitor, "MountPoint: /media/sdcard")
    return monitor


def expect_lines(monitor: Process, *texts: str, after: int = 0) -> None:
    """Waits until the monitor has printed these lines, in this order."""
    pattern = re.compile(".*".join(re.escape(text + "\n") for text in texts), re.DOTALL)
    deadline = time.monotonic() + EXPECT_SECONDS
    while not pattern.search(monitor.output, after):
        assert time.monotonic() < deadline and monitor.running, monitor.output + monitor.errors
        time.sleep(0.05)


def test_status_shows_the_mounted_card_and_its_directories(board):
    start_with_mounted_card(board)
    lines = answer(board, "status").splitlines()
    assert lines[0] == "State            mounted"
    assert lines[4] == "Mount point      /media/sdcard"
    directories = [line.split()[0] for line in lines[6:]]
    assert directories == ["Directory", "logger", "archive", "csv", "export"]
    assert re.search(r"^csv +30 % .* of +[\d.]+ MiB  \[#\.+\] +\d+ %  /media/sdcard/csv \(watched\)$",
                     lines[9]), lines[9]
    status = json.loads(answer(board, "status", "--json"))
    assert (status["state"], status["stateName"]) == (State.MOUNTED, "mounted")
    assert status["memLevel"] == board.property("MemLevel")
    for directory in status["directories"]:
        assert directory["size"] == board.call("tavo.SDCard1", "GetDirSize", directory["id"]) > 0
        assert directory["used"] == board.call("tavo.SDCard1", "getDirUsed", directory["id"]) > 0
        assert directory["path"] == board.call("tavo.SDCard1", "GetDirPath", directory["id"])


def test_a_user_without_privileges_sees_everything_and_changes_nothing(board):
    start_with_mounted_card(board)
    for command in (["status"], ["list"], ["path", "csv"], ["size", "csv"], ["used", "csv"], ["refresh"],
                    ["wait", "mounted", "--timeout", "10"]):
        answer(board, *command, user="nobody")
    for command in (["insert"], ["remove"], ["ensure"], ["ensure", "logger"]):
        refused = ctl(board, *command, user="nobody")
        assert refused.returncode == NOT_PERMITTED
        assert refused.stderr == "sdcardctl: Permission denied: root is required.\n"
    board.expect_state(State.MOUNTED)


def test_a_refused_user_reads_which_group_is_required(board):
    policy = (ROOT / "platform" / "tavo.SDCard1-group.conf.in").read_text().replace("@SDCARDD_CONTROL_GROUP@", "games")
    board.write_file("/etc/dbus-1/system.d/tavo.SDCard1-group.conf", policy)
    board.start_service()
    refused = ctl(board, "insert", user="nobody")
    assert refused.returncode == NOT_PERMITTED
    assert refused.stderr == "sdcardctl: Permission denied: root or group games is required.\n"


def test_ensure_brings_a_watched_directory_back_within_its_share(board):
    start_with_mounted_card(board, Card.formatted(size_mib=64))
    size = int(answer(board, "size", "csv"))
    board.run("sh", "-c", f"for i in $(seq $(({size} / {MIB} + 5))); do "
              f"head -c {MIB} /dev/zero >{MOUNT_POINT}/csv/$i; done", check=True)
    assert int(answer(board, "used", "csv")) > size
    answer(board, "ensure", "csv")
    assert 0 < int(answer(board, "used", "csv")) < size
    assert not board.exists(f"{MOUNT_POINT}/csv/1")


def test_insert_and_remove_do_what_the_hot_plug_rule_does(board):
    board.start_service()
    board.insert(Card.formatted(), announce=False)
    board.expect_state_for(State.NO_CARD, 1.5)
    answer(board, "insert")
    expect_mounted(board)
    board.pull(announce=False)
    answer(board, "remove")
    board.expect_state(State.NO_CARD)


def test_wait_ends_with_the_ejection(board):
    start_with_mounted_card(board)
    waiting = board.start(CLIENT, "wait", "unmounted", "--timeout", "60")
    assert ctl(board, "wait", "unmounted", "--timeout", "0.5").returncode == TIMED_OUT
    assert waiting.running
    eject(board)
    assert waiting.wait(10) == 0


def test_monitor_reports_a_cards_life_over_a_restart_of_the_service(board):
    start_with_mounted_card(board)
    monitor = start_monitor(board)
    holder = board.hold_file_open()
    press_until_eject(board)
    expect_lines(monitor, "EjectPressed", "State: mounted -> closing-files")
    holder.stop()
    expect_lines(monitor, "CardUnmounted", "State: closing-files -> unmounted")

    before = len(monitor.output)
    assert board.stop_service() == 0
    expect_lines(monitor, "service is not running", after=before)
    # Otherwise the card could be mounted before the first reading of the monitor.
    board.replace_tool("/usr/sbin/e2fsck", HELD_PROGRAM)
    board.start_service()
    expect_lines(monitor, "service is not running", "service is running", "mounting", after=before)
    go_on(board)
    expect_lines(monitor, "CardMounted", " -> mounted", after=before)

    monitor.send_signal(signal.SIGINT)
    assert monitor.wait(10) == 0
    assert all(re.match(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  ", line) for line in monitor.output.splitlines())
    assert monitor.errors == ""


def test_completion_works_in_a_shell_on_a_terminal(board):
    start_with_mounted_card(board)
    shown = typed(board, "sdcardctl pa\tlo\t", "sdcardctl --bus unix:path=/run/dbus/system_bus_socket size a\t")
    assert "# /media/sdcard/logger\r\n" in shown, shown
    assert f"# {answer(board, 'size', 'archive').strip()}\r\n" in shown, shown
