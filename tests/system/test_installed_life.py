"""The installed package from its first start to its removal, as seen by the device's user and by init."""

import signal

import pytest

from board import CARD_INTERFACE, MOUNT_POINT, PARTITION_DEVICE, Card
from steps import eject, expect_mounted, take_out

pytestmark = pytest.mark.package
INIT_SCRIPT = "/etc/init.d/sdcardd"
BOOT_SECONDS = 60


def init(board, action):
    return board.run(INIT_SCRIPT, action, within=BOOT_SECONDS)


def start(board):
    result = init(board, "start")
    assert result.returncode == 0, result.stdout + result.stderr
    board.expect("the service", board.bus.has_service)


def kill_service(board):
    board.run("sh", "-c", 'kill -KILL "$(cat /run/sdcardd.pid)"', check=True)
    board.expect("the name is free", lambda: not board.bus.has_service())


def test_the_installed_service_handles_a_whole_card_life(board):
    start(board)
    card = Card.as_bought()
    board.insert(card)
    expect_mounted(board)
    assert [partition.kind for partition in card.partitions()] == ["83"]
    assert f"{PARTITION_DEVICE} {MOUNT_POINT} ext4 rw" in board.mounts()[0]
    assert board.call(CARD_INTERFACE, "GetDirPath", "csv") == f"{MOUNT_POINT}/csv"
    eject(board)
    take_out(board)
    assert init(board, "stop").returncode == 0
    board.expect("the name is free", lambda: not board.bus.has_service())


def test_a_crashed_service_continues_with_the_mounted_card_and_stops_cleanly(board):
    card = Card.formatted()
    board.insert(card)
    start(board)
    expect_mounted(board)
    board.write_file(f"{MOUNT_POINT}/before", "the crash")
    kill_service(board)
    assert board.mounts() != []
    assert init(board, "status").returncode != 0
    start(board)
    expect_mounted(board)
    assert board.read_file(f"{MOUNT_POINT}/before") == "the crash"
    assert init(board, "stop").returncode == 0
    assert board.mounts() == []
    assert card.is_clean(), card.check().stdout


@pytest.mark.lasts(42)
def test_a_shutdown_with_a_file_held_open_ends_with_a_clean_card(board):
    card = Card.formatted()
    board.insert(card)
    start(board)
    expect_mounted(board)
    held = board.hold_file_open(ignore_sigterm=True)
    board.set_runlevel(6)
    result = board.run(INIT_SCRIPT, "stop", within=100)
    assert result.returncode == 0, result.stdout + result.stderr
    assert held.wait() == -signal.SIGKILL
    assert board.mounts() == []
    assert card.is_clean(), card.check().stdout


def test_a_purged_package_leaves_no_file_and_no_service(board):
    start(board)
    board.write_file("/var/log/tavo-sdcard.log", "old\n")
    files = board.run("dpkg", "--listfiles", "sdcardd", check=True).stdout.split()
    files += ["/var/log/tavo-sdcard.log", "/run/sdcardd.pid", "/run/sdcardd.messages"]
    board.write_file("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 0\n", 0o755)
    board.run("dpkg", "--purge", "sdcardd", check=True)
    board.expect("the name is free", lambda: not board.bus.has_service())
    look = 'for path; do [ ! -f "$path" ] || echo "$path"; done; ls /etc/rc?.d | grep sdcardd'
    assert board.run("sh", "-c", look, "sh", *files).stdout == ""


@pytest.mark.emulated  # the other board has no udev
def test_the_installed_rule_announces_the_card_and_formats_a_blank_one(make_board):
    board = make_board(format_blank_cards=True)
    start(board)
    card = Card.blank()
    board.insert(card, announce=None)
    expect_mounted(board)
    # Once or more, because udev reads the new table too.
    announced = {signal.name for signal in board.signals} & {"CardInserted", "CardRemoved"}
    assert announced == {"CardInserted"}
    eject(board)
    take_out(board)
    assert init(board, "stop").returncode == 0
