"""The installed Debian package: its files, its init script, its removal."""

import re
import time
import xml.etree.ElementTree as ElementTree

import pytest

from board import CARD_INTERFACE, CONTROLLER_INTERFACE, MOUNT_POINT, PARTITION_DEVICE, Card, State
from board.names import E2FSCK, MEDIA_CONFIGURATION, SERVICE_PROGRAM
from steps import HOLD, go_on, use_shipped_files

pytestmark = [pytest.mark.package, pytest.mark.virtual]  # slow on the other, see test_installed_life
INIT_SCRIPT = "/etc/init.d/sdcardd"
LOG = "/var/log/tavo-sdcard.log"
RUNNING, NOT_RUNNING = 0, 3


def init(board, action, within=60):
    return board.run(INIT_SCRIPT, action, within=within)


def start(board):
    result = init(board, "start")
    assert result.returncode == 0, result.stdout + result.stderr


def service_pid(board):
    return board.run("pidof", "sdcardd").stdout.strip()


def is_mounted(board):
    return board.mounts() != []


def installed_files(board):
    """The package's files, without directories."""
    listing = board.run("dpkg", "--listfiles", "sdcardd", check=True).stdout.split()
    return [path for path in listing if board.run("test", "-d", path).returncode != 0]


# Installing and removing

def test_an_installed_service_runs_at_once(make_board, package):
    board = make_board(package=None)
    board.run("rm", "/usr/share/dbus-1/system.d/tavo.SDCard1.conf", SERVICE_PROGRAM)
    board.install_package(package, start=True)
    assert board.bus.has_service()
    assert init(board, "status").returncode == RUNNING
    assert init(board, "stop").returncode == 0


def test_the_service_starts_and_stops_with_the_system(board):
    links = board.run("sh", "-c", "ls /etc/rc?.d | grep sdcardd").stdout.split()
    assert sorted(link[0] for link in links) == list("KKKSSSS"), links


def test_an_update_starts_the_new_service(board, package):
    start(board)
    before = service_pid(board)
    board.install_package(package, start=True)
    assert service_pid(board) not in ("", before)
    assert init(board, "stop").returncode == 0


def test_an_update_keeps_the_administrators_configuration(board, package):
    listed = board.run("dpkg-query", "--show", "--showformat=${Conffiles}", "sdcardd", check=True).stdout
    configuration = [path for path in installed_files(board) if path.startswith("/etc/")]
    assert [path for path in configuration if f" {path} " not in listed] == []
    assert MEDIA_CONFIGURATION in configuration
    board.write_file(MEDIA_CONFIGURATION, '<sdcard devicepath="/dev/mmcblk7p1"/>')
    board.install_package(package)
    assert "mmcblk7p1" in board.read_file(MEDIA_CONFIGURATION)


def test_a_removed_package_leaves_no_service_name_or_rule(board):
    start(board)
    files = installed_files(board)
    board.write_file("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 0\n", 0o755)
    board.run("dpkg", "--remove", "sdcardd", check=True)
    assert service_pid(board) == ""
    board.expect("the name is free", lambda: not board.bus.has_service())
    left = [path for path in files if board.exists(path)]
    assert left and all(path.startswith("/etc/") for path in left), left
    # The remaining files belong to the administrator and have no effect.
    assert board.run("sh", INIT_SCRIPT, "start").returncode == 0
    assert service_pid(board) == ""


# Installed files

def test_the_interface_files_describe_what_the_service_offers(board):
    start(board)
    # The object appears a moment after the name.
    board.expect_state(State.NO_CARD)

    def members(root, interface):
        found = next(node for node in root.iter("interface") if node.get("name") == interface)
        return [(node.tag, node.get("name"), node.get("type"), node.get("access"),
                 [(argument.get("name"), argument.get("type")) for argument in node.iter("arg")]) for node in found]
    live = ElementTree.fromstring(board.introspect())
    for interface in (CARD_INTERFACE, CONTROLLER_INTERFACE):
        installed = ElementTree.fromstring(board.read_file(f"/usr/share/dbus-1/interfaces/{interface}.xml"))
        assert members(installed, interface) == members(live, interface) != []
    assert init(board, "stop").returncode == 0


