"""Compares the service on the emulated board with the same tools run by hand: python3 -m bench.target BUILD"""

import sys
import time
from collections.abc import Iterator
from pathlib import Path

from board import Card, State
from board.emulated import EmulatedBoard
from board.names import MOUNT_POINT, PARTITION_DEVICE

from .life import CARD_MIB, MOUNT_BY_HAND, TIMED, LifeBench, compared, nanoseconds
from .paired import Run
from .table import Row, as_markdown

ROUNDS = 5
WAIT_SECONDS = 60
LOOK_SECONDS = 0.005
AFTER_CONTACT = f"until [ -b {PARTITION_DEVICE} ]; do sleep 0.02; done; {MOUNT_BY_HAND}"
TAKE_BACK = f"lsof -t -Q {MOUNT_POINT} || :; umount {MOUNT_POINT}"


class TargetBench(LifeBench):
    """The times that the device's user waits."""

    def contact_and_button(self) -> Iterator[Row]:
        """From the card's insertion to its use, and from the button's release to the green light.

        The button is released as soon as the service reacts to it.
        """
        mounts, unmounts = [], []
        with self.kind(program=self.service) as board:
            board.start_service()
            card = Card.formatted(size_mib=CARD_MIB)
            for _ in range(self.rounds):
                ours = _by_service(board, card)
                board.stop_service()
                theirs = _by_hand(board, card)
                board.start_service()
                mounts.append((ours[0], theirs[0]))
                unmounts.append((ours[1], theirs[1]))
        yield Row("contact to CardMounted, with 1 s of insert delay", "the same tools in a shell script", compared(mounts))
        yield Row("button let go to the green light", "lsof and umount", compared(unmounts))


def _by_service(board: EmulatedBoard, card: Card) -> tuple[Run, Run]:
    seen = len(board.signals)
    contact = time.monotonic()
    board.insert(card)
    mounted = board.expect_signal("CardMounted", after=seen, within=WAIT_SECONDS)
    board.press_eject_button()
    board.expect_signal("EjectPressed", after=seen, within=WAIT_SECONDS)
    released = time.monotonic()
    board.release_eject_button()
    while not board.led_pins()["mmc-green"]:
        assert time.monotonic() < released + WAIT_SECONDS, "the green LED stays dark"
        time.sleep(LOOK_SECONDS)
    light = time.monotonic()
    board.expect_state(State.UNMOUNTED)
    board.pull()
    board.expect_state(State.NO_CARD)
    return _run(mounted.time - contact), _run(light - released)


def _by_hand(board: EmulatedBoard, card: Card) -> tuple[Run, Run]:
    with board.unannounced():
        script = board.start("sh", "-c", AFTER_CONTACT)
        contact = time.monotonic()
        board.insert(card, announce=None)
        script.wait(WAIT_SECONDS)
        mounted = _run(time.monotonic() - contact)
        unmounted = nanoseconds(board.run("sh", "-c", TIMED.format(TAKE_BACK), check=True).stdout)
        board.pull()
    return mounted, unmounted


def _run(seconds: float) -> Run:
    return Run(seconds, float("nan"))


def main() -> int:
    build = Path(sys.argv[1])
    bench = TargetBench(build / "source" / "sdcardd", build / "bench", ROUNDS, EmulatedBoard)
    rows = []
    for row in (*bench.start_up(), *bench.contact_and_button()):
        print("measured:", "; ".join(filter(None, row.cells())), file=sys.stderr, flush=True)
        rows.append(row)
    print("\n" + as_markdown(rows))
    return 0


if __name__ == "__main__":
    sys.exit(main())
