"""The installed package under systemd, with the hardening of its unit."""

import re
import time

import pytest

from board import CARD_DEVICE, MOUNT_POINT, PARTITION_DEVICE, Card, State
from board.names import E2FSCK, MEDIA_CONFIGURATION
from steps import messages, use_shipped_files
from systemd_system import SystemdSystem

pytestmark = [pytest.mark.package, pytest.mark.virtual]  # the other board has no systemd
UNIT = "sdcardd.service"
# The board's cards are loop devices, which the unit does not allow the service to open.
DEVICES = "[Service]\nDeviceAllow=block-loop rw\nDeviceAllow=block-blkext rw\n"
HOLD_FILE = ("import signal, sys, time\n"
             "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
             "held = open(sys.argv[1], 'a')\n"
             "time.sleep(100000)\n")
EXPOSURE_LIMIT = 5.0
# Directives for running the service; all others take rights away.
RUNNING = {"Type", "Environment", "EnvironmentFile", "ExecStart", "Restart", "RestartPreventExitStatus",
           "RestartSec", "TimeoutStopSec", "KillMode"}
HARDENING = {
    "CapabilityBoundingSet": "CAP_SYS_ADMIN CAP_CHOWN CAP_FOWNER CAP_FSETID CAP_DAC_OVERRIDE CAP_DAC_READ_SEARCH "
                             "CAP_SYS_PTRACE CAP_KILL CAP_SETUID CAP_SETGID",
    "DeviceAllow": "block-mmc rw",
    "DevicePolicy": "closed",
    "IPAddressDeny": "any",
    "KeyringMode": "private",
    "LockPersonality": "yes",
    "MemoryDenyWriteExecute": "yes",
    "NoNewPrivileges": "yes",
    "ProtectClock": "yes",
    "ProtectHostname": "yes",
    "RestrictAddressFamilies": "AF_UNIX AF_NETLINK",
    "RestrictNamespaces": "yes",
    "RestrictRealtime": "yes",
    "SystemCallArchitectures": "native",
    "SystemCallErrorNumber": "EPERM",
    "SystemCallFilter": "@system-service @mount",
    "UMask": "0022",
}


@pytest.fixture
def systemd_board(board):
    """A board with a unit that allows the board's kind of card."""
    board.write_file(f"/etc/systemd/system/{UNIT}.d/board.conf", DEVICES)
    return board


def is_mounted(system):
    return f" {MOUNT_POINT} " in system.run("cat", "/proc/mounts").stdout


def hold_file_open(system, *properties):
    """Another service, which ignores SIGTERM and has a file on the card open."""
    system.run("systemd-run", "--quiet", "--unit=holder", *(f"--property={text}" for text in properties),
               "/usr/bin/python3", "-I", "-c", HOLD_FILE, f"{MOUNT_POINT}/held")
    system.wait_for(lambda: system.run("test", "-e", f"{MOUNT_POINT}/held", check=False).returncode == 0)


def test_the_service_starts_with_the_system_and_mounts_for_everyone(systemd_board):
    card = Card.formatted()
    systemd_board.insert(card)
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        assert system.show(UNIT, "ActiveState") == "active"
        pid = system.show(UNIT, "MainPID")
        assert system.run("readlink", f"/proc/{pid}/ns/mnt").stdout == system.run("readlink", "/proc/1/ns/mnt").stdout
        assert {"NoNewPrivs:\t1", "Seccomp:\t2"} <= set(system.run("cat", f"/proc/{pid}/status").stdout.splitlines())
        assert f"{PARTITION_DEVICE} {MOUNT_POINT} ext4 rw" in system.run(
            "systemd-run", "--quiet", "--wait", "--pipe", "cat", "/proc/mounts").stdout
        system.run("systemctl", "stop", UNIT)
        assert not is_mounted(system)
    assert card.is_clean()


def test_the_mount_is_restricted_within_the_hardening(systemd_board):
    use_shipped_files(systemd_board)
    systemd_board.insert(Card.formatted())
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        options = system.run("findmnt", "-no", "OPTIONS", MOUNT_POINT).stdout.strip()
        assert {"nosuid", "nodev"} <= set(options.split(","))
        system.run("systemctl", "stop", UNIT)


def test_a_new_card_is_formatted_within_the_hardening(systemd_board):
    card = Card.as_bought()
    systemd_board.insert(card)
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=30)
        system.run("systemctl", "stop", UNIT)
    assert [partition.kind for partition in card.partitions()] == ["83"]


def test_other_devices_are_closed_to_the_service(board):
    board.insert(Card.formatted())
    with SystemdSystem(board) as system:
        board.expect_state(State.NO_CARD)
        board.expect_record("ERROR", "sdcard", f"FDisk: Unable to open '{CARD_DEVICE}'")
        system.run("systemctl", "stop", UNIT)


