"""Cards that lose contact or power at the worst moment, with the kernel's own errors."""

import signal

import pytest

from board import MOUNT_POINT, Card, State, Transition
from board.names import E2FSCK, FORMAT_SCRIPT
from steps import MOUNT_SECONDS, eject, expect_mounted, messages, start_with_mounted_card

pytestmark = pytest.mark.emulated  # the other board's power cannot be cut, and its cards cannot be slow

KIB, MIB = 1024, 1024 * 1024


def expect_nothing_stuck(board):
    """Checks that no process waits for a removed card, and that nothing of it is mounted."""
    def waiting():
        states = board.run("ps", "-e", "-o", "stat=,args=", check=True).stdout.splitlines()
        return [line for line in states if line.startswith("D")]
    board.expect("no process in an uninterruptible wait", lambda: waiting() == [])
    assert board.mounts() == []


def after_replay(card):
    """A copy of a card, with its journal replayed."""
    copy = card.copy()
    copy.run_tool("e2fsck", "-p", copy.path + f"?offset={copy.partitions()[0].offset}", check=False)
    return copy


def test_a_card_pulled_while_it_is_written_is_mounted_again_when_the_kernel_sees_it_again(board):
    card = start_with_mounted_card(board)
    board.run("sh", "-c", f"echo kept >{MOUNT_POINT}/export/kept && sync", check=True)
    writer = board.start("dd", "if=/dev/zero", f"of={MOUNT_POINT}/export/data", "bs=64k", "oflag=sync")
    board.expect("it writes", lambda: board.run("test", "-s", f"{MOUNT_POINT}/export/data").returncode == 0)
    board.pull()
    board.expect_state(State.NO_CARD)
    board.expect_transition(Transition.CARD_REMOVED)
    assert writer.wait(60) != 0
    expect_nothing_stuck(board)
    board.insert(card)
    expect_mounted(board)
    assert board.read_file(f"{MOUNT_POINT}/export/kept") == "kept\n"
    eject(board)


def test_a_card_pulled_while_e2fsck_reads_it_is_mounted_at_the_next_start_at_the_latest(board):
    board.replace_tool(E2FSCK)
    card = Card.damaged(32)
    board.insert(card)
    board.slow_card_down(256 * KIB)
    board.start_service()
    # It reads the whole card, which then takes two minutes.
    board.expect("the full check", lambda: len(board.tool_calls("e2fsck")) == 2, within=MOUNT_SECONDS)
    at_start = board.card_counters()
    board.expect("e2fsck reads", lambda: board.card_counters() != at_start)
    board.pull()
    # The mount after the check fails, usually before the hot-plug rule has reported the removal. A card stays corrupted
    # until the service ends.
    board.expect("the service gives up", lambda: board.state in (State.NO_CARD, State.CORRUPTED), MOUNT_SECONDS)
    board.expect("the end of e2fsck", lambda: board.run("pgrep", "-f", "e2fsck -f -y").returncode == 1, within=30)
    assert "I/O error" in board.kernel_messages()
    board.expect_signal("CardRemoved")
    expect_nothing_stuck(board)
    if board.state is State.CORRUPTED:
        assert board.stop_service(signal.SIGKILL) == -signal.SIGKILL
        board.insert(card)
        board.start_service()
    else:
        board.insert(card)
    expect_mounted(board)
    eject(board)


def start_formatting(board):
    """Inserts a card that the service formats, and returns when mke2fs has begun to write."""
    card = Card.as_bought(512)
    board.insert(card)
    # mke2fs writes 7 MB in a quarter of a minute.
    board.slow_card_down(512 * KIB)
    before = card.stored
    board.start_service()
    board.expect("mke2fs writes", lambda: card.stored > before + MIB, within=MOUNT_SECONDS)
    return card


def test_a_card_pulled_while_mke2fs_writes_it_is_formatted_when_it_comes_back(board):
    card = start_formatting(board)
    board.pull()
    board.expect_state(State.NO_CARD, within=MOUNT_SECONDS)
    assert [partition.kind for partition in card.partitions()] != ["83"], "the format was complete already"
    board.expect("the script has ended", lambda: board.run("pgrep", "-f", FORMAT_SCRIPT).returncode == 1)
    board.expect("the reason", lambda: "Input/output error" in "".join(messages(board, "ERROR", "St:Mounting")))
    expect_nothing_stuck(board)
    board.insert(card)
    expect_mounted(board)
    assert [partition.kind for partition in card.partitions()] == ["83"]
    eject(board)


def test_a_card_whose_format_a_power_cut_ended_is_formatted_at_the_next_start(board, make_board, program):
    card = start_formatting(board)
    board.cut_power()
    assert [partition.kind for partition in card.partitions()] != ["83"], "the format was complete already"
    again = make_board(program=program, cold_start=True)
    again.insert(card)
    again.start_service()
    expect_mounted(again, within=60)
    assert [partition.kind for partition in card.partitions()] == ["83"]
    eject(again)


