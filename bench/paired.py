"""Times commands in turn (A B A B ...), so that a change of the machine's speed does not change the ratio."""

import statistics
import subprocess
import tempfile
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass


@dataclass(frozen=True)
class Run:
    """The cost of one run of a command."""

    wall: float      # seconds
    peak_mib: float  # largest resident set of any of its processes


@dataclass(frozen=True)
class Comparison:
    """Medians of two commands that ran in turn, and of the ratios of each pair."""

    ours: Run
    theirs: Run
    ratio: float


Command = Callable[[], list[str]]


def measure(command: list[str]) -> Run:
    """Runs a command once. Raises RuntimeError when it fails."""
    with tempfile.NamedTemporaryFile("r") as peak:
        # The peak of a child includes the size of its parent at the fork, so the parent is GNU time, which is small.
        timed = ["/usr/bin/time", "--quiet", "--format=%M", f"--output={peak.name}", *command]
        started = time.perf_counter()
        result = subprocess.run(timed, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        wall = time.perf_counter() - started
        if result.returncode != 0:
            errors = result.stderr.decode(errors="replace")
            raise RuntimeError(f"{command[0]} ended with {result.returncode}: {errors[:500]}")
        return Run(wall, int(peak.read()) / 1024)


def median(runs: list[Run]) -> Run:
    """The median of each figure."""
    return Run(statistics.median(run.wall for run in runs), statistics.median(run.peak_mib for run in runs))


def compare(ours: Command, theirs: Command, rounds: int, prepare: Callable[[], object]) -> Comparison:
    """Runs two commands in turn, each after an untimed @p prepare."""
    return compare_all(ours, [theirs], rounds, prepare)[0]


def compare_all(ours: Command, peers: Sequence[Command], rounds: int,
                prepare: Callable[[], object]) -> list[Comparison]:
    """Like compare(), with several peers that run in turn."""
    laps = []
    for _ in range(rounds):
        lap = []
        for command in (ours, *peers):
            prepare()
            lap.append(measure(command()))
        laps.append(lap)
    own = median([lap[0] for lap in laps])
    return [Comparison(own, median([lap[i] for lap in laps]), statistics.median(lap[0].wall / lap[i].wall for lap in laps))
            for i in range(1, len(peers) + 1)]
