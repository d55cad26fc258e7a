"""Events during an enforcement run."""

import time

import pytest

from board import CARD_INTERFACE, MOUNT_POINT, State, Transition
from capacity import PAUSE, WATCHER, assert_well_chosen, enforce, limit_of, start_with_watched_card
from contents import Contents
from steps import expect_mounted, expect_safe_to_take_out, messages, press_until_eject, take_out

pytestmark = pytest.mark.installed

PERCENT = 10
FILES = 150
FILE_SIZE = 60_000
CONFIGURATION = f'<sdcard><dir size="{PERCENT}" capacitywatch="true">watched</dir></sdcard>'
INTERVAL_MS = 3000
MILLISECONDS_A_REMOVAL = 300


class SlowRun:
    """A service with slow removals, after a background run has begun to remove files."""

    def __init__(self, board):
        self.board = board
        board.write_file("/etc/scw_interval", str(INTERVAL_MS))
        self.card = start_with_watched_card(board)
        self.contents = Contents(board)
        # A tracer slows down lsof, which closes every descriptor that it could have.
        board.run("prlimit", "--pid", str(board.service.pid), "--nofile=256", check=True)
        # Slows down only the removal of files.
        self.tracer = board.start("strace", "-f", "-qq", "-o", "/run/board/removals", "-e", "trace=unlink,unlinkat",
                                  "-e", f"inject=unlink,unlinkat:delay_enter={MILLISECONDS_A_REMOVAL * 1000}",
                                  "-p", str(board.service.pid))
        board.expect("the tracer", lambda: board.run(
            "grep", "-q", "TracerPid:\t0", f"/proc/{board.service.pid}/status").returncode == 1)
        self._write_files()
        limit = limit_of(self.contents, PERCENT)
        overhead = self.contents.used("watched") - FILES * FILE_SIZE
        self.files_at_the_end = (limit - overhead - 1) // FILE_SIZE
        board.expect("removals", lambda: self.files_left() < FILES - 5, within=15)

    def files_left(self):
        return len(self.contents.files("watched/files"))

    def was_cut_short(self):
        """Whether files to be removed are still on the unmounted card."""
        return len(self.card.list_files("/watched/files")) > self.files_at_the_end

    def expect_end(self):
        """Waits for the end of the run and checks that it has removed the right files."""
        self.board.expect("the end of the run", lambda: self.files_left() <= self.files_at_the_end, within=20)
        assert_well_chosen(self.before, self.contents.entries("watched"), limit_of(self.contents, PERCENT))

    def _write_files(self):
        # They appear in the watched directory at the same moment. Each has a different time: with equal times, two runs
        # may choose different files.
        self.contents.change(*(step for number in range(FILES)
                               for step in (("write", f"aside/{number}", FILE_SIZE), PAUSE)),
                             ("rename", "aside", "watched/files"))
        self.before = self.contents.entries("watched")

    def finish_quickly(self):
        """Restores the normal speed for the remaining removals."""
        self.tracer.stop()


@pytest.fixture
def run(make_board, program):
    """A background run during its removals."""
    return SlowRun(make_board(program=program, media_config=CONFIGURATION))


def test_a_run_does_not_keep_the_bus_waiting(run):
    began = time.monotonic()
    assert run.board.state is State.MOUNTED
    run.board.call(CARD_INTERFACE, "RefreshMemState")
    assert time.monotonic() - began < 3 * run.board.patience
    assert run.files_left() > run.files_at_the_end
    run.finish_quickly()
    run.expect_end()


@pytest.mark.lasts(24)
def test_two_enforcements_at_once_remove_no_more_than_one_would(run):
    enforce(run.board, "watched")
    run.finish_quickly()
    run.expect_end()
    # A third run has nothing left to remove.
    enforce(run.board, "watched")
    run.expect_end()
    assert messages(run.board, "WARN", WATCHER) != []
    assert all(message.endswith(": No such file or directory") for level in ("WARN", "ERROR")
               for message in messages(run.board, level, WATCHER))


def test_an_eject_ends_a_run_that_the_next_mount_begins_anew(run):
    press_until_eject(run.board)
    expect_safe_to_take_out(run.board)
    assert not any("Processes with open files" in message for message in messages(run.board))
    assert run.was_cut_short()
    run.tracer.stop()
    take_out(run.board)
    run.board.insert(run.card)
    expect_mounted(run.board)
    run.expect_end()


def test_a_card_pulled_during_a_run_is_gone_and_comes_back(run):
    run.board.run("sync", "--file-system", MOUNT_POINT, check=True)
    run.board.pull()
    run.board.expect_state(State.NO_CARD)
    run.board.expect_transition(Transition.CARD_REMOVED)
    assert run.board.mounts() == []
    run.tracer.stop()
    run.board.insert(run.card)
    expect_mounted(run.board)
    run.board.run("touch", f"{MOUNT_POINT}/new", check=True)
    run.expect_end()


@pytest.mark.leaves_card_mounted
def test_runs_go_on_for_a_card_that_a_removal_leaves_mounted(run):
    held = run.board.hold_file_open()
    run.board.bus.announce_removal()
    run.board.expect_state(State.NO_CARD)
    assert run.board.mounts() != []
    run.tracer.stop()
    run.expect_end()
    held.stop()


@pytest.mark.parametrize("run_level", [5, 6])
def test_a_signal_during_a_run_ends_the_service_with_a_clean_card(run, run_level):
    run.board.set_runlevel(run_level)
    run.board.service.send_signal()
    run.board.expect_signal("EjectPressed")
    # The leak check does not work in a process that is traced when it ends.
    run.tracer.stop()
    run.board.expect_service_end(0, within=10)
    assert run.board.mounts() == []
    assert run.card.is_clean()
    assert run.was_cut_short()
