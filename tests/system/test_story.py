"""The story that ./dev run tells."""

import subprocess
from pathlib import Path

import pytest

from conftest import ROOT

pytestmark = pytest.mark.virtual


def tell_story(program: Path | str) -> subprocess.CompletedProcess:
    return subprocess.run(["/usr/bin/python3", "-B", "-m", "board.story", str(program)], cwd=ROOT,
                          capture_output=True, text=True)


def test_the_story_ends_well_when_every_step_was_seen(program):
    result = tell_story(program)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.endswith("Every step was seen, and nothing is left behind.\n")
    for words in ("with vfat on it", "with ext4 on it", "CardMounted", "BUSY", "UNMOUNTED, last transition FILES_CLOSED",
                  "SD Card is successfully mounted", "e2fsck finds it clean", "ended with status 0"):
        assert words in result.stdout


def test_the_story_fails_when_the_service_does_nothing():
    result = tell_story("/usr/bin/false")
    assert result.returncode == 1
    assert "Not every step was seen." in result.stderr
    assert "State: NO_CARD" in result.stderr
