"""Fixtures of the system tests: boards that are checked after each test."""

import os
import signal
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from board import Board, VirtualBoard
from board.emulated import EmulatedBoard

ROOT = Path(__file__).resolve().parents[2]
EMULATED_TIMEOUT_SECONDS = 900
BOARDS = {"virtual": VirtualBoard, "emulated": EmulatedBoard}


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--board", choices=BOARDS, default="virtual", help="kind of board to test on")
    parser.addoption("--preset", default=None, help="build preset whose program is tested")
    parser.addoption("--program", default=None, help="program to test instead of a preset's")
    parser.addoption("--package", default=None, help="Debian package to test instead of a program")


def pytest_configure(config: pytest.Config) -> None:
    if os.geteuid() != 0:
        pytest.exit("the system tests need root; as root: ./dev test", returncode=2)
    if _is_emulated(config) and not config.getoption("timeout", None):
        config.option.timeout = EMULATED_TIMEOUT_SECONDS


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Deselects tests of another kind of board, and package tests without a package; sorts the rest."""
    others = set(BOARDS) - {config.getoption("--board")}
    if config.getoption("--package") is None:
        others.add("package")
    left_out = [item for item in items if any(item.get_closest_marker(name) for name in others)]
    if left_out:
        config.hook.pytest_deselected(items=left_out)
    items[:] = in_quick_order([item for item in items if item not in left_out], _is_emulated(config))


def in_quick_order(items: list[pytest.Item], spread: bool) -> list[pytest.Item]:
    """Puts the long tests first: beside all others they cost no time.

    With @p spread they are spread over the first half: an emulator needs a core while its board works, but most of
    the long ones wait most of the time.
    """
    def seconds(item: pytest.Item) -> int:
        marker = item.get_closest_marker("lasts")
        return marker.args[0] if marker else 0
    ordered = sorted(items, key=seconds, reverse=True)
    if not spread:
        return ordered
    long_ones = [item for item in ordered if seconds(item)]
    short_ones = ordered[len(long_ones):]
    between = len(short_ones) // 2 // max(1, len(long_ones))
    mixed = []
    for index, item in enumerate(long_ones):
        mixed += [item, *short_ones[index * between:(index + 1) * between]]
    return mixed + short_ones[len(long_ones) * between:]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    report = (yield).get_result()
    if report.when == "call":
        item.call_failed = report.failed


def _is_emulated(config: pytest.Config) -> bool:
    return config.getoption("--board") == "emulated"


@pytest.fixture(scope="session")
def package(pytestconfig: pytest.Config) -> Path | None:
    """The Debian package under test, or None."""
    chosen = pytestconfig.getoption("--package")
    return Path(chosen).resolve(strict=True) if chosen else None


@pytest.fixture(scope="session")
def program(pytestconfig: pytest.Config, package: Path | None) -> Path | None:
    """The service's executable; None when a package is tested."""
    if package is not None:
        return None
    chosen = pytestconfig.getoption("--program")
    preset = pytestconfig.getoption("--preset") or ("armhf" if _is_emulated(pytestconfig) else "dev")
    path = Path(chosen) if chosen else ROOT / "build" / preset / "source" / "sdcardd"
    assert path.is_file(), f"{path} is missing: ./dev build{' --armhf' if _is_emulated(pytestconfig) else ''}"
    return path


@pytest.fixture
def make_board(request: pytest.FixtureRequest, package: Path | None) -> Iterator[Callable[..., Board]]:
    """Makes boards and checks each after the test: no crash, and no leftovers except of a killed service."""
    kind = BOARDS[request.config.getoption("--board")]
    boards: list[Board] = []

    given: dict[str, object] = {} if package is None else {"package": package}
    if request.config.getoption("--preset") == "coverage":
        # The directory on the board to which the service writes its counts.
        given["shared"] = ROOT / "build" / "coverage"

    def make(**options: object) -> Board:
        boards.append(kind(**(given | options)))
        return boards[-1]

    yield make
    failed = getattr(request.node, "call_failed", True)
    may_stay = request.node.get_closest_marker("leaves_card_mounted") is not None
    problems = []
    with ExitStack() as all_boards:
        for board in boards:
            all_boards.callback(board.close)
        for board in boards:
            if board.is_open:
                if failed:
                    print(board.report())
                else:
                    problems += problems_at_the_end(board, may_stay)
                if not request.node.get_closest_marker("crashes"):
                    problems += [f"the service crashed: {service.exit_status}\n{service.errors}"
                                 for service in board.services if service.crashed]
    problems += [remains for board in boards for remains in board.leftovers()]
    assert not problems, "\n".join(problems)


def problems_at_the_end(board: Board, may_stay: bool) -> list[str]:
    """Ends all programs on a board, and returns what they left behind.

    A service that was killed by a signal cannot clean up, and one that did not start has not touched the card.
    @p may_stay: the card may stay mounted.
    """
    if board.service is None:
        return []
    for process in board.started:
        process.stop(signal.SIGKILL)
    if board.service.running and board.stop_service() != 0:
        return [f"the service ended with {board.service.exit_status}"]
    status = board.service.exit_status
    if status < 0 or may_stay:
        return []
    problems = board.leftovers()
    card = board.card if status == 0 else None
    if not problems and card is not None and [partition.kind for partition in card.partitions()] == ["83"]:
        check = card.check()
        if not card.is_clean():
            problems.append(f"the card is not clean: {check.stdout}{check.stderr}")
    return problems


@pytest.fixture
def board(make_board: Callable[..., Board], program: Path) -> Board:
    """A board with the service's program on it; no card, nothing started."""
    return make_board(program=program)


@pytest.fixture
def bare_board(make_board: Callable[..., Board]) -> Board:
    """A board without the service's program."""
    return make_board()
