"""The unit tests that user-mode emulation cannot run, on the target's own kernel."""

import io
import re
import subprocess
import tarfile
from collections.abc import Iterable, Iterator
from pathlib import Path

import pytest

from board.emulated import EmulatedBoard
from board.emulated.snapshot import strip
from conftest import ROOT

pytestmark = pytest.mark.emulated  # the other board's kernel does not execute the target's programs

BUILD = ROOT / "build" / "armhf"
# Programs that the tests find by their paths in the build.
STARTED_PROGRAMS = ("tests/unit/crashing_program", "tests/unit/tracking_program", "sdcardctl/sdcardctl")
READ_DIRECTORIES = ("platform", "sdcardctl", "docs", "source/bus")
TEST_SECONDS = 120


def programs() -> dict[str, list[str]]:
    """The programs' paths below the build's directory, each with the tests that the board skips.

    None if nothing was built for the target.
    """
    try:
        lines = (BUILD / "left-to-the-board").read_text().splitlines()
    except FileNotFoundError:
        return {}
    return {str(Path(line.split(":")[0]).relative_to(BUILD)): re.findall(r"the board leaves out (\w+)", line)
            for line in lines}


def test_some_tests_are_left_to_the_board():
    assert programs()


class ProgramBoard:
    """A board that runs programs one after the other until one fails."""

    def __init__(self, directory: Path) -> None:
        """@p directory is for the board's own files."""
        self._directory = directory
        self._board: EmulatedBoard | None = None

    def with_program(self, name: str) -> EmulatedBoard:
        """The board with a program and those that it may start."""
        if self._board is None:
            # The tests bring their own LEDs and button, which are files that they write.
            self._board = EmulatedBoard(leds=False, eject_button=False)
            # They create card slots of loop devices, and a layer over the root file system. No mount may hide files
            # that they read.
            self._board.run("sh", "-c", "modprobe loop && umount /tmp && udevadm control --exit", check=True)
            self._copy(STARTED_PROGRAMS, READ_DIRECTORIES)
        self._copy([name])
        return self._board

    def close(self) -> None:
        """Switches the board off; the next program gets another."""
        board, self._board = self._board, None
        if board is not None:
            board.close()
            assert board.leftovers() == []

    def _copy(self, names: Iterable[str], directories: Iterable[str] = ()) -> None:
        archive = io.BytesIO()
        with tarfile.open(fileobj=archive, mode="w") as tar:
            for name in names:
                tar.add(strip(BUILD / name, self._directory / Path(name).name), arcname=str(BUILD / name))
            for directory in directories:
                tar.add(ROOT / directory, arcname=str(ROOT / directory))
        self._board.run("busybox", "tar", "-x", "-C", "/", input=archive.getvalue(), check=True)


@pytest.fixture(scope="module")
def all_programs_board(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ProgramBoard]:
    board = ProgramBoard(tmp_path_factory.mktemp("programs"))
    yield board
    board.close()


@pytest.fixture
def program_board(request: pytest.FixtureRequest, all_programs_board: ProgramBoard) -> Iterator[ProgramBoard]:
    yield all_programs_board
    if getattr(request.node, "call_failed", True):
        all_programs_board.close()


@pytest.mark.parametrize("name", programs())
def test_a_unit_test_program_passes_on_the_target(program_board, name):
    board = program_board.with_program(name)
    chosen = []
    if left_out := programs()[name]:
        functions = [line.rstrip("()") for line in board.run(str(BUILD / name), "-functions", check=True).stdout.split()]
        assert set(left_out) < set(functions)
        chosen = [function for function in functions if function not in left_out]
    result = board.run(str(BUILD / name), *chosen, within=TEST_SECONDS)
    assert result.returncode == 0, result.stdout + result.stderr
    assert ", 0 failed, 0 skipped" in result.stdout


def test_the_backtrace_of_a_crash_on_the_target_leads_to_the_crashing_function(bare_board):
    program = BUILD / "tests/unit/crashing_program"
    bare_board.install_program(program, "/tmp/crash")
    # Without a system log the report goes to standard error.
    report = bare_board.run("unshare", "--mount", "sh", "-c", "mount -t tmpfs none /dev; /tmp/crash null").stderr
    addresses = re.findall(r"crash-test\(\+(0x[0-9a-f]+)\)", report)
    found = subprocess.run(["arm-linux-gnueabihf-addr2line", "-f", "-C", "-e", program, *addresses],
                           capture_output=True, text=True, check=True).stdout.splitlines()
    assert "dereferenceNull()" in found and "main" in found, report
