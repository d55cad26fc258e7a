"""What the board in a terminal shows, without a terminal."""

import itertools
from xml.etree import ElementTree

import pytest

from board import Board, State, VirtualBoard
from board.emulated import EmulatedBoard
from board.leds import LED_NAMES, Led
from board.names import MemState, Transition
from panel import drawing
from panel.hands import BLANK_CARD, DAMAGED_CARD, OWN_CARD, TWO_PARTITIONS_CARD
from panel.keys import KEYS
from panel.lights import Lamp
from panel.model import (BUTTON_PATIENCE_SECONDS, EVENTS_KEPT, HINTS, Changes, Model, Properties,
                               watched_directories)
from panel.observer import plain
from panel.picture import BACKGROUND, COLUMN, FOREGROUND, ROW, picture_of
from panel.view import MIN_COLUMNS, PALETTE
from conftest import ROOT

pytestmark = pytest.mark.virtual  # about what is drawn; no board is needed

CARD_COLUMNS = 48
KINDS = [OWN_CARD, BLANK_CARD, DAMAGED_CARD, TWO_PARTITIONS_CARD]


@pytest.fixture
def model() -> Model:
    return Model(["logger", "csv"], VirtualBoard.kind)


def text_of(markup: drawing.Markup) -> str:
    return "".join(piece if isinstance(piece, str) else piece[1] for piece in markup)


def in_state(model: Model, state: State, level: int = 0) -> Model:
    model.properties = Properties(state, Transition.NONE, MemState.NO_CARD, level)
    return model


@pytest.mark.parametrize("board, title", [(VirtualBoard, " The virtual board "),
                                          (EmulatedBoard, " The emulated board ")])
def test_the_title_says_which_kind_of_board_it_is(board: type[Board], title: str):
    line = drawing.header(Model([], board.kind), 80)
    assert line.startswith(title)
    assert len(line) == 80


def test_a_lamp_with_a_timer_blinks_in_the_intervals_of_its_files():
    lamp = Lamp()
    lamp.follow(Led(trigger="timer", delay_on=100, delay_off=300), now=50.0)
    lit = [lamp.lit(50.0 + (step + 0.5) * 0.05, card_active=False) for step in range(16)]
    assert lit == ([True] * 2 + [False] * 6) * 2


def test_a_lamp_goes_on_blinking_while_its_files_stay_the_same():
    lamp = Lamp()
    for step in range(3):
        lamp.follow(Led(trigger="timer", delay_on=100, delay_off=100), now=50.0 + step * 0.05)
    assert not lamp.lit(50.15, card_active=False)


@pytest.mark.parametrize("led, active, lit", [
    (Led(), True, False),
    (Led(brightness=255), False, True),
    (Led(brightness=255, trigger="mmc0"), False, False),
    (Led(brightness=255, trigger="mmc0"), True, True),
    (Led(trigger="timer", delay_on=100, delay_off=0), False, True),
    (Led(trigger="timer", delay_on=0, delay_off=100), False, False),
])
def test_a_lamp_lights_as_its_files_say(led, active, lit):
    lamp = Lamp()
    lamp.follow(led, now=0.0)
    assert [lamp.lit(moment, active) for moment in (0.0, 0.07, 0.3)] == [lit] * 3


def test_each_light_has_its_own_colour():
    assert set(drawing.LAMP_COLOURS) == set(LED_NAMES)
    assert all(name.endswith(colour) for name, colour in drawing.LAMP_COLOURS.items())
    assert set(drawing.LAMP_COLOURS.values()) <= {entry[0] for entry in PALETTE}


@pytest.mark.parametrize("share, filled", [(0, 0), (0.001, 1), (0.5, 5), (0.999, 9), (1, 10), (1.7, 10)])
def test_a_bar_shows_that_something_is_there_and_that_something_is_left(share, filled):
    assert drawing.bar(share, 10) == ("█" * filled, "░" * (10 - filled))


def test_a_directory_above_its_limit_is_marked(model):
    model.directories[1].limit, model.directories[1].used = 2 * drawing.MIB, 3 * drawing.MIB
    markup = drawing.card(in_state(model, State.MOUNTED), CARD_COLUMNS)
    assert "3.0 of 2.0 MiB !" in text_of(markup)
    assert any(piece[0] == "over" for piece in markup if isinstance(piece, tuple))


@pytest.mark.parametrize("level", [0, 1, 50, 100])
def test_no_piece_of_the_card_is_empty_and_no_line_too_long(model, level):
    model.directories[0].limit, model.directories[0].used = 2**31 - 1, level * (2**31 - 1) // 100
    markup = drawing.card(in_state(model, State.CLOSING_FILES, level), CARD_COLUMNS)
    assert all(piece[1] for piece in markup if isinstance(piece, tuple))
    assert max(map(len, text_of(markup).splitlines())) <= CARD_COLUMNS


