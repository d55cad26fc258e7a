"""./dev bench: prints one table; ends with 1 if a goal was missed."""

import argparse
import os
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from .life import LifeBench
from .table import Row, as_markdown
from .trees import forget
from .watcher import WatcherBench

WATCHER_ROUNDS, LIFE_ROUNDS = 3, 9
SECTIONS = ("scan", "enforce", "life", "functions")


def rows(build: Path, full: bool, sections: list[str]) -> Iterator[Row]:
    """Measures everything, row by row."""
    watcher = WatcherBench(build / "bench", WATCHER_ROUNDS)
    if "scan" in sections:
        yield from watcher.start()
        for files in (10_000, 100_000, 1_000_000) if full else (10_000, 100_000):
            for shape in ("tenths", "flat", "deep"):
                yield from watcher.scan(shape, files)
        yield from watcher.growth()
    if "enforce" in sections:
        for files in (100_000, 1_000_000) if full else (100_000,):
            yield from watcher.enforce(files)
    if "life" in sections:
        life = LifeBench(build / "source" / "sdcardd", build / "bench", LIFE_ROUNDS)
        yield from life.start_up()
        yield from life.mount_and_unmount()


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev bench", description="The service beside its peers, in one run.")
    parser.add_argument("--full", action="store_true", help="a million files too; takes much longer than 5 minutes")
    parser.add_argument("--only", action="append", choices=SECTIONS, help="a part of it; may be given again")
    parser.add_argument("--forget", action="store_true", help="remove the trees that are kept for the next time")
    parser.add_argument("build", type=Path, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.forget:
        forget()
        return 0
    sections = options.only or list(SECTIONS)
    table = []
    for row in rows(options.build, options.full, sections):
        print("measured:", "; ".join(filter(None, row.cells())), file=sys.stderr, flush=True)
        table.append(row)
    if table:
        print("\n" + as_markdown(table) + "\n")
    if "functions" in sections:
        subprocess.run([options.build / "bench" / "hot_functions", "--benchmark_min_time=0.2"], check=True,
                       env=os.environ | {"LC_ALL": "C"})
    missed = [row.name for row in table if row.is_missed]
    if missed:
        print(f"\n{len(missed)} goals were missed: " + "; ".join(missed))
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
