"""The story that ./dev run and ./dev emulate show."""

import subprocess
from pathlib import Path

import pytest

from conftest import ROOT

PINS = ("mmc-red blinks fast, mmc-green off", "mmc-red off, mmc-green on", "mmc-red off, mmc-green off")


def tell_story(*arguments: Path | str) -> subprocess.CompletedProcess:
    return subprocess.run(["/usr/bin/python3", "-B", "-m", "board.story", *map(str, arguments)], cwd=ROOT,
                          capture_output=True, text=True)


def test_the_story_ends_well_when_every_step_was_seen(pytestconfig, program):
    emulated = pytestconfig.getoption("--board") == "emulated"
    result = tell_story(*(["--emulated"] if emulated else []), program)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.endswith("Every step was seen, and nothing is left behind.\n")
    for words in ("with vfat on it", "with ext4 on it", "CardMounted", "BUSY", "UNMOUNTED, last transition FILES_CLOSED",
                  "SD Card is successfully mounted", "e2fsck finds it clean", "ended with status 0"):
        assert words in result.stdout
    for words in PINS:
        assert (f"pins     {words}\n" in result.stdout) == emulated


@pytest.mark.virtual  # the failure is the same there
def test_the_story_fails_when_the_service_does_nothing():
    result = tell_story("/usr/bin/false")
    assert result.returncode == 1
    assert "Not every step was seen." in result.stderr
    assert "State: NO_CARD" in result.stderr
