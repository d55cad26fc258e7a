"""Prints one summary of the test results in a directory; the exit status is 0 when all passed.

    summary.py DIRECTORY SUITE... [-- NOTE...]

The results of each suite are in DIRECTORY/SUITE.xml (JUnit). A unit test program counts the tests that it
reports. A program that its suite cannot run counts none and is listed separately. Each note becomes a line:
what was skipped.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field
from pathlib import Path

QTEST_TOTALS = re.compile(r"^Totals: (\d+) passed, (\d+) failed, (\d+) skipped, (\d+) blacklisted", re.MULTILINE)


@dataclass
class Counts:
    """Numbers of tests, and the failed ones by name."""

    passed: int = 0
    failed: int = 0
    skipped: int = 0
    disabled_programs: int = 0
    failures: list[str] = field(default_factory=list)


def read_suite(path: Path) -> Counts:
    """The counts of one result file; a missing or broken one is a failure of its own."""
    counts = Counts()
    try:
        cases = list(ElementTree.parse(path).getroot().iter("testcase"))
    except (OSError, ElementTree.ParseError) as problem:
        cases = []
        counts.failures.append(f"{path.stem}: no results ({problem})")
    if not cases:
        counts.failed += 1
        counts.failures = counts.failures or [f"{path.stem}: no tests were run"]
    for case in cases:
        _count(case, counts)
    return counts


def _count(case: ElementTree.Element, counts: Counts) -> None:
    if case.get("status") == "disabled":
        counts.disabled_programs += 1
        return
    totals = QTEST_TOTALS.findall(case.findtext("system-out") or "")
    passed, failed, skipped = (sum(int(total[index]) for total in totals) for index in range(3))
    broken = case.find("failure") is not None or case.find("error") is not None
    if broken:
        counts.failures.append(".".join(filter(None, (case.get("classname"), case.get("name")))))
    if not totals or (broken and failed == 0):
        ignored = case.find("skipped") is not None
        failed += broken
        skipped += ignored and not broken
        passed += not totals and not broken and not ignored
    counts.passed += passed
    counts.failed += failed
    counts.skipped += skipped


def main() -> int:
    directory = Path(sys.argv[1])
    arguments = [*sys.argv[2:], "--"]
    names, notes = arguments[:arguments.index("--")], arguments[arguments.index("--") + 1:-1]
    suites = {name: read_suite(directory / f"{name}.xml") for name in names}
    print("\nSummary")
    for name, counts in suites.items():
        left_out = f", and {counts.disabled_programs} programs left to another suite" if counts.disabled_programs else ""
        print(f"  {name} tests: {counts.passed + counts.failed + counts.skipped}{left_out}")
        for failure in counts.failures:
            print(f"    failed: {failure}")
    for note in notes:
        print(f"  {note}")
    passed, failed, skipped = (sum(getattr(counts, what) for counts in suites.values())
                               for what in ("passed", "failed", "skipped"))
    print(f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else ""))
    return 0 if failed == 0 and passed > 0 else 1


sys.exit(main())