@pytest.mark.parametrize("page", ["sdcardctl.1", "sdcardd.8", "tavo-sdcard.config.xml.5"])
def test_there_is_a_manual_page(board, page):
    result = board.run("man", "--local-file", "--warnings", f"/usr/share/man/man{page[-1]}/{page}.gz", check=True)
    assert "SYNOPSIS" in result.stdout
    assert result.stderr == ""


def test_the_shipped_configurations_work_together(board):
    use_shipped_files(board)
    board.insert(Card.formatted())
    start(board)
    board.expect_state(State.MOUNTED, within=20)
    names = board.run("ls", MOUNT_POINT, check=True).stdout.split()
    assert {"archive", "csv", "export", "logger"} <= set(names), names
    assert "SD Card is successfully mounted" in board.read_file(LOG)
    assert init(board, "stop").returncode == 0


def test_a_rotated_log_continues(board):
    use_shipped_files(board)
    start(board)
    board.run("logrotate", "--force", "/etc/logrotate.d/sdcardd", check=True)
    assert "Configuration successfully parsed" in board.read_file(LOG + ".1")
    assert board.read_file(LOG) == ""
    assert board.bus.has_service()
    assert init(board, "stop").returncode == 0
    after = board.read_file(LOG)
    assert "Terminating sdcardd" in after and "\0" not in after


# The init script

def test_the_init_script_starts_stops_and_reports_the_status(board):
    assert init(board, "status").returncode == NOT_RUNNING
    start(board)
    assert board.bus.has_service()
    first = service_pid(board)
    assert init(board, "status").returncode == RUNNING
    start(board)
    assert service_pid(board) == first
    assert init(board, "restart").returncode == 0
    assert service_pid(board) not in ("", first)
    assert init(board, "stop").returncode == 0
    assert init(board, "stop").returncode == 0
    assert init(board, "status").returncode == NOT_RUNNING
    assert init(board, "sing").returncode == 2
    assert board.leftovers() == []


def test_a_start_with_the_administrators_options_that_fails_shows_the_reason(board):
    board.write_file("/etc/default/tavo-sdcard", "SDCARDD_OPTIONS='--config /etc/elsewhere.xml'\n")
    result = init(board, "start")
    assert result.returncode != 0
    assert "'/etc/elsewhere.xml' not found" in result.stderr
    assert init(board, "status").returncode == NOT_RUNNING


def test_a_process_that_appears_late_is_no_failed_start(board):
    # start-stop-daemon sees the process at its second check after the start.
    board.replace_tool("/usr/sbin/start-stop-daemon", """
        case $1 in
            --status)
                echo look >>/run/board/looks
                [ "$(wc -l </run/board/looks)" -gt 2 ] || exit 3
                ;;
        esac
        exec "$ORIGINAL" "$@" """)
    # The name is also missing on the bus until then.
    board.replace_tool("/usr/bin/dbus-send", '[ "$(wc -l </run/board/looks)" -gt 2 ] || exit 1; exec "$ORIGINAL" "$@"')
    start(board)
    looks = [call[0] for call in board.tool_calls("start-stop-daemon")]
    assert looks[:4] == ["--status", "--start", "--status", "--status"]
    assert board.bus.has_service()
    assert init(board, "status").returncode == RUNNING
    assert init(board, "stop").returncode == 0


def test_a_removed_corrupted_card_restarts_the_service(board):
    board.insert(Card.unmountable())
    start(board)
    board.expect_state(State.CORRUPTED, within=20)
    first = service_pid(board)
    board.pull(announce=False)
    board.run("env", "ACTION=remove", f"DEVNAME={PARTITION_DEVICE}", "/usr/lib/udev/tavo-sdcard-hotplug", check=True)
    board.expect("another service", lambda: service_pid(board) not in ("", first))
    board.expect_state(State.NO_CARD)
    board.insert(Card.formatted())
    board.expect_state(State.MOUNTED, within=20)
    assert init(board, "status").returncode == RUNNING
    assert init(board, "stop").returncode == 0


# Opens the card's device like the real one, and does not end with the service.
ORPHAN = """
(
    command exec 9<{device}
    touch /run/board/orphan
    {wait}
    date +%s.%N >/run/board/end-of-orphan
) &
wait """


