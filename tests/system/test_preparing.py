"""The preparation of a mounted card: the logger's data, misplaced CSV files, scripts of other packages."""

import pytest

from board import MOUNT_POINT, Card, LedPattern, State
from contents import Contents
from steps import HELD_PROGRAM, HOLD, eject, expect_mounted, go_on, messages, start_with_mounted_card, take_out

pytestmark = pytest.mark.installed

JOBS = "/opt/tavo/share/tavo-sdcard/preparing"
CALLS = "/run/board/calls"
DOUBLED = f"csv{MOUNT_POINT}/csv"
CONFIGURATION = """
<sdcard>
  <dir size="40">logger<dir size="25">archive</dir></dir>
  <dir size="30">csv</dir>
  <symlink target="logger">last</symlink>
</sdcard>
"""


@pytest.fixture
def board(make_board, program):
    """A board with a directory for the logger's data and one for CSV files."""
    return make_board(program=program, media_config=CONFIGURATION)


def write(directory, files):
    """Files by name and text, with their directories."""
    for name, text in files.items():
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)


def texts(board, *names):
    """The texts of files on the card; None for one that is missing."""
    return Contents(board).texts(*names)


def preparation_records(board):
    return [(record.level, record.message) for record in board.records if record.channel == "St:Preparing"]


def script(board, name, body, mode=0o755):
    board.write_file(f"{JOBS}/{name}", f"#!/bin/sh\n{body}\n", mode)


def calls(board):
    """The lines that the scripts have written, one per call."""
    return board.read_file(CALLS).splitlines() if board.exists(CALLS) else []


def test_the_loggers_data_moves_from_the_cards_root_into_its_directory(board, tmp_path):
    write(tmp_path, {"PindleLogger.db": "database", "PindleLogger.db-journal": "journal", "LoggerFiles/a": "1",
                     "LoggerFiles/b/c": "2"})
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert texts(board, "logger/PindleLogger.db", "logger/PindleLogger.db-journal", "logger/LoggerFiles/a",
                 "logger/LoggerFiles/b/c") == ["database", "journal", "1", "2"]
    assert not {"PindleLogger.db", "PindleLogger.db-journal", "LoggerFiles"} & set(Contents(board).names())
    assert preparation_records(board) == [
        ("INFO", f"Logger directory is '{MOUNT_POINT}/logger'"),
        ("INFO", "Succesffully moved logger database into new location"),
        ("INFO", "Succesffully moved logger database journal into new location"),
        ("INFO", "Succesffully moved logger files folder into new location")]
    board.expect_record("INFO", "St:Preparing", "Succesffully moved logger database into new location",
                        source="StatePreparing", function="ThreadPreparing::prepareJobRelocateDatabase")


def test_data_in_both_places_stays_in_both(board, tmp_path):
    write(tmp_path, {"PindleLogger.db": "old", "logger/PindleLogger.db": "new", "PindleLogger.db-journal": "journal",
                     "LoggerFiles/a": "old", "logger/LoggerFiles/b": "new"})
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert texts(board, "PindleLogger.db", "logger/PindleLogger.db", "LoggerFiles/a", "logger/LoggerFiles/b",
                 "logger/LoggerFiles/a", "PindleLogger.db-journal", "logger/PindleLogger.db-journal") == [
        "old", "new", "old", "new", None, None, "journal"]
    assert [message for _, message in preparation_records(board)] == [
        f"Logger directory is '{MOUNT_POINT}/logger'",
        "Succesffully moved logger database journal into new location"]


def test_data_that_cannot_be_moved_is_reported_and_the_next_item_tried(board, tmp_path):
    write(tmp_path, {"PindleLogger.db": "database", "PindleLogger.db-journal": "journal", "LoggerFiles/a": "1"})
    board.replace_tool("/usr/bin/mv", '[ "${1##*/}" = LoggerFiles ] || exit 3\nexec "$ORIGINAL" "$@"')
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert preparation_records(board)[1:] == [
        ("ERROR", "Failed to moved logger database into new location"),
        ("ERROR", "Failed to moved logger database journal into new location"),
        ("INFO", "Succesffully moved logger files folder into new location")]
    assert board.tool_calls("mv") == [[f"{MOUNT_POINT}/{item}", f"{MOUNT_POINT}/logger/{item}"]
                                      for item in ("PindleLogger.db", "PindleLogger.db-journal", "LoggerFiles")]
    assert texts(board, "PindleLogger.db", "logger/LoggerFiles/a") == ["database", "1"]


def test_without_a_directory_for_the_logger_its_data_stays(make_board, program, tmp_path):
    board = make_board(program=program, media_config='<sdcard><dir size="5">csv</dir></sdcard>')
    write(tmp_path, {"PindleLogger.db": "database"})
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert texts(board, "PindleLogger.db") == ["database"]
    assert preparation_records(board) == []


