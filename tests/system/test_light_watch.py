"""What is told of LEDs that are looked at."""

import time

import pytest

from board.emulated.light_watch import LightWatch, ObservedLed

pytestmark = pytest.mark.virtual  # no board is needed

LOOK_SECONDS = 0.02


def words_of(lit_at, seconds: float = 2.0) -> list[str]:
    """What is said of an LED that is lit at the moments for which @p lit_at says so; each word once in a row."""
    light = ObservedLed()
    words: list[str] = []
    for step in range(int(seconds / LOOK_SECONDS)):
        now = step * LOOK_SECONDS
        if (said := light.see(lit_at(now), now)) not in words[-1:]:
            words.append(said)
    return words


def first_two(look) -> list[str]:
    """The first two things that are told of LEDs, of which @p look says which are lit."""
    watch = LightWatch(look)
    deadline = time.monotonic() + 10
    try:
        while not (news := [words for _, words in watch.news(0)])[1:] and time.monotonic() < deadline:
            time.sleep(0.05)
    finally:
        watch.close()
    return news


@pytest.mark.parametrize("lit, said", [(True, "on"), (False, "off")])
def test_an_led_that_does_not_change_is_on_or_off(lit, said):
    assert words_of(lambda _: lit) == [said]


@pytest.mark.parametrize("milliseconds", [60, 100, 200])
def test_an_led_with_even_short_intervals_blinks_fast(milliseconds):
    assert words_of(lambda now: int(now * 1000) // milliseconds % 2 == 1)[-1] == "blinks fast"


def test_an_led_with_uneven_intervals_flickers():
    assert words_of(lambda now: int(now * 50) % 17 in (1, 4, 5, 9))[-1] == "flickers"


def test_an_led_that_changes_twice_a_second_is_on_and_off_by_turns():
    assert words_of(lambda now: int(now * 2) % 2 == 1) == ["off", "on", "off", "on"]


def test_an_led_that_goes_on_blinking_is_never_said_to_be_steady():
    words = words_of(lambda now: int(now * 10) % 2 == 1, 5.0)
    assert words[words.index("blinks fast"):] == ["blinks fast"]


def test_an_led_that_stops_blinking_is_said_to_be_off():
    assert words_of(lambda now: now < 1 and int(now * 10) % 2 == 1, 3.0)[-2:] == ["blinks fast", "off"]


def test_what_lasts_too_short_to_be_a_pattern_is_not_told():
    looks: list[float] = []

    def look() -> dict[str, bool]:
        looks.append(time.monotonic())
        elapsed = looks[-1] - looks[0]
        return {"red": 0.5 < elapsed < 0.6, "green": elapsed > 1.0}
    assert first_two(look) == ["red off, green off", "red off, green on"]


def test_leds_that_change_one_after_the_other_are_told_as_one_change():
    looks: list[float] = []

    def look() -> dict[str, bool]:
        looks.append(time.monotonic())
        elapsed = looks[-1] - looks[0]
        return {"red": elapsed < 1.0, "green": elapsed > 1.1}
    assert first_two(look) == ["red on, green off", "red off, green on"]
