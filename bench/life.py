"""Compares the service's times with those of the same work done by hand, on a board."""

import re
import statistics
import time
from collections.abc import Iterator
from datetime import datetime
from pathlib import Path

from board import Board, Card, State, VirtualBoard
from board.names import (CARD_DEVICE, CONTROLLER_INTERFACE, MOUNT_POINT, PARTITION_DEVICE)

from .paired import Comparison, Run
from .table import Row
from .trees import MOUNT_OPTIONS

INSERT_DELAY_SECONDS = 1.0
IDLE_SECONDS = 10
BUTTON_POLLS_A_SECOND = 5
MOUNT_GOAL = 1.10
CARD_MIB = 256

# What the service does after the insert delay: check the partition table, check the file system, mount it, create
# the directories.
MOUNT_BY_HAND = f"""
set -e
! grep -q {MOUNT_POINT} /proc/mounts
[ "$(sfdisk --dump {CARD_DEVICE} | grep -c 'type=83')" = 1 ]
status=0; e2fsck -p {PARTITION_DEVICE} >/dev/null || status=$?
[ $status -le 1 ]
mkdir -p {MOUNT_POINT}
mount -t ext4 -o {MOUNT_OPTIONS} {PARTITION_DEVICE} {MOUNT_POINT}
for directory in logger logger/archive csv export; do
    [ -d {MOUNT_POINT}/$directory ] || mkdir {MOUNT_POINT}/$directory
done
[ -L {MOUNT_POINT}/archive ] || ln -s logger/archive {MOUNT_POINT}/archive
"""

TIMED = 'started=$(date +%s%N); {}\nended=$(date +%s%N); echo $((ended - started))'


class LifeBench:
    """Needs the service's program and the directory of the built bench programs."""

    def __init__(self, service: Path, programs: Path, rounds: int, kind: type[Board] = VirtualBoard) -> None:
        self.service, self.idle_service, self.rounds = service, programs / "idle_service", rounds
        self.kind = kind

    def start_up(self) -> Iterator[Row]:
        """From the start of the process to the bus name, and the cost of an idle service."""
        pairs = [(self._start(self.service), self._start(self.idle_service)) for _ in range(self.rounds)]
        yield Row("start-up to the bus name", "empty Qt service", compared(pairs))
        ours, theirs = self._idle(self.service, with_card=True), self._idle(self.idle_service, with_card=False)
        yield Row("resident while mounted and idle", "empty Qt service", compared([(ours[0], theirs[0])]))
        wake_ups = max(0.0, ours[1] - BUTTON_POLLS_A_SECOND)
        yield Row.of_ratio(f"wake-ups a second while mounted and idle, the button poll aside: {wake_ups:.1f}",
                           f"empty Qt service: {theirs[1]:.1f}", wake_ups / max(theirs[1], 0.1))

    def _start(self, program: Path) -> Run:
        with self.kind(program=program) as board:
            started = time.perf_counter()
            process = board.start_service(name_only=True)
            wall = time.perf_counter() - started
            return Run(wall, _resident_mib(board, process.pid))

    def _idle(self, program: Path, with_card: bool) -> tuple[Run, float]:
        with self.kind(program=program) as board:
            process = board.start_service(name_only=True)
            if with_card:
                board.insert(Card.formatted(size_mib=CARD_MIB))
                board.expect_state(State.MOUNTED, within=30)
            time.sleep(2)
            before = _switches(board, process.pid)
            time.sleep(IDLE_SECONDS)
            wake_ups = (_switches(board, process.pid) - before) / IDLE_SECONDS
            return Run(float("nan"), _resident_mib(board, process.pid)), wake_ups

    def mount_and_unmount(self) -> Iterator[Row]:
        """From the end of the insert delay to CardMounted, and from closed files to CardUnmounted."""
        mounts, unmounts = [], []
        for _ in range(self.rounds):
            with self.kind(program=self.service) as board:
                card = Card.formatted(size_mib=CARD_MIB)
                _lay_out(board, card)
                board.start_service()
                board.insert(card, announce=False)
                called = time.monotonic()
                board.call(CONTROLLER_INTERFACE, "InsertCard")
                mounted = board.expect_signal("CardMounted", within=30)
                ours = mounted.time - called - INSERT_DELAY_SECONDS
                board.hold_eject_button()
                board.expect_state(State.UNMOUNTED, within=30)
                unmounts.append(_unmount_seconds(board))
                board.stop_service()
                by_hand = board.run("sh", "-c", TIMED.format(MOUNT_BY_HAND), check=True)
                mounts.append((Run(ours, float("nan")), nanoseconds(by_hand.stdout)))
                by_hand = board.run("sh", "-c", TIMED.format(f"umount {MOUNT_POINT}"), check=True)
                unmounts[-1] = (unmounts[-1], nanoseconds(by_hand.stdout))
        yield Row("insert delay over to CardMounted", "the same tools in a shell script", compared(mounts), MOUNT_GOAL)
        yield Row("FILES_CLOSED to CardUnmounted", "umount alone", compared(unmounts))


def _lay_out(board: Board, card: Card) -> None:
    # Neither side has to create the directories.
    board.insert(card, announce=False)
    board.run("sh", "-c", f"{MOUNT_BY_HAND}\numount {MOUNT_POINT}", check=True)
    board.pull(announce=False)


def _unmount_seconds(board: Board) -> Run:
    # The record of the closed files comes directly before the unmount; the record of the success follows its signal.
    moments = {}
    for record in board.records:
        for text in ("Number of processes with open files: 0", "SD Card is successfully unmounted"):
            if record.message == text:
                moments[text] = datetime.strptime(str(record).split()[0], "%H:%M:%S.%f").timestamp()
    closed, unmounted = moments.values()
    return Run(max(unmounted - closed, 0.001), float("nan"))


def nanoseconds(text: str) -> Run:
    """The run of a command inside TIMED, from its output."""
    return Run(int(text.split()[-1]) / 1e9, float("nan"))


def compared(pairs: list[tuple[Run, Run]]) -> Comparison:
    """Medians of both and of their ratios; of the memory if there are no times."""
    def median(side: int) -> Run:
        return Run(statistics.median(pair[side].wall for pair in pairs),
                   statistics.median(pair[side].peak_mib for pair in pairs))

    ours, theirs = median(0), median(1)
    if ours.wall != ours.wall:
        return Comparison(ours, theirs, ours.peak_mib / theirs.peak_mib)
    return Comparison(ours, theirs, statistics.median(a.wall / b.wall for a, b in pairs))


def _resident_mib(board: Board, pid: int) -> float:
    return int(re.search(r"VmRSS:\s+(\d+)", board.read_file(f"/proc/{pid}/status")).group(1)) / 1024


def _switches(board: Board, pid: int) -> int:
    status = board.run("sh", "-c", f"cat /proc/{pid}/task/*/status", check=True).stdout
    return sum(map(int, re.findall(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.MULTILINE)))
