"""The descriptions of LEDs by their pins."""

import time

import pytest

from board.emulated.light_watch import LightWatch, ObservedLed

pytestmark = pytest.mark.virtual  # no board is needed

LOOK_SECONDS = 0.02


def words_of(lit_at, seconds: float = 3.0) -> list[str]:
    """The words for an LED that is lit while @p lit_at is true; repeated words appear once."""
    light = ObservedLed()
    words: list[str] = []
    for step in range(int(seconds / LOOK_SECONDS)):
        now = step * LOOK_SECONDS
        if (word := light.see(lit_at(now), now)) not in words[-1:]:
            words.append(word)
    return words


@pytest.mark.parametrize("lit_at, last_words", [
    (lambda now: True, ["on"]),
    (lambda now: False, ["off"]),
    (lambda now: int(now * 1000) // 60 % 2 == 1, ["blinks fast"]),
    (lambda now: int(now * 1000) // 200 % 2 == 1, ["blinks fast"]),
    (lambda now: int(now * 50) % 17 in (1, 4, 5, 9), ["flickers"]),
    (lambda now: int(now * 2) % 2 == 1, ["off", "on", "off", "on", "off", "on"]),
    (lambda now: now < 1 and int(now * 10) % 2 == 1, ["blinks fast", "off"]),
], ids=["on", "off", "blinks every 60 ms", "blinks every 200 ms", "uneven intervals", "changes twice a second",
        "stops blinking"])
def test_the_words_say_what_the_led_does(lit_at, last_words):
    words = words_of(lit_at)
    assert words[-len(last_words):] == last_words
    assert len(words) <= 2 + len(last_words)


@pytest.mark.parametrize("red, green, news", [
    (lambda elapsed: 0.5 < elapsed < 0.6, lambda elapsed: elapsed > 1.0, ["red off, green off", "red off, green on"]),
    (lambda elapsed: elapsed < 1.0, lambda elapsed: elapsed > 1.1, ["red on, green off", "red off, green on"]),
], ids=["too short to be a pattern", "one after the other"])
def test_only_steady_patterns_of_both_leds_are_reported(red, green, news):
    began = time.monotonic()
    watch = LightWatch(lambda: {"red": red(time.monotonic() - began), "green": green(time.monotonic() - began)})
    try:
        while not (seen := [words for _, words in watch.news(0)])[1:] and time.monotonic() < began + 10:
            time.sleep(0.05)
    finally:
        watch.close()
    assert seen == news
