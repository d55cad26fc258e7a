"""The life of a card, played once on a board: python3 -m board.story [--emulated] PROGRAM

Ends with status 0 only if every step was seen.
"""

import sys
import time
from pathlib import Path
from subprocess import CalledProcessError

from .board import Board
from .bus import BusError
from .card import Card
from .emulated import BoardGone, EmulatedBoard, EmulatorError
from .installation import PLATFORM
from .names import CARD_DEVICE, MOUNT_POINT, PARTITION_DEVICE
from .telling import NotSeen, Teller
from .virtual_board import VirtualBoard
from .virtual_machine import MachineError

CARD_MIB = 64
BUTTON_SECONDS = 7
INTERRUPTED = 130
KINDS = {VirtualBoard: "A virtual board", EmulatedBoard: "An emulated 32-bit ARM board"}


def play(kind: type[Board], program: Path) -> None:
    """Plays and tells the story on a board of a kind. Raises NotSeen."""
    console = (PLATFORM / "tavo-sdcard.trackconfig.console.xml").read_text()
    with kind(program=program, track_config=console) as board:
        teller = Teller(board)
        card = Card.as_bought(CARD_MIB)

        print(f"{KINDS[kind]}; it is {time.strftime('%H:%M:%S')}, and times are seconds from now on.")
        teller.heading("The device starts with an empty slot")
        board.start_service()
        teller.until_seen(["State: NO_CARD", "LEDs: OFF", "log: INFO  sdcard      Starting (Version"], within=10)

        teller.heading(f"A card of {CARD_MIB} MiB as it is bought is put in")
        board.insert(card)
        teller.tell("card", _on_card(board))
        teller.until_seen(["signal: CardInserted", "State: MOUNTING, last transition CARD_INSERTED", "LEDs: BUSY",
                           "log: INFO  St:Mounting New SD Card detected",
                           "log: INFO  St:Mounting SD Card Linux Ext4 format was new initialized",
                           "log: INFO  sdcard      SD Card is successfully mounted",
                           "signal: CardMounted", "signal: MemStateChanged", "State: MOUNTED", "LEDs: MOUNTED"],
                          within=60)
        teller.tell("card", _on_card(board))
        teller.tell("card", _content(board))
        _tell_lights(teller, board)
        teller.tell("memory", f"state {board.property('MemState')}, {board.property('MemLevel')} % used")

        teller.heading("The eject button is held for five seconds")
        board.press_eject_button()
        teller.until_seen(["signal: EjectPressed", "log: INFO  sdcard      SD Card eject trigger received",
                           "log: INFO  sdcard      SD Card is successfully unmounted", "signal: CardUnmounted",
                           "State: UNMOUNTED, last transition FILES_CLOSED", "LEDs: UNMOUNTED"],
                          within=BUTTON_SECONDS + 10)
        board.release_eject_button()
        _tell_lights(teller, board)
        _check(teller, board, card)

        teller.heading("The card is taken out, and put in again")
        board.pull()
        teller.until_seen(["signal: CardRemoved", "State: NO_CARD, last transition CARD_REMOVED", "LEDs: OFF"], within=10)
        board.insert(card)
        teller.until_seen(["log: INFO  St:Mounting SD Card Linux Ext4 format is ok", "signal: CardMounted",
                           "State: MOUNTED, last transition CARD_INSERTED", "LEDs: MOUNTED"], within=60)

        teller.heading("The service is told to end (SIGTERM)")
        board.service.send_signal()
        teller.until(lambda: not board.service.running, 60, lambda: "the service's end")
        teller.until_seen(["log: INFO  sdcard      SD Card is successfully unmounted", "signal: CardUnmounted",
                           "LEDs: OFF", "log: INFO  sdcard      Terminating sdcardd with exit code 0"], within=5)
        teller.tell("service", f"ended with status {board.service.exit_status}")
        if board.service.exit_status != 0:
            raise NotSeen(f"the service did not end with status 0: {board.service.errors}")
        _check(teller, board, card)
    if remains := board.leftovers():
        raise NotSeen("a board that leaves nothing behind: " + "; ".join(remains))
    print("\nEvery step was seen, and nothing is left behind.")


def _on_card(board: Board) -> str:
    kinds = board.run("blkid", "-p", "-o", "value", "-s", "TYPE", PARTITION_DEVICE).stdout.strip()
    partitions = len(board.card.partitions())
    return f"{CARD_DEVICE} has {partitions} partition{'' if partitions == 1 else 's'}, with {kinds or 'nothing'} on it"


def _content(board: Board) -> str:
    used = board.run("df", "--output=used,size,fstype", "-h", MOUNT_POINT).stdout.splitlines()[-1].split()
    names = board.run("ls", "-F", MOUNT_POINT, check=True).stdout.split()
    return f"{MOUNT_POINT} ({used[2]}, {used[0]} of {used[1]} used) holds {' '.join(names)}"


def _tell_lights(teller: Teller, board: Board) -> None:
    """Tells what shines, where there is something that can."""
    if isinstance(board, EmulatedBoard):
        teller.tell("pins", ", ".join(f"{led} {'on' if on else 'off'}" for led, on in board.lights().items()))


def _check(teller: Teller, board: Board, card: Card) -> None:
    if remains := board.mounts():
        raise NotSeen(f"an unmounted card: {remains}")
    if not card.is_clean():
        raise NotSeen(f"a clean card: {card.check().stdout}")
    teller.tell("card", "not mounted, and e2fsck finds it clean")


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
