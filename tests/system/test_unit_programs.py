"""The unit tests that user-mode emulation cannot carry, on a kernel of the target's own."""

import io
import re
import subprocess
import tarfile
from pathlib import Path

import pytest

from board.emulated.snapshot import strip
from conftest import ROOT

pytestmark = pytest.mark.emulated

BUILD = ROOT / "build" / "armhf"
# What the tests find by the names that things have where they were built.
STARTED_PROGRAMS = ("tests/unit/crashing_program", "tests/unit/tracking_program", "sdcardctl/sdcardctl")
READ_DIRECTORIES = ("platform", "sdcardctl", "docs", "source/dbus")
TEST_SECONDS = 120


def programs() -> dict[str, list[str]]:
    """The programs' paths below the build's directory, each with the tests that the board leaves out.

    None where nothing was built for the target.
    """
    try:
        lines = (BUILD / "left-to-the-board").read_text().splitlines()
    except FileNotFoundError:
        return {}
    return {str(Path(line.split(":")[0]).relative_to(BUILD)): re.findall(r"the board leaves out (\w+)", line)
            for line in lines}


def test_some_tests_are_left_to_the_board():
    assert programs()


@pytest.mark.parametrize("name", programs())
def test_a_unit_test_program_passes_on_the_target(make_board, tmp_path, name):
    # The tests bring their own LEDs and button: files, which can be told what to say.
    board = make_board(leds=False, eject_button=False)
    # They make card slots of loop devices, and a layer over the root file system: no mount may hide what they read.
    board.run("sh", "-c", "modprobe loop && umount /tmp && udevadm control --exit", check=True)
    archive = io.BytesIO()
    with tarfile.open(fileobj=archive, mode="w") as tar:
        for program in (name, *STARTED_PROGRAMS):
            tar.add(strip(BUILD / program, tmp_path / Path(program).name), arcname=str(BUILD / program))
        for directory in READ_DIRECTORIES:
            tar.add(ROOT / directory, arcname=str(ROOT / directory))
    board.run("busybox", "tar", "-x", "-C", "/", input=archive.getvalue(), check=True)
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
