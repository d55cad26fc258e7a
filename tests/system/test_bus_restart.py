"""The message bus goes away while the service runs, and comes back."""

import pytest

from board import Card, State
from board.names import SERVICE_PROGRAM
from steps import eject, expect_mounted, start_with_mounted_card, take_out

pytestmark = pytest.mark.virtual  # restarts the bus of the board, which the emulated board's link needs

RETURN_SECONDS = 5


def expect_service_on_bus(board) -> None:
    board.expect("the service is on the bus", board.bus.has_service, RETURN_SECONDS)


def test_the_service_returns_to_a_bus_that_was_restarted(board):
    start_with_mounted_card(board)
    mounts = board.mounts()
    board.stop_message_bus()
    board.start_message_bus()
    expect_service_on_bus(board)
    assert board.state is State.MOUNTED
    assert board.mounts() == mounts
    eject(board)


def test_a_card_that_came_while_the_bus_was_away_is_mounted(board):
    board.start_service()
    board.stop_message_bus()
    board.insert(Card.formatted(), announce=False)
    board.start_message_bus()
    expect_mounted(board)


def test_a_card_that_left_while_the_bus_was_away_is_gone(board):
    start_with_mounted_card(board)
    board.stop_message_bus()
    board.pull(announce=False)
    board.start_message_bus()
    expect_service_on_bus(board)
    board.expect_state(State.NO_CARD)
    assert board.mounts() == []


def test_insertions_are_announced_on_the_restarted_bus_too(board):
    board.start_service()
    for _ in range(2):
        board.stop_message_bus()
        board.start_message_bus()
        expect_service_on_bus(board)
    board.insert(Card.formatted())
    board.expect_signal("CardMounted", within=30)
    eject(board)
    take_out(board)


def test_a_second_instance_does_not_start_beside_one_that_lost_the_bus(board):
    start_with_mounted_card(board)
    first = board.service
    board.stop_message_bus()
    # On a bus that the first service does not use.
    other_bus = "unix:path=/run/other-bus"
    board.run("dbus-daemon", "--system", "--fork", "--nopidfile", "--nosyslog", f"--address={other_bus}", check=True)
    second = board.run("env", f"DBUS_SYSTEM_BUS_ADDRESS={other_bus}", SERVICE_PROGRAM)
    assert second.returncode == 1
    board.expect_record("ERROR", "sdcard", "Another instance of the service is using the card")
    assert first.running
    board.start_message_bus()
    expect_service_on_bus(board)
