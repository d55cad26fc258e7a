"""./dev and the summary of the tests."""

import json
import re
import subprocess
from pathlib import Path

import pytest

from conftest import ROOT

pytestmark = pytest.mark.virtual  # tests the command on this machine

# Runs a command in a mount namespace. Programs of the first directory replace those of the machine, and a script may
# change more of it.
ELSEWHERE = r"""
mount -t overlay -o "lowerdir=$1:/usr/sbin" none /usr/sbin && eval "$2" || exit 125
shift 2
exec "$@"
"""
# All packages are installed; the build fails, and no module can be loaded.
COMPLETE = {"dpkg-query": "echo installed", "cmake": "exit 9", "modprobe": "exit 1"}


def dev(*arguments: str) -> subprocess.CompletedProcess:
    return subprocess.run([str(ROOT / "dev"), *arguments], capture_output=True, text=True)


def summarise(directory: Path, **suites: str) -> subprocess.CompletedProcess:
    for name, cases in suites.items():
        if cases is not None:
            (directory / f"{name}.xml").write_text(f"<testsuite>{cases}</testsuite>")
    return subprocess.run(["/usr/bin/python3", str(ROOT / "tests" / "summary.py"), str(directory), *suites],
                          capture_output=True, text=True)


@pytest.mark.parametrize("arguments", [["nonsense"], ["test", "--nonsense"], ["test", "-k"], ["emulate", "--nonsense"],
                                       ["lint", "--nonsense"], ["coverage", "--nonsense"], ["test", "--unit", "--system"],
                                       ["test", "--unit", "-k", "life"], ["test", "--emulated", "--asan"]])
def test_a_wrong_command_line_is_reported_in_one_line_with_status_2(arguments):
    result = dev(*arguments)
    assert result.returncode == 2
    assert len(result.stderr.splitlines()) == 1


@pytest.mark.parametrize("command", ["run", "board", "test", "coverage", "emulate", "shell"])
def test_missing_root_rights_are_reported_in_one_line(command):
    # The script is passed as text, because other users may not be able to read the tree.
    script = (ROOT / "dev").read_text()
    result = subprocess.run(["bash", "-c", script, "dev", command], capture_output=True, text=True, user=65534, cwd="/")
    assert result.returncode == 1
    assert result.stderr == f"dev: '{command}' needs namespaces and loop devices; as root: ./dev {command}\n"


@pytest.fixture
def refusal(tmp_path):
    """Runs ./dev on a simulated different machine; returns the error messages of its refusal."""
    def errors_of(*command, stand_ins={}, difference=":"):
        programs = tmp_path / "programs"
        programs.mkdir()
        for name, body in (COMPLETE | stand_ins).items():
            (programs / name).write_text(f"#!/bin/sh\n{body}\n")
            (programs / name).chmod(0o755)
        result = subprocess.run(["unshare", "--mount", "sh", "-c", ELSEWHERE, "sh", str(programs), difference,
                                 *(command or [str(ROOT / "dev"), "run"])], capture_output=True, text=True)
        assert result.returncode == 1, result.stdout + result.stderr
        return result.stderr
    return errors_of


# A name that only contains "ext4" or "overlay" does not match.
KNOWN_FILE_SYSTEMS = ("printf 'nodev\\tproc\\n\\t%s\\n\\tx%s\\n' {} >/run/known; "
                      "mount --bind /run/known /proc/filesystems")
OWN_RUN = "mount -t tmpfs none /run && "
# The null device, which receives output, is the only device left.
NO_DEVICES = "mount -t tmpfs none /dev && mknod -m 666 /dev/null c 1 3"


@pytest.mark.parametrize("machine, message", [
    ({"difference": NO_DEVICES}, "this kernel offers no loop devices (/dev/loop-control is missing)"),
    ({"stand_ins": {"losetup": '[ "$1" != --find ] || exit 1'}},
     "loop devices cannot be used here (losetup --find fails)"),
    ({"difference": OWN_RUN + KNOWN_FILE_SYSTEMS.format("overlay ext4")}, "this kernel has no ext4 file system"),
    ({"difference": OWN_RUN + KNOWN_FILE_SYSTEMS.format("ext4 overlay")}, "this kernel has no overlay file system"),
    ({"stand_ins": {"unshare": "echo refused >&2; exit 1"}},
     "namespaces cannot be made here (a container without privileges?)"),
], ids=["no loop devices", "unusable loop devices", "no ext4", "no overlay", "no namespaces"])
def test_a_machine_that_cannot_run_a_board_is_reported_in_one_line(refusal, machine, message):
    assert refusal(**machine) == f"dev: {message}\n"


PARTLY_INSTALLED = 'for package do :; done; case $package in strace | tmux) exit 1 ;; esac; echo installed'


def test_packages_that_cannot_be_installed_are_reported_in_one_line(refusal, tmp_path):
    calls = tmp_path / "calls"
    assert refusal(stand_ins={"dpkg-query": PARTLY_INSTALLED, "apt-get": f'echo "$@" >>"{calls}"; exit 100'}) == (
        "dev: these packages cannot be installed (no network?): strace tmux\n")
    assert calls.read_text().splitlines() == ["install -y -q --no-install-recommends strace tmux", "update -q"]


