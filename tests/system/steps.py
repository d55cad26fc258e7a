"""Steps that many system tests share."""

from board import Board, Card, LedPattern, State
from board.names import BOARD_DIRECTORY, MOUNT_RESTRICTION, TRACKING_CONFIGURATION

# The records of each start without a card.
START_RECORDS = ["Configuration successfully parsed", "Checking hardware..."]

MOUNT_SECONDS = 30

_GO_ON = "/run/board/go-on"
# Shell code that makes a replaced program or a script wait for go_on().
HOLD = f"until [ -e {_GO_ON} ]; do sleep 0.1; done"
HELD_PROGRAM = f'{HOLD}; exec "$ORIGINAL" "$@"'


def go_on(board: Board) -> None:
    """Ends all waits of HOLD, even later ones."""
    board.write_file(_GO_ON, "")


def use_shipped_files(board: Board) -> None:
    """Brings the package's tracking configuration and restriction of the mount, which boards do not have."""
    board.run("sh", "-c", 'dpkg-deb --fsys-tarfile "$1" | tar -xf - -C / ".$2" ".$3"', "sh",
              f"{BOARD_DIRECTORY}/package.deb", TRACKING_CONFIGURATION, MOUNT_RESTRICTION, check=True)


def start_with_mounted_card(board: Board, card: Card | None = None) -> Card:
    """Starts the service with a card in the slot and waits until it is mounted."""
    card = card or Card.formatted()
    board.insert(card)
    board.start_service()
    expect_mounted(board)
    return card


def expect_mounted(board: Board, within: float = MOUNT_SECONDS) -> None:
    """Waits until the card is mounted and prepared."""
    board.expect_state(State.MOUNTED, within)


def press_until_eject(board: Board, within: float = 10) -> None:
    """Presses the button until the service reacts, then releases it."""
    before = len(board.signals)
    board.press_eject_button()
    try:
        board.expect_signal("EjectPressed", after=before, within=within)
    finally:
        board.release_eject_button()


def eject(board: Board, within: float = 10) -> None:
    """Presses the button until the card may be removed."""
    press_until_eject(board)
    expect_safe_to_take_out(board, within)


def expect_safe_to_take_out(board: Board, within: float = 10) -> None:
    """Waits until the service reports that the card may be removed, and checks it."""
    card = board.card
    board.expect_state(State.UNMOUNTED, within)
    board.expect_leds(LedPattern.UNMOUNTED)
    assert board.mounts() == []
    assert card.is_clean(), card.check().stdout


def take_out(board: Board) -> None:
    """Removes the card and waits until the service has detected it."""
    board.pull()
    board.expect_state(State.NO_CARD)
    board.expect_leds(LedPattern.OFF)


def messages(board: Board, level: str | None = None, channel: str | None = None) -> list[str]:
    """The messages of all records so far, of one level and channel if given."""
    return [record.message for record in board.records
            if level in (None, record.level) and channel in (None, record.channel)]


def seconds_since_format(board: Board) -> float:
    """How long ago the last format ended, by the board's clock."""
    def seconds(text: str) -> float:
        hours, minutes, rest = text.split(":")
        return int(hours) * 3600 + int(minutes) * 60 + float(rest)
    formatted = [record.time for record in board.records if "new initialized" in record.message][-1]
    return (seconds(board.run("date", "+%H:%M:%S.%3N", check=True).stdout) - seconds(formatted)) % 86400


def signal_names(board: Board, after: int = 0) -> list[str]:
    """The names of all signals so far, in order."""
    return [signal.name for signal in board.signals[after:]]


def steady_leds(board: Board) -> list[LedPattern]:
    """The patterns that the LEDs have shown, in order, without the busy one, which may be too short to be seen."""
    steady: list[LedPattern] = []
    for _, pattern in board.led_panel.history:
        if pattern is not LedPattern.BUSY and pattern not in steady[-1:]:
            steady.append(pattern)
    return steady
