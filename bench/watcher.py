"""Compares the capacity watcher with du, find, a shell pipeline and systemd-tmpfiles."""

import os
import subprocess
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path

from .paired import Command, compare, compare_all
from .table import Row
from .trees import FILE_SIZE, SHARES, CardImage

SCAN_GOAL = 1.0
PIPELINE_GOAL = 0.5   # at the smallest share
DELETE_GOAL = 1.25
GROWTH_GOAL = 1.25
START_ROUNDS = 21


class WatcherBench:
    """Needs the directory of the built bench programs."""

    def __init__(self, programs: Path, rounds: int) -> None:
        self.tool = str(programs / "watcher_tool")
        self.rounds = rounds
        self.seconds_per_file: dict[tuple[str, int], float] = {}

    def start(self) -> Iterator[Row]:
        """The start time of the tool, which a running service does not need."""
        with tempfile.TemporaryDirectory() as empty:
            result = compare(lambda: [self.tool, "size", empty], lambda: ["du", "-s", "--apparent-size", empty],
                             START_ROUNDS, lambda: None)
        yield Row("scan an empty directory: the start alone", "du", result)

    def scan(self, shape: str, files: int) -> Iterator[Row]:
        """Measures a whole tree, with a warm and with a cold cache."""
        image = CardImage(shape, files)
        image.make()
        tree = str(image.tree)
        peers: dict[str, list[str]] = {"du": ["du", "-s", "--apparent-size", tree],
                                       "find": ["find", tree, "-printf", "%s\n"]}
        try:
            for cache in ("warm", "cold"):
                for name, peer in peers.items():
                    prepare = image.mount if cache == "cold" else image.tree.stat
                    if cache == "warm":
                        subprocess.run(peer, check=True, stdout=subprocess.DEVNULL)
                    result = compare(lambda: [self.tool, "size", tree], lambda: peer, self.rounds, prepare)
                    if name == "du" and cache == "warm":
                        self.seconds_per_file[shape, files] = result.ours.wall / files
                    yield Row(f"scan {files:,} files, {shape}, {cache}", name, result,
                              SCAN_GOAL if name == "du" else None)
        finally:
            image.close()

    def growth(self) -> Iterator[Row]:
        """Compares the time per file in the largest tree with that in the smallest, for each shape."""
        for shape in {shape for shape, _ in self.seconds_per_file}:
            sizes = sorted(files for known, files in self.seconds_per_file if known == shape)
            if len(sizes) > 1:
                ratio = self.seconds_per_file[shape, sizes[-1]] / self.seconds_per_file[shape, sizes[0]]
                yield Row.of_ratio(f"time a file, {shape}, {sizes[-1]:,} files", f"{sizes[0]:,} files", ratio,
                                   GROWTH_GOAL)

    def enforce(self, files: int) -> Iterator[Row]:
        """Deletes a share of the files, the oldest first."""
        image = CardImage("tenths", files)
        image.make()
        tree = str(image.tree)
        try:
            used = int(subprocess.run([self.tool, "size", tree], check=True, capture_output=True).stdout)
            for share in SHARES:
                count = int(files * share)
                limit = used - (count - 1) * FILE_SIZE
                ours: Command = lambda limit=limit: [self.tool, "enforce", tree, str(limit)]
                yield from self._enforce_beside_peers(image, share, count, ours)
        finally:
            image.close()

    def _enforce_beside_peers(self, image: CardImage, share: float, count: int, ours: Command) -> Iterator[Row]:
        tree = str(image.tree)
        victims = image.template.with_suffix(f".{count}.list")
        listing = f"find {tree} ! -type d -printf '%C@ %p\\0' | sort -z -n | head -z -n {count} | cut -z -d' ' -f2-"
        image.mount_fresh_copy()
        subprocess.run(["sh", "-c", f"{listing} >{victims}"], check=True)
        name = f"delete {share:.0%} of {image.files:,} files"

        def by_age() -> list[str]:
            rules = image.template.with_suffix(".tmpfiles")
            age = int((time.time() - image.cuts[share]) * 1000)
            rules.write_text(f"e {tree} - - - c:{age}ms\n")
            return ["systemd-tmpfiles", "--clean", str(rules)]

        pipeline: Command = lambda: ["sh", "-c", f"{listing} | xargs -0 rm"]
        peers: dict[str, Command] = {
            "find | sort | head | xargs rm": pipeline,
            "xargs rm of the same list": lambda: ["xargs", "-0", "-a", str(victims), "rm"],
            "systemd-tmpfiles --clean": by_age,
        }
        for command in (ours, *peers.values()):
            image.mount_fresh_copy()
            subprocess.run(command(), check=True)
            left = sum(len(names) for _, _, names in os.walk(tree))
            if image.files - count != left:
                raise RuntimeError(f"{name}: {left} files are left by {command()[0]}")

        goals = [PIPELINE_GOAL if share == SHARES[0] else None, DELETE_GOAL, None]
        results = compare_all(ours, list(peers.values()), self.rounds, image.mount_warm_copy)
        for peer, result, goal in zip(peers, results, goals):
            yield Row(name + ", warm", peer, result, goal)
        if share == SHARES[0]:
            yield Row(name + ", cold", "find | sort | head | xargs rm",
                      compare(ours, pipeline, self.rounds, image.mount_fresh_copy))
        victims.unlink()
