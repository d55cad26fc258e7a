"""Prints the coverage of own code, room by room, from the counts in a build directory; lists uncovered lines.

    coverage.py BUILD

Lists each uncovered line of source/ with the reason that tests/uncovered.txt gives for it. The exit status
is 1 if source/ misses a target.
"""

import json
import os
import subprocess
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
REASONS = Path(__file__).with_name("uncovered.txt")
FOLDERS = ("source", "common", "libtavoutil", "sdcardctl")
MEASURED = "source"
LINE_TARGET, BRANCH_TARGET = 98.0, 90.0  # percent


@dataclass
class Counts:
    """Numbers of lines and branches, in total and executed by tests."""

    lines: int = 0
    covered_lines: int = 0
    branches: int = 0
    covered_branches: int = 0

    def add(self, line: dict) -> None:
        """Counts one line of a report."""
        self.lines += 1
        self.covered_lines += line["count"] > 0
        self.branches += len(line["branches"])
        self.covered_branches += sum(branch["count"] > 0 for branch in line["branches"])

    @property
    def line_percent(self) -> float:
        """Covered lines; 100 without lines."""
        return 100.0 * self.covered_lines / self.lines if self.lines else 100.0

    @property
    def branch_percent(self) -> float:
        """Covered branches; 100 without branches."""
        return 100.0 * self.covered_branches / self.branches if self.branches else 100.0

    def row(self, name: str) -> str:
        """The table's row."""
        return (f"{name:24}{self.covered_lines:>7} of {self.lines:<6}{self.line_percent:6.1f} %"
                f"{self.covered_branches:>9} of {self.branches:<6}{self.branch_percent:6.1f} %")


@dataclass(frozen=True)
class Uncovered:
    """A line that no test executes, identified by its text, because line numbers change."""

    file: str      # name without directories
    function: str  # name without class and parameters
    text: str


def report_of(build: Path) -> list[dict]:
    """The files of gcovr's report; branches that only an exception takes are left out."""
    filters = [argument for folder in FOLDERS for argument in ("--filter", f"{ROOT / folder}/")]
    command = ["gcovr", "--root", str(ROOT), *filters, "--exclude-throw-branches", "--exclude-unreachable-branches",
               "--object-directory", str(build), "-j", str(os.cpu_count()), "--json", "-", str(build)]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)["files"]


def lines_of(file: dict) -> list[dict]:
    """The lines with code."""
    return [line for line in file["lines"] if not line.get("gcovr/noncode") and not line.get("gcovr/excluded")]


def room_of(path: str) -> str:
    """The room: a folder of source/, or one of the other folders as a whole."""
    parts = Path(path).parts
    return f"{MEASURED}/{parts[1]}" if parts[0] == MEASURED and len(parts) > 2 else parts[0]


def uncovered_of(file: dict) -> Iterator[tuple[int, Uncovered]]:
    """Each uncovered line of a file, with its number."""
    path = Path(file["file"])
    text = (ROOT / path).read_text().splitlines()
    functions = sorted((function["lineno"], function["name"]) for function in file["functions"])
    for line in lines_of(file):
        if line["count"] == 0:
            number = line["line_number"]
            name = next((name for start, name in reversed(functions) if start <= number), "")
            name = name.replace("(anonymous namespace)::", "").split("(")[0].split("[")[0].split("::")[-1]
            yield number, Uncovered(path.name, name, text[number - 1].strip())


def read_reasons() -> dict[Uncovered, str]:
    """Why lines are uncovered: file | function | text | reason."""
    rows = [line.split(" | ") for line in REASONS.read_text().splitlines() if line and not line.startswith("#")]
    return {Uncovered(*row[:3]): row[3] for row in rows}


def print_uncovered(files: list[dict]) -> None:
    """Prints each uncovered line with its reason, and each reason without an uncovered line."""
    reasons = read_reasons()
    found = [(file["file"], number, line) for file in files for number, line in uncovered_of(file)]
    print("\nUncovered lines" if found else "\nNo line is uncovered.")
    for path, number, line in found:
        print(f"  {path}:{number}  {line.function}: {line.text}\n      {reasons.get(line, 'no reason is given')}")
    stale = set(reasons) - {line for _, _, line in found}
    for line in sorted(stale, key=str):
        # Tests reach some lines by chance, so this is not an error.
        print(f"  {REASONS.name}: {line.file}, {line.function}, '{line.text}' was covered, or is gone")


def main() -> int:
    files = report_of(Path(sys.argv[1]))
    rooms: dict[str, Counts] = {}
    total = Counts()
    for file in files:
        for line in lines_of(file):
            rooms.setdefault(room_of(file["file"]), Counts()).add(line)
            if file["file"].startswith(MEASURED + "/"):
                total.add(line)
    print_uncovered([file for file in files if file["file"].startswith(MEASURED + "/")])
    print(f"\n{'Coverage':24}{'lines':>14}{'':11}{'branches':>14}")
    for name in sorted(rooms):
        print(rooms[name].row(name))
    print(total.row(f"all of {MEASURED}"))
    reached = total.lines > 0 and total.line_percent >= LINE_TARGET and total.branch_percent >= BRANCH_TARGET
    print(f"targets for {MEASURED}: lines {LINE_TARGET:g} %, branches {BRANCH_TARGET:g} %: "
          f"{'reached' if reached else 'missed'}")
    return 0 if reached else 1


sys.exit(main())