def start_beside_an_orphan(board, wait, restart):
    """Kills a service during its card check, and starts another one."""
    board.replace_tool(E2FSCK, ORPHAN.format(device=PARTITION_DEVICE, wait=wait))
    board.insert(Card.formatted())
    start(board)
    board.expect("the check runs", lambda: board.exists("/run/board/orphan"))
    board.run("kill", "-KILL", service_pid(board), check=True)
    board.replace_tool(E2FSCK, 'date +%s.%N >/run/board/second-check; exec "$ORIGINAL" "$@"')
    return board.start("sh", "-c", restart)


@pytest.mark.parametrize("restart", [
    f"{INIT_SCRIPT} start", f"{INIT_SCRIPT} restart", f"{INIT_SCRIPT} stop; {INIT_SCRIPT} start"])
def test_a_start_waits_for_a_check_that_a_killed_service_has_left(board, restart):
    starting = start_beside_an_orphan(board, HOLD, restart)
    time.sleep(2)
    assert starting.running and service_pid(board) == ""
    go_on(board)
    assert starting.wait(within=60) == 0
    board.expect_state(State.MOUNTED, within=20)
    ends = [float(board.read_file(f"/run/board/{name}")) for name in ("end-of-orphan", "second-check")]
    assert ends == sorted(ends)
    assert init(board, "stop").returncode == 0


def test_a_check_that_does_not_end_is_killed_before_the_next_start(board):
    board.write_file("/etc/default/tavo-sdcard", "LEFT_TRIES=20\n")
    starting = start_beside_an_orphan(board, "sleep 1000", f"{INIT_SCRIPT} start")
    assert starting.wait(within=60) == 0
    board.expect_state(State.MOUNTED, within=20)
    assert board.run("pgrep", "-f", "sleep 1000").returncode == 1
    assert init(board, "stop").returncode == 0


def test_a_process_of_another_service_is_not_waited_for(board):
    other = board.start("sh", "-c", "sleep 1000")
    board.write_file("/run/sdcardd.session", f"{other.pid}\n")
    began = time.monotonic()
    start(board)
    assert time.monotonic() - began < 15
    assert other.running
    assert init(board, "stop").returncode == 0


def test_a_reset_does_not_start_a_service_that_was_stopped(board):
    assert init(board, "reset").returncode == 0
    assert init(board, "status").returncode == NOT_RUNNING


def test_a_stop_that_leaves_the_card_mounted_reports_it(board):
    board.insert(Card.formatted())
    start(board)
    board.expect_state(State.MOUNTED, within=20)
    held = board.hold_file_open()
    board.run("kill", "-KILL", service_pid(board), check=True)
    result = init(board, "stop")
    assert result.returncode == 1
    assert "The card is still mounted" in result.stdout + result.stderr
    held.stop()
    assert init(board, "stop").returncode == 0
    assert not is_mounted(board) and not board.exists(MOUNT_POINT)


def test_a_stop_unmounts_the_card_and_nothing_else(board):
    start(board)
    for device, directory in (("/dev/mmcblk0p1", "/mnt/own card"), ("/dev/mmcblk00", "/mnt/other"),
                              ("/dev/mmcblk0boot0", "/mnt/boot")):
        board.run("mkdir", "-p", directory, check=True)
        board.run("mount", "-t", "tmpfs", device, directory, check=True)
    assert init(board, "stop").returncode == 0
    assert [board.run("mountpoint", "-q", directory).returncode == 0
            for directory in ("/mnt/own card", "/mnt/other", "/mnt/boot")] == [False, True, True]
    board.run("umount", "/mnt/other", "/mnt/boot", check=True)


def test_only_root_can_change_what_is_installed(board):
    use_shipped_files(board)
    start(board)
    listing = board.run("dpkg", "--listfiles", "sdcardd", check=True).stdout.split()
    paths = [*listing[1:], LOG, "/run/sdcardd.pid", "/run/sdcardd.messages"]
    owners_and_modes = board.run("stat", "-c", "%U:%G %a %n", *paths, check=True).stdout.splitlines()
    links = [path for path in paths if board.run("test", "-L", path).returncode == 0]
    others = [line for line in owners_and_modes
              if not re.fullmatch(r"root:root [0-7]?[0-7][0145][0145] .*", line) and line.split()[2] not in links]
    assert others == []
    assert board.run("find", *[path for path in installed_files(board)], "-perm", "/6000").stdout == ""
    assert init(board, "stop").returncode == 0