@pytest.mark.parametrize("kind", KINDS, ids=lambda kind: kind.name)
def test_the_name_of_each_kind_of_card_fits_into_the_slot(model, kind):
    model.card = kind.name
    assert {len(line) for line in text_of(drawing.slot(model, 0.0)).splitlines()[:3]} == {drawing.SLOT_WIDTH + 2}


def test_the_keys_fit_whatever_they_do_at_the_moment(model):
    for runs, term_sent, pressed, holder, writing, run_level in itertools.product(
            (True, False), (True, False), (True, False), (None, 12345), (True, False), (5, 6)):
        model.service_runs, model.term_sent, model.holder, model.writing = runs, term_sent, holder, writing
        model.run_level = run_level
        model.button.release()
        if pressed:
            model.button.press(0.0)
        assert max(map(len, text_of(drawing.keys(model)).splitlines())) <= MIN_COLUMNS


def test_every_state_has_a_hint_that_fits(model):
    model.service_runs = True
    for state, card in itertools.product(State, ("", "a card")):
        model.card = card
        assert 0 < len(in_state(model, state).hint) <= MIN_COLUMNS - len("▸ ")
    assert set(HINTS) | {State.NO_CARD} == set(State)


def test_the_button_is_let_go_when_the_service_has_seen_it_and_else_after_a_while(model):
    model.button.press(100.0)
    assert not model.button.wants_release(100.0 + BUTTON_PATIENCE_SECONDS)
    assert model.button.wants_release(100.1 + BUTTON_PATIENCE_SECONDS)
    model.take_signal("CardMounted", (), "12:00:00.000")
    assert not model.button.wants_release(101.0)
    model.take_signal("EjectPressed", (), "12:00:00.000")
    assert model.button.wants_release(101.0)
    model.button.release()
    assert not model.button.wants_release(101.0)


def test_the_oldest_events_are_dropped_when_there_are_too_many(model):
    for number in range(EVENTS_KEPT + 3):
        model.add_event("board", str(number))
    assert (len(model.events), model.events_dropped, model.events[0].text) == (EVENTS_KEPT, 3, "3")


def test_changes_are_applied_in_their_order_and_a_failure_comes_out(model):
    changes = Changes()
    changes.add_event("board", "first")
    changes.add_event("board", "second")
    changes.fail(ValueError("broken"))
    with pytest.raises(ValueError, match="broken"):
        changes.apply(model)
    assert [event.text for event in model.events] == ["first", "second"]


def test_only_watched_directories_have_a_bar():
    assert watched_directories(
        '<sdcard><dir size="40" capacitywatch="true"> logger\n <dir size="25" capacitywatch="true">archive</dir></dir>'
        '<dir size="20">export</dir><dir size="1" capacitywatch="false">csv</dir></sdcard>') == ["logger", "archive"]


def svg_elements(svg: str, name: str) -> list[ElementTree.Element]:
    return list(ElementTree.fromstring(svg).iter("{http://www.w3.org/2000/svg}" + name))


def test_a_picture_has_each_text_in_its_place_and_colour():
    drawn = picture_of("\x1b[1m\x1b[38;5;196m● <lit>\x1b[0m  off\n \x1b[7mkey\x1b[0m \x1b[38;2;1;2;3mdim\x1b[39m\n")
    texts = [(text.text, int(text.get("x")) // COLUMN, int(text.get("y")) // ROW, text.get("fill"))
             for text in svg_elements(drawn, "text")]
    assert texts == [("● <lit>", 0, 0, "#ff0000"), ("off", 9, 0, FOREGROUND), ("key", 1, 1, BACKGROUND),
                     ("dim", 5, 1, "#010203")]
    assert [text.get("font-weight") for text in svg_elements(drawn, "text")] == ["bold", None, None, None]
    behind = [rectangle for rectangle in svg_elements(drawn, "rect") if rectangle.get("fill") == FOREGROUND]
    assert [(int(rectangle.get("x")), int(rectangle.get("width"))) for rectangle in behind] == [(COLUMN, 3 * COLUMN)]


def test_a_picture_draws_frames_and_bars_without_gaps():
    drawn = picture_of("┌─┐██░\n")
    assert [path.get("d").count("M") for path in svg_elements(drawn, "path")] == [6]
    bars = [rectangle for rectangle in svg_elements(drawn, "rect") if rectangle.get("opacity")]
    assert [(int(bar.get("x")), int(bar.get("width"))) for bar in bars] == [
        (3 * COLUMN, 2 * COLUMN), (5 * COLUMN, COLUMN)]


def test_the_picture_in_the_readme_shows_the_keys_of_the_panel(model):
    model.holder, model.service_runs = 1, True
    shown = " ".join(text.text for text in svg_elements((ROOT / "docs" / "panel.svg").read_text(), "text"))
    assert "](docs/panel.svg)" in (ROOT / "README.md").read_text()
    for title, row in KEYS:
        assert title in shown
        assert [entry.label(model) for entry in row if entry.label(model) not in shown] == []


def test_control_characters_of_progress_bars_are_not_shown():
    assert plain("0.00% done\b\b\b  \b\r\n 1 \x1b[1mbold\t") == "0.00% done 1 [1mbold"
