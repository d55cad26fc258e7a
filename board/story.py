"""A card's life, played and shown in a terminal: python3 -m board.story [--emulated] PROGRAM

Ends with status 0 if every step was seen.
"""

import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from subprocess import CalledProcessError

from .board import Board
from .bus import BusError
from .card import Card
from .emulated import BoardGone, EmulatedBoard, EmulatorError
from .emulated.light_watch import LightWatch
from .installation import PLATFORM
from .leds import LED_NAMES, LedPattern
from .names import CARD_DEVICE, CARD_INTERFACE, MOUNT_POINT, PARTITION_DEVICE
from .reporter import NotSeen, Reporter
from .virtual_board import VirtualBoard
from .virtual_machine import MachineError

CARD_MIB = 64
BUTTON_SECONDS = 7
LOGGER_DATABASE = "PindleLogger.db"
PREPARATION_SCRIPT = "/opt/tavo/share/tavo-sdcard/preparing/50-example"
WATCHED = "csv"
WATCHED_FILE_BYTES = 1_000_000
WATCHED_FILES_BEYOND = 3
INTERRUPTED = 130
KINDS = {VirtualBoard: "A virtual board", EmulatedBoard: "An emulated 32-bit ARM board"}


def play(kind: type[Board], program: Path) -> None:
    """Plays the story on a board of a kind and reports each step. Raises NotSeen."""
    console = (PLATFORM / "tavo-sdcard.trackconfig.console.xml").read_text()
    with kind(program=program, track_config=console) as board, _light_watch(board) as lights:
        reporter = Reporter(board, lights)
        card = Card.as_bought(CARD_MIB)

        print(f"{KINDS[kind]}; it is {time.strftime('%H:%M:%S')}, and times are seconds from now on.")
        reporter.heading("The device starts with an empty slot")
        board.start_service()
        reporter.until_seen(["State: NO_CARD", f"LEDs: {LedPattern.OFF.name}",
                             "log: INFO  sdcard      Starting (Version"], within=10)

        # Busy long enough to be seen on any machine.
        board.write_file(PREPARATION_SCRIPT, "#!/bin/sh\nsleep 2\n", 0o755)
        reporter.heading(f"A card of {CARD_MIB} MiB as it is bought is put in")
        board.insert(card)
        reporter.report("card", _on_card(board))
        reporter.until_seen(["signal: CardInserted", "State: MOUNTING, last transition CARD_INSERTED",
                             "log: INFO  St:Mounting New SD Card detected",
                             "log: INFO  St:Mounting SD Card Linux Ext4 format was new initialized",
                             "log: INFO  sdcard      SD Card is successfully mounted",
                             "signal: CardMounted", "signal: MemStateChanged", "State: MOUNTED",
                             f"LEDs: {LedPattern.MOUNTED.name}", *_led_steps(board, LedPattern.BUSY)], within=60)
        reporter.report("card", _on_card(board))
        reporter.report("card", _content(board))
        reporter.report("memory", f"state {board.property('MemState')}, {board.property('MemLevel')} % used")
        board.write_file(f"{MOUNT_POINT}/{LOGGER_DATABASE}", "kept\n")
        reporter.report("logger", f"leaves {LOGGER_DATABASE} at the card's root, as older versions did")

        reporter.heading("The eject button is held for five seconds")
        board.press_eject_button()
        reporter.until_seen(["signal: EjectPressed", "log: INFO  sdcard      SD Card eject trigger received",
                             "log: INFO  sdcard      SD Card is successfully unmounted", "signal: CardUnmounted",
                             "State: UNMOUNTED, last transition FILES_CLOSED",
                             *_led_steps(board, LedPattern.UNMOUNTED)], within=BUTTON_SECONDS + 10)
        board.release_eject_button()
        _check(reporter, board, card)

        reporter.heading("The card is taken out, and put in again")
        board.pull()
        reporter.until_seen(["signal: CardRemoved", "State: NO_CARD, last transition CARD_REMOVED",
                             *_led_steps(board, LedPattern.OFF)], within=10)
        board.write_file(PREPARATION_SCRIPT, '#!/bin/sh\necho "$0 is called with $*"\n', 0o755)
        board.insert(card)
        reporter.until_seen(["log: INFO  St:Mounting SD Card Linux Ext4 format is ok",
                             "log: INFO  St:Preparing Succesffully moved logger database into new location",
                             f"log: INFO  St:Preparing {PREPARATION_SCRIPT} is called with logger=/logger",
                             "signal: CardMounted", "State: MOUNTED, last transition CARD_INSERTED",
                             f"LEDs: {LedPattern.MOUNTED.name}"], within=60)
        if board.read_file(f"{MOUNT_POINT}/logger/{LOGGER_DATABASE}") != "kept\n":
            raise NotSeen("the logger's database in its directory")
        reporter.report("card", _content(board))

        reporter.heading(f"More is written to {WATCHED} than its share of the card")
        _overfill(reporter, board)

        reporter.heading("The service is asked to end (SIGTERM)")
        board.service.send_signal()
        reporter.until(lambda: not board.service.running, 60, lambda: "the service's end")
        reporter.until_seen(["log: INFO  sdcard      SD Card is successfully unmounted", "signal: CardUnmounted",
                             f"LEDs: {LedPattern.OFF.name}",
                             "log: INFO  sdcard      Terminating sdcardd with exit code 0"], within=5)
        reporter.report("service", f"ended with status {board.service.exit_status}")
        if board.service.exit_status != 0:
            raise NotSeen(f"the service did not end with status 0: {board.service.errors}")
        _check(reporter, board, card)
    if remains := board.leftovers():
        raise NotSeen("a board that leaves nothing behind: " + "; ".join(remains))
    print("\nEvery step was seen, and nothing is left behind.")


