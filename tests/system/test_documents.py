"""The examples in the documents work and give the output that is shown."""

import re
import subprocess
from pathlib import Path

import pytest

import board as board_package
from board import MOUNT_POINT, Board, Card
from board.client import install_client
from conftest import ROOT
from steps import eject, expect_mounted, start_with_mounted_card, take_out

DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
INTEGRATING = ROOT / "docs" / "integrating.md"
CONFIGURATION_PAGE = ROOT / "docs" / "man" / "tavo-sdcard.config.xml.5.scd"
USERS = {"$": "nobody", "#": None}


@pytest.fixture
def board(make_board, program: Path) -> Board:
    """A device with the shipped configuration and a mounted card."""
    board = make_board(program=program, track_config=(ROOT / "platform/tavo-sdcard.trackconfig.xml").read_text())
    install_client(board, program)
    start_with_mounted_card(board, Card.formatted(size_mib=256))
    return board


def blocks(document: Path, language: str) -> list[str]:
    """The fenced blocks of a language."""
    return re.findall(rf"^```{language}\n(.*?)^```$", document.read_text(), re.DOTALL | re.MULTILINE)


def dialogues(document: Path) -> list[tuple[str | None, str, str]]:
    """User, command and output for each command in a document's console blocks."""
    found = []
    for block in blocks(document, "console"):
        pieces = re.split(r"^([$#]) (.*)\n", block, flags=re.MULTILINE)
        assert pieces[0] == "", f"{document.name}: no command before {pieces[0]!r}"
        found += [(USERS[prompt], command, output)
                  for prompt, command, output in zip(pieces[1::3], pieces[2::3], pieces[3::3])]
    return found


def without_numbers(text: str) -> str:
    """A text with all numbers, times and bars replaced."""
    text = re.sub(r"\[[#.]+\]", "[bar]", text)
    text = re.sub(r"\d+(?:[.,:-]\d+)*( [KMG]iB)?", "0", text)
    return re.sub(r" +", " ", text)


@pytest.mark.parametrize("document", [
    pytest.param(document, id=document.stem, marks=[pytest.mark.virtual] if "busctl" in document.read_text() else [])
    for document in DOCUMENTS if blocks(document, "console")])  # only the virtual board has busctl
def test_a_command_gives_the_output_that_a_document_shows(board, document):
    for user, command, output in dialogues(document):
        result = board.run("sh", "-c", command, user=user)
        assert result.returncode == 0, f"{command}: {result.stderr}"
        assert without_numbers(result.stdout) == without_numbers(output), command


def test_the_example_service_writes_while_the_card_is_mounted_and_releases_it(board):
    script, = blocks(INTEGRATING, "sh")
    board.write_file("/usr/local/bin/keep-times", script, 0o755)
    service = board.start("/usr/local/bin/keep-times")
    expect_lines(board, 2)
    eject(board, within=5)
    take_out(board)

    board.insert(Card.formatted(size_mib=64))
    expect_mounted(board)
    expect_lines(board, 2)
    assert service.stop() == 0
    assert service.errors == ""
    board.expect("its monitor has ended", lambda: board.run("pgrep", "-x", "sdcardctl").returncode == 1)


def expect_lines(board: Board, number: int) -> None:
    """Waits until the service has written this number of lines on the mounted card."""
    file = f"{MOUNT_POINT}/logger/times"
    board.expect(f"{number} lines in {file}",
                 lambda: board.exists(file) and board.read_file(file).count("\n") >= number)


def test_the_python_example_of_a_board_runs(make_board, program):
    service = program
    example, = [text for document in DOCUMENTS for text in blocks(document, "python")]
    exec(example, vars(board_package) | {"VirtualBoard": lambda program: make_board(program=service)})


@pytest.mark.virtual  # no board is needed
def test_the_example_of_a_configuration_has_no_problems(program, tmp_path):
    example = tmp_path / "example.xml"
    example.write_text(re.search(r"^```\n(.*?)^```$", CONFIGURATION_PAGE.read_text(), re.DOTALL | re.MULTILINE)[1])
    client = program.parents[1] / "sdcardctl" / "sdcardctl"
    result = subprocess.run([client, "check-config", "--strict", example], capture_output=True, text=True)
    assert result.returncode == 0, result.stdout