def test_a_crashed_service_is_restarted_and_continues_with_the_mounted_card(systemd_board):
    systemd_board.insert(Card.formatted())
    systemd_board.replace_tool(E2FSCK)
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        checks = len(systemd_board.tool_calls("e2fsck"))
        assert checks == 1
        records = len(systemd_board.records)
        system.run("systemctl", "kill", "--signal=SIGKILL", UNIT)
        system.wait_for(lambda: system.show(UNIT, "NRestarts") == "1")
        assert is_mounted(system)
        systemd_board.expect_record("INFO", "sdcard", "SD Card is successfully mounted", after=records)
        systemd_board.expect_state(State.MOUNTED)
        assert system.show(UNIT, "NRestarts") == "1"
        assert len(systemd_board.tool_calls("e2fsck")) == checks
        system.run("systemctl", "stop", UNIT)
        assert not is_mounted(system)


def kill_bus(system):
    system.run("systemctl", "kill", "--signal=SIGKILL", "dbus.service")
    # The next program that uses the bus activates it.
    system.run("dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
               "org.freedesktop.DBus.ListNames")


def restart_bus(system):
    system.run("systemctl", "restart", "dbus.service")


@pytest.mark.parametrize("interrupt", [kill_bus, restart_bus])
def test_the_service_stays_and_returns_to_a_bus_that_was_restarted(systemd_board, interrupt):
    systemd_board.insert(Card.formatted())
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        systemd_board.bus.close()
        interrupt(system)
        system.connect_to_bus()
        systemd_board.expect("the service is on the bus", systemd_board.bus.has_service)
        systemd_board.expect_state(State.MOUNTED)
        assert system.show(UNIT, "NRestarts") == "0"
        assert "SD Card is successfully unmounted" not in messages(systemd_board)
        system.run("systemctl", "stop", UNIT)
        assert system.show(UNIT, "ActiveState") == "inactive"
        assert not is_mounted(system)


def test_a_refused_configuration_stops_the_restarts_at_once_and_shows_its_reason(systemd_board):
    systemd_board.write_file(MEDIA_CONFIGURATION, '<sdcard>\n <dir size="10">a</dir>\n <dir size="x">b</dir>\n</sdcard>\n')
    with SystemdSystem(systemd_board) as system:
        system.wait_for(lambda: system.show(UNIT, "ActiveState") == "failed")
        assert (system.show(UNIT, "NRestarts"), system.show(UNIT, "ExecMainStatus")) == ("0", "78")

        def status():
            return system.run("systemctl", "status", "--full", UNIT, check=False).stdout
        system.wait_for(lambda: f"{MEDIA_CONFIGURATION}:3:" in status())


def test_the_options_of_the_administrator_choose_the_configuration_that_is_checked(systemd_board):
    systemd_board.write_file(MEDIA_CONFIGURATION, "<sdcard>")
    systemd_board.write_file("/etc/tavo/other.xml", '<sdcard><dir size="10">other</dir></sdcard>')
    systemd_board.write_file("/etc/default/tavo-sdcard", 'SDCARDD_OPTIONS="--config /etc/tavo/other.xml"\n')
    systemd_board.insert(Card.formatted())
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        assert system.run("test", "-d", f"{MOUNT_POINT}/other").returncode == 0
        system.run("systemctl", "stop", UNIT)


def test_errors_reach_the_journal_with_their_level(systemd_board):
    use_shipped_files(systemd_board)
    systemd_board.insert(Card.unmountable())
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.CORRUPTED, within=20)

        def journal(*levels):
            return system.run("journalctl", "--quiet", "--output=cat", f"--unit={UNIT}",
                              f"--priority={'..'.join(levels)}").stdout
        assert "Sdcard::corrupted: Corrupted SD Card detected\n" in journal("err", "err")
        assert "SD Card is already present" not in journal("debug")
        system.run("systemctl", "kill", "--signal=SIGKILL", UNIT)


def report_removal(system):
    """Runs the program of the udev rule after the removal of the card's partition."""
    system.run("env", "ACTION=remove", f"DEVNAME={PARTITION_DEVICE}", "DEVTYPE=partition",
               "/usr/lib/udev/tavo-sdcard-hotplug")


def test_a_removed_corrupted_card_restarts_the_service(systemd_board):
    systemd_board.insert(Card.unmountable())
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.CORRUPTED, within=20)
        systemd_board.pull(announce=False)
        report_removal(system)
        system.wait_for(lambda: system.show(UNIT, "NRestarts") == "1")
        systemd_board.expect_state(State.NO_CARD)
        systemd_board.insert(Card.formatted())
        systemd_board.expect_state(State.MOUNTED, within=20)
        system.run("systemctl", "stop", UNIT)


