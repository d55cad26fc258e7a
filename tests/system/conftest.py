"""Fixtures of the system tests: boards that are checked when a test is over."""

import os
import signal
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from board import VirtualBoard

ROOT = Path(__file__).resolve().parents[2]


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--preset", default="dev", help="build preset whose program is tested")
    parser.addoption("--program", default=None, help="program to test instead of a preset's")


def pytest_configure(config: pytest.Config) -> None:
    if os.geteuid() != 0:
        pytest.exit("the system tests need root: sudo ./dev test", returncode=2)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """The long ones first: side by side with all others they cost no time."""
    def seconds(item: pytest.Item) -> int:
        marker = item.get_closest_marker("lasts")
        return marker.args[0] if marker else 0
    items.sort(key=seconds, reverse=True)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    report = (yield).get_result()
    if report.when == "call":
        item.call_failed = report.failed


@pytest.fixture(scope="session")
def program(pytestconfig: pytest.Config) -> Path:
    """The service's executable."""
    chosen = pytestconfig.getoption("--program")
    path = Path(chosen) if chosen else ROOT / "build" / pytestconfig.getoption("--preset") / "source" / "sdcardd"
    assert path.is_file(), f"{path} is missing: ./dev build"
    return path


@pytest.fixture
def make_board(request: pytest.FixtureRequest) -> Iterator[Callable[..., VirtualBoard]]:
    """Makes boards, and checks each after the test: no crash, and nothing left behind."""
    boards: list[VirtualBoard] = []

    def make(**options: object) -> VirtualBoard:
        boards.append(VirtualBoard(**options))
        return boards[-1]

    yield make
    failed = getattr(request.node, "call_failed", True)
    may_stay = request.node.get_closest_marker("leaves_card_mounted") is not None
    problems = []
    for board in boards:
        if board.is_open:
            if failed:
                print(board.report())
            else:
                problems += problems_at_the_end(board, may_stay)
            if not request.node.get_closest_marker("crashes"):
                problems += [f"the service crashed: {service.exit_status}\n{service.errors}"
                             for service in board.services if service.crashed]
            board.close()
        problems += board.leftovers()
    assert not problems, "\n".join(problems)


def problems_at_the_end(board: VirtualBoard, may_stay: bool) -> list[str]:
    """Ends what still runs on a board; says what should not be there then. @p may_stay: the card may stay mounted."""
    if board.service is None:
        return []
    for process in board.started:
        process.stop(signal.SIGKILL)
    if board.service.running and board.stop_service() != 0:
        return [f"the service ended with {board.service.exit_status}"]
    if board.service.exit_status != 0 or may_stay:
        return []
    problems = board.leftovers()
    card = board.card
    if not problems and card is not None and [partition.kind for partition in card.partitions()] == ["83"]:
        check = board.fsck(card)
        if not card.is_clean():
            problems.append(f"the card is not clean: {check.stdout}{check.stderr}")
    return problems


@pytest.fixture
def board(make_board: Callable[..., VirtualBoard], program: Path) -> VirtualBoard:
    """A board with the service's program on it; no card, nothing started."""
    return make_board(program=program)


@pytest.fixture
def bare_board(make_board: Callable[..., VirtualBoard]) -> VirtualBoard:
    """A board without the service's program."""
    return make_board()