def test_a_power_cut_while_the_layout_is_made_leaves_a_card_that_gets_all_of_it(make_board, program):
    names = [f"d{number}" for number in range(300)]
    layout = "<sdcard>" + "".join(f'<dir size="0">{name}</dir>' for name in names) + "</sdcard>"
    board = make_board(program=program, media_config=layout)
    card = Card.formatted()
    service = board.start_service()
    # The service is stopped, or it would finish before the power cut.
    waiting = board.start("sh", "-c", f"until [ -e {MOUNT_POINT}/{names[0]} ]; do :; done; kill -STOP {service.pid}; "
                                      f"ls {MOUNT_POINT}; echo seen")
    board.insert(card)
    board.expect("the layout is being made", lambda: "seen" in waiting.output)
    board.cut_power()
    assert len(waiting.output.split()) < len(names), "the layout was complete already"
    again = make_board(program=program, media_config=layout, cold_start=True)
    start_with_mounted_card(again, card)
    found = again.run("ls", MOUNT_POINT, check=True).stdout.split()
    assert set(names) <= set(found)
    eject(again)


def test_a_power_cut_while_files_are_removed_leaves_a_card_that_is_brought_within_its_limits(make_board, program,
                                                                                            tmp_path):
    # A fifth of the card is 11 MB: 8000 files of 1 KiB may stay until a file of 9 MB is added.
    layout = '<sdcard><dir size="20" capacitywatch="true">csv</dir></sdcard>'
    csv = f"{MOUNT_POINT}/csv"
    files = 8000
    (tmp_path / "csv").mkdir()
    for number in range(files):
        (tmp_path / "csv" / f"{number:04}").write_bytes(bytes(1024))
    board = make_board(program=program, media_config=layout)
    card = start_with_mounted_card(board, Card.formatted(content=tmp_path))
    assert len(board.run("ls", csv, check=True).stdout.split()) == files
    board.run("sh", "-c", f"echo precious >{csv}/precious && fallocate -l 9000000 {csv}/new && sync", check=True)
    removed = board.start("sh", "-c", f"inodes() {{ stat -f -c %d {MOUNT_POINT}; }}; free=$(inodes); echo watching; "
                                      'until [ "$(inodes)" -gt "$free" ]; do :; done; sync; echo some')
    board.expect("the watch", lambda: "watching" in removed.output)
    board.start("dbus-send", "--system", "--type=method_call", "--dest=tavo.SDCard1", "/tavo/sdcard",
                "tavo.SDCard1.EnsureDirSize", "string:csv")
    board.expect("files are being removed", lambda: "some" in removed.output)
    board.cut_power()
    left = len(after_replay(card).list_files("/csv"))
    # About 6000 of them must be deleted.
    assert files - 5500 < left < files + 2, "no file was removed yet, or all of them were"
    again = make_board(program=program, media_config=layout, cold_start=True)
    start_with_mounted_card(again, card)
    again.bus.call("tavo.SDCard1", "EnsureDirSize", "csv", within=120)
    limit = again.call("tavo.SDCard1", "GetDirSize", "csv")
    used = again.bus.call("tavo.SDCard1", "getDirUsed", "csv", within=120)
    assert limit * 0.9 < used <= limit
    assert again.read_file(f"{csv}/precious") == "precious\n"
    assert again.exists(f"{csv}/new")
    eject(again)


@pytest.mark.lasts(90)
def test_a_board_with_128_mib_brings_100000_files_within_their_limit(make_board, program, tmp_path):
    files = 100_000
    layout = '<sdcard><dir size="20" capacitywatch="true">csv</dir></sdcard>'
    for directory in range(100):
        (tmp_path / "csv" / str(directory)).mkdir(parents=True)
        for number in range(files // 100):
            (tmp_path / "csv" / str(directory) / str(number)).write_bytes(b"x" * 1024)
    card = Card.formatted(500, content=tmp_path)
    board = make_board(program=program, media_config=layout, memory_mib=128)
    start_with_mounted_card(board, card)
    limit = board.call("tavo.SDCard1", "GetDirSize", "csv")
    assert limit < files * 1024
    assert board.start("dbus-send", "--system", "--dest=tavo.SDCard1", "--print-reply", "--reply-timeout=600000",
                       "/tavo/sdcard", "tavo.SDCard1.EnsureDirSize", "string:csv").wait(600) == 0
    used = board.bus.call("tavo.SDCard1", "getDirUsed", "csv", within=120)
    assert limit * 0.9 < used <= limit
    peak_kib = int(board.run("sh", "-c", f"grep VmHWM /proc/{board.service.pid}/status", check=True).stdout.split()[1])
    assert peak_kib < 64 * 1024
    assert "Out of memory" not in board.kernel_messages()
    eject(board)