def test_a_card_that_was_pulled_while_in_use_is_detached_before_the_next_is_announced(systemd_board):
    systemd_board.insert(Card.formatted())
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        hold_file_open(system)
        systemd_board.pull()
        systemd_board.expect_state(State.NO_CARD)
        assert is_mounted(system)
        card = Card.formatted()
        systemd_board.insert(card, announce=False)
        # udev's programs have their own mount namespace and must not unmount.
        system.run("systemd-run", "--quiet", "--wait", "--property=PrivateMounts=yes",
                   "--property=SystemCallFilter=@system-service @module @raw-io bpf",
                   "env", "ACTION=add", f"DEVNAME={PARTITION_DEVICE}", "/usr/lib/udev/tavo-sdcard-hotplug")
        systemd_board.expect_state(State.MOUNTED, within=20)
        system.run("sh", "-c", f"echo new >{MOUNT_POINT}/new")
        system.run("systemctl", "stop", UNIT)
    assert "new" in card.list_files()


@pytest.mark.lasts(46)
def test_the_time_to_stop_covers_all_waits(systemd_board):
    card = Card.formatted()
    systemd_board.insert(card)
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        hold_file_open(system)
        began = time.monotonic()
        system.run("systemctl", "stop", UNIT, within=100)
        assert time.monotonic() - began > 42
        # The program ignores SIGTERM: the card cannot be unmounted, and the service logs this and ends.
        assert system.show(UNIT, "Result") == "success"
        systemd_board.expect_record("ERROR", "sdcard", "Umount failed: error code 'Device or resource busy'")


def test_a_shutdown_leaves_a_clean_card_despite_an_open_file(systemd_board):
    card = Card.formatted()
    systemd_board.insert(card)
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect_state(State.MOUNTED, within=20)
        hold_file_open(system, "TimeoutStopSec=4s")
        began = time.monotonic()
        system.power_off()
        assert time.monotonic() - began > 3
    systemd_board.expect_record("INFO", "sdcard", "SD Card is successfully unmounted")
    systemd_board.expect_record("INFO", "sdcard", "Terminating sdcardd with exit code 0")
    assert card.is_clean(), card.check().stdout


def test_a_blank_card_is_formatted_outside_of_the_events_process(systemd_board):
    systemd_board.replace_tool("/usr/bin/systemd-run")
    with SystemdSystem(systemd_board) as system:
        systemd_board.insert(Card.blank(), announce=False)
        system.run("env", "ACTION=add", f"DEVNAME={CARD_DEVICE}", "DEVTYPE=disk", "/usr/lib/udev/tavo-sdcard-hotplug")
        systemd_board.expect("a partition", lambda: systemd_board.exists(PARTITION_DEVICE))
        assert systemd_board.tool_calls("systemd-run") == [
            ["--no-block", "--collect", "--quiet", "/usr/lib/udev/tavo-sdcard-hotplug", "format"]]
        system.run("systemctl", "stop", UNIT)


def test_a_purged_package_leaves_no_unit(systemd_board):
    systemd_board.write_file("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 0\n", 0o755)
    with SystemdSystem(systemd_board) as system:
        systemd_board.expect("the service", systemd_board.bus.has_service)
        system.run("rm", "-r", f"/etc/systemd/system/{UNIT}.d")
        system.run("dpkg", "--purge", "sdcardd")
        systemd_board.expect("the name is free", lambda: not systemd_board.bus.has_service())
        assert "0 unit files" in system.run("systemctl", "list-unit-files", "sdcardd*", check=False).stdout
        assert system.run("systemctl", "is-active", UNIT, check=False).stdout.strip() == "inactive"
        left = system.run("sh", "-c", "find /etc/systemd /lib/systemd /var/lib/systemd -name '*sdcardd*'").stdout
        assert left == ""


def test_the_unit_has_no_flaw(board):
    result = board.run("systemd-analyze", "verify", "--man=no", f"/lib/systemd/system/{UNIT}")
    flaws = [line for line in (result.stdout + result.stderr).splitlines() if "sdcardd" in line]
    assert flaws == []
    exposure = board.run("systemd-analyze", "security", "--offline=yes", f"--threshold={EXPOSURE_LIMIT * 10:.0f}",
                         f"/lib/systemd/system/{UNIT}")
    assert exposure.returncode == 0, exposure.stdout


def test_the_unit_takes_these_rights_away(board):
    directives = {}
    section = board.read_file(f"/lib/systemd/system/{UNIT}").partition("[Service]\n")[2].partition("\n[")[0]
    for name, value in re.findall(r"^(\w+)=(.*)$", section, re.M):
        directives[name] = f"{directives[name]} {value}" if name in directives else value
    assert {name: value for name, value in directives.items() if name not in RUNNING} == HARDENING
