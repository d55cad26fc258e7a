"""The parts of the panel, without a terminal."""

import itertools
from xml.etree import ElementTree

import pytest

from board import State, VirtualBoard
from board.leds import Led
from board.names import MemState, Transition
from panel import drawing
from panel.lights import Lamp
from panel.model import BUTTON_PATIENCE_SECONDS, EVENTS_KEPT, HINTS, Changes, Model, Properties
from panel.observer import plain
from panel.picture import BACKGROUND, COLUMN, FOREGROUND, ROW, picture_of
from panel.view import MIN_COLUMNS

pytestmark = pytest.mark.virtual  # tests the drawing; no board is needed

CARD_COLUMNS = 48


@pytest.fixture
def model() -> Model:
    return Model(["logger", "csv"], VirtualBoard.kind)


def text_of(markup: drawing.Markup) -> str:
    return "".join(piece if isinstance(piece, str) else piece[1] for piece in markup)


def in_state(model: Model, state: State, level: int = 0) -> Model:
    model.properties = Properties(state, Transition.NONE, MemState.NO_CARD, level)
    return model


def test_a_lamp_with_a_timer_blinks_in_the_intervals_of_its_files():
    lamp = Lamp()
    lit = []
    for step in range(16):
        # Reading unchanged files does not restart the timer.
        lamp.follow(Led(trigger="timer", delay_on=100, delay_off=300), now=50.0 + step * 0.05)
        lit.append(lamp.lit(50.0 + (step + 0.5) * 0.05, card_active=False))
    assert lit == ([True] * 2 + [False] * 6) * 2


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


@pytest.mark.parametrize("share, filled", [(0, 0), (0.001, 1), (0.5, 5), (0.999, 9), (1, 10), (1.7, 10)])
def test_a_bar_is_empty_or_full_only_at_0_and_at_1(share, filled):
    assert drawing.bar(share, 10) == ("█" * filled, "░" * (10 - filled))


@pytest.mark.parametrize("level", [0, 1, 50, 100])
def test_no_piece_of_the_card_is_empty_and_no_line_is_too_long(model, level):
    model.directories[0].limit, model.directories[0].used = 2**31 - 1, level * (2**31 - 1) // 100
    markup = drawing.card(in_state(model, State.CLOSING_FILES, level), CARD_COLUMNS)
    assert all(piece[1] for piece in markup if isinstance(piece, tuple))
    assert max(map(len, text_of(markup).splitlines())) <= CARD_COLUMNS


def test_the_line_of_keys_fits_in_every_situation(model):
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


def test_the_button_is_released_when_the_service_has_seen_it_or_after_a_while(model):
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


def test_changes_are_applied_in_their_order_and_a_failure_is_raised(model):
    changes = Changes()
    changes.add_event("board", "first")
    changes.add_event("board", "second")
    changes.fail(ValueError("broken"))
    with pytest.raises(ValueError, match="broken"):
        changes.apply(model)
    assert [event.text for event in model.events] == ["first", "second"]


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


def test_control_characters_of_progress_bars_are_not_shown():
    assert plain("0.00% done\b\b\b  \b\r\n 1 \x1b[1mbold\t") == "0.00% done 1 [1mbold"