def test_csv_files_below_a_doubled_path_move_to_their_directory(board, tmp_path):
    write(tmp_path, {f"{DOUBLED}/2023/a.csv": "old", f"{DOUBLED}/2024/b.csv": "b", f"{DOUBLED}/2024/deep/c.csv": "c",
                     "csv/a.csv": "new", "csv/kept.csv": "kept",
                     # The move leaves these; they are removed with the doubled path.
                     f"{DOUBLED}/2024/.d.csv": "d", f"{DOUBLED}/e.csv": "e"})
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert Contents(board).names("csv") == ["a.csv", "b.csv", "deep", "kept.csv"]
    assert texts(board, "csv/a.csv", "csv/b.csv", "csv/deep/c.csv", "csv/kept.csv") == ["old", "b", "c", "kept"]
    old, new = f"{MOUNT_POINT}/{DOUBLED}", f"{MOUNT_POINT}/csv"
    assert preparation_records(board)[1:] == [
        ("INFO", f"move File From {old} to {new}"), ("INFO", "Succesffully moved csv files into new location"),
        ("INFO", f"Delete old Folder: {new}/media"), ("INFO", "Succesffully removed old csv directory")]


def test_without_a_doubled_path_csv_files_stay_without_a_record(board, tmp_path):
    write(tmp_path, {"csv/2024/a.csv": "a", "csv/media/b.csv": "b"})
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert texts(board, "csv/2024/a.csv", "csv/media/b.csv") == ["a", "b"]
    assert len(preparation_records(board)) == 1


def test_csv_files_that_cannot_be_moved_stay(board, tmp_path):
    write(tmp_path, {f"{DOUBLED}/2024/a.csv": "old", "csv/a.csv/in-its-place": "new"})
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert texts(board, f"{DOUBLED}/2024/a.csv", "csv/a.csv/in-its-place") == ["old", "new"]
    assert preparation_records(board)[1:] == [
        ("INFO", f"move File From {MOUNT_POINT}/{DOUBLED} to {MOUNT_POINT}/csv"),
        ("ERROR", "Failed moveing csv files into new location")]


def test_a_doubled_path_that_still_contains_files_is_not_removed(board, tmp_path):
    write(tmp_path, {f"{DOUBLED}/2023/a.csv": "a", f"{DOUBLED}/2024/b.csv": "b"})
    board.replace_tool("/usr/bin/mv", "exit 0")
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert preparation_records(board)[2:] == [
        ("INFO", "Succesffully moved csv files into new location"), *[("ERROR", "old Dirs are not emtpy")] * 2]
    assert texts(board, f"{DOUBLED}/2023/a.csv", f"{DOUBLED}/2024/b.csv") == ["a", "b"]


def test_a_doubled_path_that_cannot_be_removed_is_reported(board, tmp_path):
    write(tmp_path, {f"{DOUBLED}/2024/a.csv": "a"})
    board.write_file("/run/rm", f'#!/bin/sh\necho "$*" >>{CALLS}\nexit 1\n', 0o755)
    board.run("mount", "--bind", "/run/rm", "/usr/bin/rm", check=True)
    start_with_mounted_card(board, Card.formatted(content=tmp_path))
    board.run("umount", "/usr/bin/rm", check=True)
    assert calls(board) == [f"-r {MOUNT_POINT}/csv/media"]
    assert preparation_records(board)[-1] == ("ERROR", "Failed removeing old csv directory")
    assert texts(board, "csv/a.csv") == ["a"]


def test_scripts_run_in_the_order_of_their_names_with_every_configured_directory(board):
    for name in ("20-second", "10-first", "A", "a"):
        script(board, name, f'echo "$0 $*" >>{CALLS}')
    start_with_mounted_card(board)
    arguments = "logger=/logger archive=/logger/archive csv=/csv"
    names = [line.split()[0] for line in calls(board)]
    assert names[:2] == [f"{JOBS}/10-first", f"{JOBS}/20-second"]
    assert sorted(names[2:]) == [f"{JOBS}/A", f"{JOBS}/a"]
    assert {line.split(" ", 1)[1] for line in calls(board)} == {arguments}
    assert [message for _, message in preparation_records(board)[1:]] == [
        f"Executing '{name} {arguments}'..." for name in names]


def test_each_directory_is_one_argument_whatever_its_name(make_board, program):
    board = make_board(program=program, media_config='<sdcard><dir size="5">two words</dir>'
                                                     "<dir size='5'>$HOME;'\"</dir></sdcard>")
    script(board, "show", f'for argument; do echo "$argument"; done >>{CALLS}')
    start_with_mounted_card(board)
    assert calls(board) == ["two words=/two words", "$HOME;'\"=/$HOME;'\""]


