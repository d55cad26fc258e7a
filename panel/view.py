"""The panel's screen."""

import os

import urwid

from . import drawing
from .model import Event, Model

MIN_COLUMNS, MIN_ROWS = 80, 24
SLOT_BOX_COLUMNS = drawing.SLOT_WIDTH + 4
BOX_EDGES = 2
MANY_COLOURS, FEW_COLOURS, NO_COLOURS = 256, 16, 1

# Name, colour of 16, background, without colours, colour of 256, background. Some terminals lack dark grey.
PALETTE = [
    ("header", "white", "dark blue", "standout", "#fff", "#008"),
    ("title", "default,bold", "default", "bold", "bold", ""),
    ("key", "black", "light gray", "standout", "#000", "g78"),
    ("dead key", "default", "default", "default", "g50", ""),
    ("label", "default", "default", "default", "", ""),
    ("dim", "default", "default", "default", "g50", ""),
    ("card", "black", "light gray", "standout", "#000", "g78"),
    ("red", "light red,bold", "default", "bold", "#f00,bold", ""),
    ("green", "light green,bold", "default", "bold", "#0f0,bold", ""),
    ("pressed", "yellow,bold", "default", "standout", "#fd0,bold", ""),
    ("value", "default,bold", "default", "bold", "bold", ""),
    ("chosen", "light cyan,bold", "default", "bold", "#6df,bold", ""),
    ("fill", "light green", "default", "default", "#0a0", ""),
    ("over", "light red,bold", "default", "bold", "#f00,bold", ""),
    ("hint", "light cyan", "default", "default", "#6df", ""),
    ("signal", "light cyan,bold", "default", "bold", "#6df,bold", ""),
    ("you", "default,bold", "default", "bold", "bold", ""),
    ("board", "default,bold", "default", "bold", "bold", ""),
    ("panel", "yellow", "default", "default", "#fd0", ""),
    ("INFO", "default", "default", "default", "g70", ""),
    ("WARN", "yellow", "default", "default", "#fd0", ""),
    ("ERROR", "light red", "default", "bold", "#f00", ""),
    ("FATAL", "light red,bold", "default", "bold", "#f00,bold", ""),
]


class _Events(urwid.ListBox):
    """The list of events; shows the newest unless the user has scrolled back."""

    def __init__(self) -> None:
        super().__init__(urwid.SimpleFocusListWalker([]))
        self._size: tuple[int, int] | None = None

    def render(self, size: tuple[int, int], focus: bool = False) -> urwid.Canvas:
        """See urwid.Widget; keeps the size for the next add()."""
        self._size = size
        return super().render(size, focus)

    def add(self, events: list[Event], keep: int) -> None:
        """Appends lines, and removes the oldest until @p keep are left."""
        at_end = self._size is None or not self.body or "bottom" in self.ends_visible(self._size)
        self.body.extend([urwid.Text(drawing.event(event), wrap="ellipsis") for event in events])
        del self.body[:-keep]
        if at_end:
            self.set_focus(len(self.body) - 1)
            self.set_focus_valign("bottom")


class _Text(urwid.Text):
    """A text that is only redrawn when it has changed."""

    _markup: object = None

    def show(self, markup: object) -> None:
        """Shows marked-up text."""
        if markup != self._markup:
            self._markup = markup
            self.set_text(markup)


class View:
    """The widgets of the screen; refresh() makes them show the model."""

    def __init__(self, directories: int) -> None:
        """@p directories is the number of watched directories."""
        self._header, self._slot, self._card, self._hint, self._keys, self._small = (
            _Text("", wrap="clip") for _ in range(6))
        self._events = _Events()
        self._shown = 0
        box_rows = BOX_EDGES + max(drawing.SLOT_ROWS, drawing.CARD_ROWS + directories)
        boxes = urwid.Columns([
            (SLOT_BOX_COLUMNS, urwid.LineBox(urwid.Filler(self._slot, "top"), "Slot", title_align="left")),
            urwid.LineBox(urwid.Filler(self._card, "top"), "Card, as the service shows it on the bus",
                          title_align="left"),
        ])
        top = urwid.Pile([("pack", urwid.AttrMap(self._header, "header")), (box_rows, boxes)])
        bottom = urwid.Pile([("pack", urwid.AttrMap(self._hint, "hint")), ("pack", self._keys)])
        self._whole = urwid.Frame(self._events, header=urwid.BoxAdapter(top, 1 + box_rows), footer=bottom)
        self._too_small = urwid.Filler(self._small, "top")
        self.widget = urwid.WidgetPlaceholder(self._whole)

    def refresh(self, model: Model, now: float, size: tuple[int, int]) -> None:
        """Shows the model at @p now (time.monotonic()) on a screen of @p size columns and rows."""
        columns, rows = size
        if columns < MIN_COLUMNS or rows < MIN_ROWS:
            self._small.show(f"This terminal is {columns}x{rows}.\n"
                             f"The panel needs {MIN_COLUMNS}x{MIN_ROWS}.\n(q quits)")
            self.widget.original_widget = self._too_small
            return
        self.widget.original_widget = self._whole
        self._header.show(drawing.header(model, columns))
        self._slot.show(drawing.slot(model, now))
        self._card.show(drawing.card(model, columns - SLOT_BOX_COLUMNS - BOX_EDGES))
        self._hint.show("▸ " + model.hint)
        self._keys.show(drawing.keys(model))
        count = model.events_dropped + len(model.events)
        if count != self._shown:
            new = model.events[-(count - self._shown):]
            self._events.add(new, keep=len(model.events))
            self._shown = count


def colours_of_terminal() -> int:
    """The number of colours: from TERM, and none if NO_COLOR is set."""
    if os.environ.get("NO_COLOR"):
        return NO_COLOURS
    return MANY_COLOURS if "256color" in os.environ.get("TERM", "") else FEW_COLOURS
