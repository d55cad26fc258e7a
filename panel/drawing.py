"""Draws the model in marked-up text: lists of plain text and (attribute, text), as urwid takes them."""

from board.leds import LED_NAMES

from .keys import KEYS
from .model import EJECT_SECONDS, DirectoryUse, Event, Model

MIB = 1024 * 1024
LAMP_COLOURS = {name: name.removeprefix("mmc-") for name in LED_NAMES}
SLOT_WIDTH = 26
SLOT_ROWS = 7
CARD_ROWS = 4  # and one for each directory
NAME_WIDTH = 12
USE_WIDTH = 21
LEVEL_WIDTH = 6

Markup = list[str | tuple[str, str]]


def bar(share: float, width: int) -> tuple[str, str]:
    """A gauge as its filled and its empty part; a @p share of 1 or more is full."""
    filled = round(min(max(share, 0.0), 1.0) * width)
    # The smallest use is visible, and only a full gauge looks full.
    if 0 < share < 1:
        filled = min(max(filled, 1), width - 1)
    return "█" * filled, "░" * (width - filled)


def slot(model: Model, now: float) -> Markup:
    """The slot, its two lamps and its button."""
    edge = "─" * SLOT_WIDTH
    if model.card:
        markup: Markup = [f"┌{edge}┐\n│", ("card", f"{model.card:^{SLOT_WIDTH}}"), f"│\n└{edge}┘\n"]
    else:
        markup = [f"┌{edge}┐\n│", ("dim", f"{'empty':^{SLOT_WIDTH}}"), f"│\n└{edge}┘\n"]
    for name in LED_NAMES:
        lamp, colour = model.lamps[name], LAMP_COLOURS[name]
        lit = lamp.lit(now, model.card_active) if model.pins is None else model.pins[name]
        markup += [" ", (colour, "●") if lit else ("dim", "○"), f" {colour:7}{lamp.words}\n"]
    held = model.button.held(now)
    filled, empty = bar(held / EJECT_SECONDS, EJECT_SECONDS)
    markup += [" ", ("pressed", "▣ button") if model.button.pressed else "□ button",
               f" {filled}{empty} {held:3.1f} s" if model.button.pressed else " not pressed", "\n"]
    markup.append(f" Process {model.holder} holds a file." if model.holder else " No file is held open.")
    return markup


def card(model: Model, width: int) -> Markup:
    """What the service publishes about the card, in lines of @p width columns."""
    known = model.properties
    rows = {
        "State": known.state.name if known else "-",
        "Transition": known.transition.name if known else "-",
        "MemState": known.mem_state.name if known else "-",
    }
    markup: Markup = []
    for name, value in rows.items():
        markup += [f"  {name:{NAME_WIDTH}}", ("value", value), "\n"]
    level = known.mem_level if known else 0
    markup += [f"  {'MemLevel':{NAME_WIDTH}}", *_gauge("fill", level / 100, width - 2 - NAME_WIDTH - LEVEL_WIDTH),
               f"{level:3} %"]
    for index, directory in enumerate(model.directories):
        markup += ["\n", *_directory(directory, index == model.chosen, width)]
    return markup


def _directory(directory: DirectoryUse, chosen: bool, width: int) -> Markup:
    use = f"{directory.used / MIB:.1f} of {directory.limit / MIB:.1f} MiB" if directory.limit else "not mounted"
    use += " !" if directory.overflows else ""
    name = f"{directory.identifier:{NAME_WIDTH}}"[:NAME_WIDTH]
    share = directory.used / directory.limit if directory.limit else 0
    attribute = "over" if directory.overflows else "fill"
    gauge = _gauge(attribute, share, width - 2 - NAME_WIDTH - USE_WIDTH)
    return [("chosen", f"▸ {name}") if chosen else f"  {name}", *gauge,
            (attribute if directory.overflows else "value", f"{use:>{USE_WIDTH - 1}}")]


def _gauge(attribute: str, share: float, width: int) -> Markup:
    # urwid loses its position in the line after an empty piece.
    return [piece for piece in zip((attribute, "dim"), bar(share, width)) if piece[1]] + [" "]


def header(model: Model, width: int) -> str:
    """The title line."""
    left = f" The {model.board_kind} board"
    right = f"the service {model.service}, run level {model.run_level} "
    return left + right.rjust(width - len(left))


def event(shown: Event) -> Markup:
    """The line of one event."""
    return [("dim", shown.time[:10]), " ", (shown.subject, f"{shown.subject:6}"), f" {shown.text}"]


def keys(model: Model) -> Markup:
    """The keys with their labels; keys without an effect now are dim."""
    markup: Markup = []
    for title, row in KEYS:
        markup.append(("title", f"{title:7}"))
        for entry in row:
            dead = bool(entry.refusal(model))
            markup += [("dead key" if dead else "key", f" {entry.shown} "),
                       ("dim" if dead else "label", f" {entry.label(model)}  ")]
        markup.append("\n")
    return markup[:-1]
