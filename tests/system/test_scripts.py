"""shellcheck finds nothing in the shell scripts of the tree."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from conftest import ROOT

pytestmark = pytest.mark.virtual  # checks files of the tree; no board is needed

NOT_SOURCES = {".git", "build", "__pycache__"}
SHELL_LINE = re.compile(rb"#! ?/(?:\S*/)?(?:env +)?(?:busybox +)?(?:sh|bash|dash|ash)\b")
SHELL_SUFFIXES = (".sh", ".bash", ".bash-completion")


def first_line_of(path: Path) -> bytes:
    with path.open("rb") as file:
        return file.readline(200)


def shell_scripts() -> list[str]:
    """All shell scripts, by their suffix or first line, including untracked ones."""
    scripts = []
    for directory, names, files in os.walk(ROOT):
        names[:] = set(names) - NOT_SOURCES
        paths = [Path(directory, name) for name in files]
        scripts += [str(path.relative_to(ROOT)) for path in paths
                    if path.name.endswith(SHELL_SUFFIXES) or (path.is_file() and SHELL_LINE.match(first_line_of(path)))]
    assert len(scripts) > 10
    return sorted(scripts)


@pytest.mark.parametrize("script", shell_scripts())
def test_a_script_is_clean_for_shellcheck(script):
    # shellcheck does not detect these dialects.
    first_line = first_line_of(ROOT / script)
    dialect = ["--shell=dash"] if b"busybox" in first_line else [] if first_line.startswith(b"#!") else ["--shell=bash"]
    result = subprocess.run(["shellcheck", *dialect, str(ROOT / script)], capture_output=True, text=True)
    assert (result.returncode, result.stdout + result.stderr) == (0, "")
