"""Makes a picture (SVG) of a terminal's screen: tmux capture-pane -ep | python3 -m panel.picture >docs/panel.svg"""

import re
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from xml.sax.saxutils import escape

COLUMN, ROW = 9, 19  # size of a character cell
BASELINE = 14
FONT = "ui-monospace, 'DejaVu Sans Mono', Menlo, Consolas, monospace"
FOREGROUND, BACKGROUND = "#d0d0d0", "#16181d"
SYSTEM_COLOURS = ("#000000", "#cd0000", "#00cd00", "#cdcd00", "#0000ee", "#cd00cd", "#00cdcd", "#e5e5e5",
                  "#7f7f7f", "#ff0000", "#00ff00", "#ffff00", "#5c5cff", "#ff00ff", "#00ffff", "#ffffff")
ESCAPE = re.compile(r"\x1b\[([\d;]*)m")
# From the middle of the cell to its left, right, top and bottom edge. Fonts leave gaps between these characters.
BOX_LINES = {"─": "lr", "│": "tb", "┌": "rb", "┐": "lb", "└": "rt", "┘": "lt"}
EDGES = {"l": f"h-{COLUMN / 2}", "r": f"h{COLUMN / 2}", "t": f"v-{ROW / 2}", "b": f"v{ROW / 2}"}
BLOCKS = {"█": 1.0, "░": 0.3}  # opacity


@dataclass
class Style:
    """The style of the next characters; None is the terminal's own colour."""

    foreground: str | None = None
    background: str | None = None
    bold: bool = False
    reverse: bool = False

    def apply(self, codes: list[int]) -> None:
        """Applies the numbers of an escape sequence."""
        while codes:
            code = codes.pop(0)
            if code == 0:
                self.__init__()
            elif code == 1:
                self.bold = True
            elif code == 7:
                self.reverse = True
            elif code in (39, 49):
                self._set(code - 1, None)
            elif code in (38, 48) and codes[0] == 5:
                self._set(code, colour_of(codes[1]))
                del codes[:2]
            elif code in (38, 48) and codes[0] == 2:
                self._set(code, "#{:02x}{:02x}{:02x}".format(*codes[1:4]))
                del codes[:4]
            elif 30 <= code <= 47:
                self._set(38 if code < 40 else 48, colour_of(code % 10))
            elif 90 <= code <= 107:
                self._set(38 if code < 100 else 48, colour_of(code % 10 + 8))

    def _set(self, code: int, colour: str | None) -> None:
        if code == 38:
            self.foreground = colour
        else:
            self.background = colour

    @property
    def colours(self) -> tuple[str, str]:
        """The colours of characters and of their background."""
        pair = self.foreground or FOREGROUND, self.background or BACKGROUND
        return pair[::-1] if self.reverse else pair


def colour_of(number: int) -> str:
    """A colour of the 256 that terminals have."""
    if number < 16:
        return SYSTEM_COLOURS[number]
    if number < 232:
        steps = (number - 16) // 36, (number - 16) // 6 % 6, (number - 16) % 6
        return "#{:02x}{:02x}{:02x}".format(*(step and 55 + 40 * step for step in steps))
    return "#" + f"{8 + 10 * (number - 232):02x}" * 3


def pieces(line: str, style: Style) -> Iterator[tuple[int, str]]:
    """The parts of a line between its escape sequences, with their columns; @p style follows them."""
    column = 0
    for index, part in enumerate(ESCAPE.split(line)):
        if index % 2:
            style.apply([int(code or 0) for code in part.split(";")])
        elif part:
            yield column, part
            column += len(part)


def draw(text: str, column: int, row: int, style: Style) -> Iterator[str]:
    """The elements of the picture that show a text in one style."""
    colour, background = style.colours
    x, y = column * COLUMN, row * ROW
    if background != BACKGROUND:
        yield f'<rect x="{x}" y="{y}" width="{len(text) * COLUMN}" height="{ROW}" fill="{background}"/>'
    for match in re.finditer(r"█+|░+|[─│┌┐└┘]+|[^█░─│┌┐└┘ ]+(?: [^█░─│┌┐└┘ ]+)*", text):
        part, x = match[0], (column + match.start()) * COLUMN
        width = len(part) * COLUMN
        if part[0] in BLOCKS:
            yield (f'<rect x="{x}" y="{y + 2}" width="{width}" height="{ROW - 4}" fill="{colour}" '
                   f'opacity="{BLOCKS[part[0]]}"/>')
        elif part[0] in BOX_LINES:
            path = "".join(f"M{x + (index + 0.5) * COLUMN} {y + ROW / 2}{EDGES[edge]}"
                           for index, character in enumerate(part) for edge in BOX_LINES[character])
            yield f'<path d="{path}" stroke="{colour}"/>'
        else:
            weight = ' font-weight="bold"' if style.bold else ""
            yield (f'<text x="{x}" y="{y + BASELINE}" textLength="{width}" fill="{colour}"{weight}>'
                   f"{escape(part)}</text>")


def picture_of(screen: str) -> str:
    """The picture of a screen with its escape sequences."""
    lines = screen.splitlines()
    width = max(len(ESCAPE.sub("", line)) for line in lines) * COLUMN + 2 * COLUMN
    height = len(lines) * ROW + 2 * COLUMN
    style = Style()
    drawn = [element for row, line in enumerate(lines) for column, text in pieces(line, style)
             for element in draw(text, column, row, style)]
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}">',
        f'<rect width="{width}" height="{height}" rx="6" fill="{BACKGROUND}"/>',
        f'<g transform="translate({COLUMN} {COLUMN})" font-family="{FONT}" font-size="15" xml:space="preserve">',
        *drawn, "</g>", "</svg>", ""])


if __name__ == "__main__":
    sys.stdout.write(picture_of(sys.stdin.read()))
