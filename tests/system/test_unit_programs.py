"""The unit tests that user-mode emulation cannot carry, on a kernel of the target's own."""

import io
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


def programs() -> list[str]:
    """The programs' paths below the build's directory; none where nothing was built for the target."""
    try:
        lines = (BUILD / "left-to-the-board").read_text().splitlines()
    except FileNotFoundError:
        return []
    return [str(Path(line.split(":")[0]).relative_to(BUILD)) for line in lines]


def test_some_tests_are_left_to_the_board():
    assert programs() != []


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
    result = board.run(str(BUILD / name), within=TEST_SECONDS)
    assert result.returncode == 0, result.stdout + result.stderr
    assert ", 0 failed, 0 skipped" in result.stdout
