"""What the documents show is what one sees: commands, their output, records of the log."""

import re
import subprocess
from pathlib import Path

import pytest

import board as board_package
from board import MOUNT_POINT, Board, Card
from board.client import install_client
from conftest import ROOT
from steps import eject, expect_mounted, start_with_mounted_card, take_out

README = ROOT / "README.md"
OPERATING = ROOT / "docs" / "operating.md"
DEVELOPING = ROOT / "docs" / "developing.md"
INTEGRATING = ROOT / "docs" / "integrating.md"
PAGES = ROOT / "docs" / "man"
SERVICE_PAGE = PAGES / "sdcardd.8.scd"
CONFIGURATION_PAGE = PAGES / "tavo-sdcard.config.xml.5.scd"
needs_no_board = pytest.mark.virtual  # once is enough
USERS = {"$": "nobody", "#": None}


@pytest.fixture
def board(make_board, program: Path) -> Board:
    """A device as it is shipped, with a mounted card."""
    board = make_board(program=program, track_config=(ROOT / "platform/tavo-sdcard.trackconfig.xml").read_text())
    install_client(board, program)
    start_with_mounted_card(board, Card.formatted(size_mib=256))
    return board


def blocks(document: Path, language: str) -> list[str]:
    """The fenced blocks of a language."""
    return re.findall(rf"^```{language}\n(.*?)^```$", document.read_text(), re.DOTALL | re.MULTILINE)


def dialogues(document: Path) -> list[tuple[str | None, str, str]]:
    """User, command and output of all that a document shows on a console."""
    found = []
    for block in blocks(document, "console"):
        pieces = re.split(r"^([$#]) (.*)\n", block, flags=re.MULTILINE)
        assert pieces[0] == "", f"{document.name}: no command before {pieces[0]!r}"
        found += [(USERS[prompt], command, output)
                  for prompt, command, output in zip(pieces[1::3], pieces[2::3], pieces[3::3])]
    return found


def without_numbers(text: str) -> str:
    """A text in which all measurements, times and bars look alike."""
    text = re.sub(r"\[[#.]+\]", "[bar]", text)
    text = re.sub(r"\d+(?:[.,:-]\d+)*( [KMG]iB)?", "0", text)
    return re.sub(r" +", " ", text)


@pytest.mark.parametrize("document", [
    OPERATING, pytest.param(INTEGRATING, marks=pytest.mark.virtual),  # it shows busctl, which is a part of systemd
], ids=lambda document: document.stem)
def test_what_a_document_shows_on_a_console_is_what_one_sees(board, document):
    shown = dialogues(document)
    assert len(shown) >= 5
    for user, command, output in shown:
        result = board.run("sh", "-c", command, user=user)
        assert result.returncode == 0, f"{command}: {result.stderr}"
        assert without_numbers(result.stdout) == without_numbers(output), command


def test_the_whole_service_writes_while_it_may_and_lets_the_card_go(board):
    scripts = blocks(INTEGRATING, "sh")
    assert len(scripts) == 1
    board.write_file("/usr/local/bin/keep-times", scripts[0], 0o755)
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
    """Waits until the service has written so many lines on the mounted card."""
    file = f"{MOUNT_POINT}/logger/times"
    board.expect(f"{number} lines in {file}",
                 lambda: board.exists(file) and board.read_file(file).count("\n") >= number)


def test_the_board_in_the_document_works_as_shown(make_board, program):
    service = program
    examples = blocks(DEVELOPING, "python")
    assert len(examples) == 1
    exec(examples[0], vars(board_package) | {"VirtualBoard": lambda program: make_board(program=service)})


@needs_no_board
def test_the_commands_in_the_documents_exist(program):
    client = program.parents[1] / "sdcardctl" / "sdcardctl"
    helps = {"./dev": subprocess.run([ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout,
             "sdcardctl": subprocess.run([client, "--help"], capture_output=True, text=True, check=True).stdout}
    used = [words.split() for document in [README, *(ROOT / "docs").glob("*.md"), *PAGES.glob("*.scd")]
            for words in re.findall(r"(?:\./dev|sdcardctl)(?: --?[a-z-]+| [a-z][a-z-]*)+", document.read_text())]
    assert len(used) > 20
    for program_name, *words in used:
        unknown = [word for word in words[:1] if not re.search(rf"(?<![\w-]){word}(?![\w-])", helps[program_name])]
        unknown += [word for word in words[1:] if word.startswith("--") and word not in helps[program_name]]
        assert not unknown, f"{program_name} {' '.join(words)}"


@needs_no_board
def test_every_time_that_the_table_names_stands_where_it_says():
    table = (ROOT / "docs/architecture.md").read_text().split("\n## Times")[1].split("\n## ")[0]
    named = re.findall(r"\| `([\w.]+)`: (.*) \|$", table, re.MULTILINE)
    assert len(named) > 15
    assert [(file, name) for file, names in named for name in re.findall(r"`(\w+)`", names)
            if not re.search(rf"\b{name} = ", (ROOT / "source" / file).read_text())] == []


# Log records

def literals(code: str) -> list[str]:
    """The strings in a piece of C++; those that follow each other are one."""
    joined = re.sub(r'"\s*\n\s*"', "", code)
    return [text.replace('\\"', '"') for text in re.findall(r'"((?:[^"\\]|\\.)*)"', joined)]


def source_files() -> list[Path]:
    return sorted((ROOT / "source").glob("*.cpp"))


def logged_texts() -> set[str]:
    """What tells each record of a problem from all others."""
    texts = set()
    for file in source_files():
        for call in re.findall(r"(?:TRACK_(?:WARN|ERROR|FATAL)|onProblem)\((.*?)\)(?:;|\)|\s*\{)",
                               file.read_text(), re.DOTALL):
            texts |= {max(found, key=len).strip(" '(:") for found in [literals(call)] if found}
    return texts


@needs_no_board
def test_every_record_of_a_problem_is_explained():
    explained = re.sub(r"\*", "", SERVICE_PAGE.read_text() + CONFIGURATION_PAGE.read_text())
    texts = logged_texts()
    assert len(texts) > 45
    assert [text for text in sorted(texts) if text not in explained] == []


@needs_no_board
def test_every_record_that_is_explained_exists():
    all_literals = "\n".join(text for file in source_files() for text in literals(file.read_text()))
    section = SERVICE_PAGE.read_text().split("# DIAGNOSTICS")[1].split("\n# ")[0]
    explained = re.findall(r"^\*(.+)\*(?:\+\+| \[[A-Z, ]+\])$", section, re.MULTILINE)
    errors = CONFIGURATION_PAGE.read_text().split("# ERRORS")[1]
    explained += re.findall(r"^\*([A-Z].*)\*(?:, |$)", errors, re.MULTILINE)
    assert len(explained) > 50
    pieces = [piece.strip(" *'") for record in explained for piece in re.split(r"\.\.\.|\*, \*", record)]
    # What the service puts together itself.
    pieces = [re.sub(r"^(Can't set|Correct) (?=directory)| (1|system bus)$", "", piece) for piece in pieces]
    assert [piece for piece in pieces if len(piece) > 2 and piece not in all_literals] == []