def test_only_executable_files_of_the_directory_itself_run(board):
    note = f'echo "${{0##*/}}" >>{CALLS}'
    script(board, "run", note)
    script(board, "not-executable", note, 0o644)
    script(board, ".hidden", note)
    script(board, "directory/inner", note)
    board.run("ln", "-s", f"{JOBS}/run", f"{JOBS}/link", check=True)
    board.run("ln", "-s", "/nowhere", f"{JOBS}/dangling", check=True)
    start_with_mounted_card(board)
    assert calls(board) == ["run"]


def test_a_script_that_fails_crashes_or_cannot_be_started_does_not_stop_the_others(board):
    note = f'echo "${{0##*/}}" >>{CALLS}'
    script(board, "1-fails", f"{note}; exit 1")
    script(board, "2-crashes", f"{note}; kill -SEGV $$")
    board.write_file(f"{JOBS}/3-no-program", "#!/nowhere/interpreter\n", 0o755)
    script(board, "4-last", note)
    start_with_mounted_card(board)
    assert calls(board) == ["1-fails", "2-crashes", "4-last"]
    failures = [message for level, message in preparation_records(board) if level == "ERROR"]
    assert failures[0].startswith("QProcess::CrashExit: ")
    assert failures[1:] == ["Starting command failed (exitstatus:0)"]


def test_the_output_of_a_script_is_logged_line_by_line(board):
    script(board, "talks", "echo one; echo 'two three'; echo; printf last; echo trouble >&2")
    start_with_mounted_card(board)
    assert preparation_records(board)[2:] == [("INFO", "one"), ("INFO", "two three"), ("INFO", ""), ("INFO", "last"),
                                              ("ERROR", "trouble")]


def test_the_card_is_shown_as_busy_until_it_is_prepared(board):
    script(board, "slow", f": >{CALLS}; {HOLD}")
    board.insert(Card.formatted())
    board.start_service()
    board.expect("the script runs", lambda: board.exists(CALLS))
    assert board.state is State.MOUNTING
    assert board.property("IsMounted") is False
    assert board.exists(f"{MOUNT_POINT}/logger")
    board.expect_leds(LedPattern.BUSY)
    board.expect_no_signal("CardMounted")
    go_on(board)
    expect_mounted(board)


def test_scripts_run_at_every_mount_after_the_layout_and_the_moves(board, tmp_path):
    write(tmp_path, {"PindleLogger.db": "database"})
    script(board, "look", f"cat {MOUNT_POINT}/logger/PindleLogger.db >>{CALLS}; echo >>{CALLS}")
    card = Card.formatted(content=tmp_path)
    start_with_mounted_card(board, card)
    eject(board)
    take_out(board)
    board.insert(card)
    expect_mounted(board)
    assert calls(board) == ["database", "database"]
    assert messages(board).count("Succesffully moved logger database into new location") == 1


def test_a_process_that_a_script_leaves_running_does_not_block_the_service(board):
    script(board, "daemon", "sleep 1000 >/dev/null 2>&1 &")
    start_with_mounted_card(board)
    eject(board)
    board.run("pkill", "-x", "sleep", check=True)


def test_a_blocked_move_keeps_the_card_busy_until_it_ends(board, tmp_path):
    write(tmp_path, {"PindleLogger.db": "database"})
    board.replace_tool("/usr/bin/mv", HELD_PROGRAM)
    board.insert(Card.formatted(content=tmp_path))
    board.start_service()
    board.expect("mv runs", lambda: board.tool_calls("mv") != [])
    board.expect_state_for(State.MOUNTING, 1)
    assert board.property("IsMounted") is False
    go_on(board)
    expect_mounted(board)
    assert texts(board, "logger/PindleLogger.db") == ["database"]


def test_a_signal_while_the_script_of_a_pulled_card_runs_ends_the_service(board):
    script(board, "slow", f"echo $$ >{CALLS}; exec sleep 1000")
    script(board, "then-next", f"echo next >>{CALLS}")
    board.insert(Card.formatted())
    board.start_service()
    board.expect("the script runs", lambda: calls(board) != [])
    [process] = calls(board)
    board.pull()
    board.expect_state(State.NO_CARD)
    assert board.exists(f"/proc/{process}")
    assert board.stop_service(within=10) == 0
    board.expect("the script has ended", lambda: not board.exists(f"/proc/{process}"), within=10)
    assert calls(board) == [process]
    assert messages(board)[-1] == "Terminating sdcardd with exit code 0"