@contextmanager
def _light_watch(board: Board) -> Iterator[LightWatch | None]:
    if board.led_pins() is None:
        yield None
        return
    watch = LightWatch(board.led_pins)
    try:
        yield watch
    finally:
        watch.close()


def _led_steps(board: Board, pattern: LedPattern) -> list[str]:
    """The report of an LED pattern, with the pins if the board has them."""
    at_pins = ", ".join(f"{name} {light.value}" for name, light in zip(LED_NAMES, pattern.value))
    return [f"LEDs: {pattern.name}", *([] if board.led_pins() is None else [f"pins: {at_pins}"])]


def _overfill(reporter: Reporter, board: Board) -> None:
    """Writes files until a watched directory exceeds its share; then the service deletes the oldest."""
    share = board.call(CARD_INTERFACE, "GetDirSize", WATCHED)
    count = share // WATCHED_FILE_BYTES + WATCHED_FILES_BEYOND
    path = f"{MOUNT_POINT}/{WATCHED}"
    board.run("sh", "-c", f"for i in $(seq 101 {100 + count}); do truncate -s {WATCHED_FILE_BYTES} {path}/$i.csv && "
                          "sleep 0.01; done", check=True)
    written = sorted(board.run("ls", path, check=True).stdout.split())
    _report_use(reporter, board, share)
    board.call(CARD_INTERFACE, "EnsureDirSize", WATCHED)
    left = sorted(board.run("ls", path, check=True).stdout.split())
    _report_use(reporter, board, share)
    gone = written[:len(written) - len(left)]
    if not gone or left != written[len(gone):] or board.call(CARD_INTERFACE, "getDirUsed", WATCHED) >= share:
        raise NotSeen(f"the oldest files gone, and no more than needed: {written} became {left}")
    reporter.report(WATCHED, f"the oldest are gone: {' '.join(gone)}")


def _report_use(reporter: Reporter, board: Board, share: int) -> None:
    used = board.call(CARD_INTERFACE, "getDirUsed", WATCHED)
    reporter.report(WATCHED, f"{used / 1e6:.1f} MB of the {share / 1e6:.1f} MB that are its share")


def _on_card(board: Board) -> str:
    kinds = board.run("blkid", "-p", "-o", "value", "-s", "TYPE", PARTITION_DEVICE).stdout.strip()
    partitions = len(board.card.partitions())
    return f"{CARD_DEVICE} has {partitions} partition{'' if partitions == 1 else 's'}, with {kinds or 'nothing'} on it"


def _content(board: Board) -> str:
    used = board.run("df", "--output=used,size,fstype", "-h", MOUNT_POINT).stdout.splitlines()[-1].split()
    names = board.run("ls", "-F", MOUNT_POINT, check=True).stdout.split()
    return f"{MOUNT_POINT} ({used[2]}, {used[0]} of {used[1]} used) holds {' '.join(names)}"


def _check(reporter: Reporter, board: Board, card: Card) -> None:
    if remains := board.mounts():
        raise NotSeen(f"an unmounted card: {remains}")
    if not card.is_clean():
        raise NotSeen(f"a clean card: {card.check().stdout}")
    reporter.report("card", "not mounted, and e2fsck finds it clean")


def main() -> int:
    """The program's entry; returns its exit status."""
    try:
        kind = EmulatedBoard if "--emulated" in sys.argv[1:-1] else VirtualBoard
        play(kind, Path(sys.argv[-1]))
    except (NotSeen, AssertionError, BusError, MachineError, EmulatorError, BoardGone, CalledProcessError,
            OSError) as problem:
        print(f"\nNot every step was seen.\n{problem}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nInterrupted; the board is switched off.", file=sys.stderr)
        return INTERRUPTED
    return 0


if __name__ == "__main__":
    sys.exit(main())