def test_packages_that_only_root_can_install_are_reported_in_one_line(refusal):
    # The script is passed as text, because other users may not be able to read the tree.
    command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--reset-env",
               "bash", "-c", (ROOT / "dev").read_text(), "dev", "build"]
    assert refusal(*command, stand_ins={"dpkg-query": PARTLY_INSTALLED, "apt-get": "echo called >&2"}) == (
        "dev: packages are missing; as root: apt-get install strace tmux\n")


def totals(counts, rest=""):
    """The result of a unit test program in ctest's format."""
    return f"<testcase name='a'><system-out>Totals: {counts}, 0 blacklisted, 3ms</system-out>{rest}</testcase>"


def test_the_summary_ends_with_one_line_of_all_counts(tmp_path):
    result = summarise(tmp_path, unit=totals("5 passed, 0 failed, 1 skipped") + "<testcase name='b'/>",
                       system="<testcase name='c'/><testcase name='d'><skipped/></testcase>")
    assert result.returncode == 0
    assert result.stdout.splitlines()[-1] == "7 passed, 0 failed, 2 skipped"


def test_the_summary_counts_no_test_of_a_program_that_its_suite_cannot_run(tmp_path):
    disabled = "<testcase name='b' status='disabled'><system-out>Disabled</system-out></testcase>"
    result = summarise(tmp_path, unit=totals("5 passed, 0 failed, 0 skipped") + 2 * disabled)
    assert result.stdout.splitlines()[-2:] == ["  unit tests: 5, and 2 programs left to another suite",
                                               "5 passed, 0 failed"]


def test_the_summary_shows_the_notes_that_it_is_given(tmp_path):
    (tmp_path / "unit.xml").write_text("<testsuite><testcase name='a'/></testsuite>")
    result = subprocess.run(["/usr/bin/python3", str(ROOT / "tests" / "summary.py"), str(tmp_path), "unit", "--",
                             "one was skipped", "so was two"], capture_output=True, text=True)
    assert result.stdout.splitlines()[-4:] == ["  unit tests: 1", "  one was skipped", "  so was two",
                                               "1 passed, 0 failed"]


@pytest.mark.parametrize("unit, line", [
    (totals("5 passed, 2 failed, 0 skipped", "<failure/>"), "5 passed, 2 failed"),
    ("<testcase name='a'><failure/></testcase><testcase name='b'/>", "1 passed, 1 failed"),
    ("<testcase name='a'><error/></testcase>", "0 passed, 1 failed"),
    (totals("5 passed, 0 failed, 0 skipped", "<failure>crashed at exit</failure>"), "5 passed, 1 failed"),
    ("<testcase name='a' status='disabled'/>", "0 passed, 0 failed"),
    ("", "0 passed, 1 failed"),
    (None, "0 passed, 1 failed"),
], ids=["function failed", "program failed", "error", "crash after the totals", "no program ran", "no tests",
        "no results"])
def test_a_failure_or_a_missing_result_makes_the_summary_fail(tmp_path, unit, line):
    result = summarise(tmp_path, unit=unit)
    assert result.returncode == 1
    assert result.stdout.splitlines()[-1] == line


def coverage_of(directory: Path, counts: list[int]) -> subprocess.CompletedProcess:
    """A report with a source file that has these line counts, and with a covered file in another folder."""
    def file(name: str, counts: list[int]) -> dict:
        return {"file": name, "functions": [{"lineno": 1, "name": "(anonymous namespace)::first(int)"}],
                "lines": [{"line_number": number, "count": count, "branches": [{"count": count}]}
                          for number, count in enumerate(counts, 1)]}
    report = directory / "report"
    report.write_text(json.dumps({"files": [file("source/main.cpp", counts),
                                            file("libtavoutil/src/TrackLog.cpp", [1])]}))
    (directory / "gcovr").write_text(f"#!/bin/sh\nexec cat '{report}'\n")
    (directory / "gcovr").chmod(0o755)
    return subprocess.run(["/usr/bin/python3", str(ROOT / "tests" / "coverage.py"), "build/none"],
                          capture_output=True, text=True, env={"PATH": f"{directory}:/usr/bin:/bin"})


def test_coverage_above_the_targets_passes_and_names_each_folder(tmp_path):
    result = coverage_of(tmp_path, 50 * [1])
    assert result.returncode == 0, result.stderr
    assert re.search(r"^libtavoutil +1 of 1 +100.0 % +1 of 1 +100.0 %$", result.stdout, re.M)
    assert re.search(r"^all of source +50 of 50 +100.0 %", result.stdout, re.M)


def test_coverage_below_a_target_fails_and_lists_the_uncovered_lines(tmp_path):
    result = coverage_of(tmp_path, [1, 0] + 40 * [1])
    assert result.returncode == 1
    text = (ROOT / "source/main.cpp").read_text().splitlines()[1].strip()
    assert f"  source/main.cpp:2  first: {text}\n      no reason is given\n" in result.stdout
    assert "missed" in result.stdout.splitlines()[-1]
