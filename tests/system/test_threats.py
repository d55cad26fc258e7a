"""Attacks by a prepared card, a local account and a peer on the bus; docs/security.md explains them."""

import json
import os
import re

import pytest

from board import CARD_INTERFACE, MOUNT_POINT, Card
from board.names import FORMAT_SCRIPT, OBJECT_PATH, SERVICE_NAME
from conftest import ROOT
from contents import Contents
from steps import eject, expect_mounted, expect_safe_to_take_out, messages, press_until_eject, start_with_mounted_card

pytestmark = pytest.mark.installed

PLATFORM = ROOT / "platform"
JOBS = "/opt/tavo/share/tavo-sdcard/preparing"
SHIPPED_CONFIGURATION = (PLATFORM / "tavo-sdcard.config.xml").read_text()
DOUBLED = "csv" + MOUNT_POINT + "/csv"
PATIENT_SECONDS = 30


@pytest.fixture
def content(tmp_path):
    """The attacker's content of the card."""
    return tmp_path


@pytest.fixture
def shipped(make_board, program):
    """A board with the shipped media configuration."""
    return make_board(program=program, media_config=SHIPPED_CONFIGURATION)


def put_in(board, content):
    start_with_mounted_card(board, Card.formatted(content=content))


def card_options(board):
    return set(board.mounts()[0].split()[3].split(","))


def on_errors(board):
    """The kernel's action on an error in the card's file system; the mount table hides the card's own choice."""
    script = f'cat "/proc/fs/ext4/$(basename "$(readlink "/sys/dev/block/$(mountpoint -d {MOUNT_POINT})")")/options"'
    options = board.run("sh", "-c", script, check=True).stdout.split()
    return next(option for option in options if option.startswith("errors="))


def snippets(language):
    """The blocks of a language in docs/security.md, for operators to copy."""
    return re.findall(rf"^```{language}\n(.*?)^```", (ROOT / "docs/security.md").read_text(), re.M | re.S)


# A prepared card

def test_a_name_on_the_card_is_never_shell_code(shipped, content):
    names = ["$(touch pwned)", "`touch pwned`", ";touch pwned;", "-t", "--target-directory=..", "a b", "'", '"', "*"]
    for name in names:
        (content / DOUBLED / "2024").mkdir(parents=True, exist_ok=True)
        (content / DOUBLED / "2024" / name).write_text(name)
    put_in(shipped, content)
    assert Contents(shipped).names("csv") == sorted(names)
    assert shipped.run("find", "/", "-xdev", "-name", "pwned").stdout == ""


def test_what_a_card_links_to_is_never_deleted(shipped, content):
    for directory in ("/var/precious", "/var/linked"):
        shipped.write_file(f"{directory}/file", "precious" * 1000)
    (content / "csv").mkdir()
    (content / "csv/directory").symlink_to("/var/precious")
    (content / "csv/file").symlink_to("/var/precious/file")
    (content / "csv/large").write_bytes(b"0" * 40_000_000)
    (content / "logger").symlink_to("/var/linked")
    put_in(shipped, content)
    shipped.call(CARD_INTERFACE, "EnsureDirSize", "csv")
    assert "large" not in Contents(shipped).names("csv")
    assert shipped.exists("/var/precious/file") and shipped.exists("/var/linked/file")
    assert f"{MOUNT_POINT}/logger is not a directory" in messages(shipped, "ERROR")


def left_alone(board, path):
    """The number of reports that the layout or a move of files left a path alone."""
    return messages(board, "ERROR").count(f"Leaving '{MOUNT_POINT}/{path}' alone: it is not on the card")


def test_a_logger_directory_that_a_link_leads_off_the_card_gets_no_files(shipped, content):
    (content / "logger").symlink_to(JOBS)
    (content / "LoggerFiles").write_text("#!/bin/sh\nid -u >/run/board/taken-over\n")
    (content / "LoggerFiles").chmod(0o755)
    shipped.run("mkdir", "-p", JOBS, check=True)
    put_in(shipped, content)
    assert shipped.run("ls", "-A", JOBS, check=True).stdout == ""
    assert not shipped.exists("/run/board/taken-over")
    assert Contents(shipped).described()["LoggerFiles"][0] == "file"
    assert left_alone(shipped, "logger") == 2  # by the layout and by the move


@pytest.mark.parametrize("link, target", [(DOUBLED, "/var/precious"), (f"{DOUBLED}/2024", "/var/precious/secrets"),
                                          (os.fsdecode(f"{DOUBLED}/".encode() + b"\xff"), "/var/precious/secrets")])
def test_a_doubled_path_that_a_link_leads_off_the_card_is_not_emptied(shipped, content, link, target):
    shipped.write_file("/var/precious/secrets/key", "secret")
    (content / link).parent.mkdir(parents=True)
    (content / link).symlink_to(target)
    put_in(shipped, content)
    assert shipped.read_file("/var/precious/secrets/key") == "secret"
    assert Contents(shipped).names("csv") == ["media"]
    assert len([text for text in messages(shipped, "ERROR") if text.endswith("alone: it is not on the card")]) == 1
    assert not [text for text in messages(shipped) if text.startswith("move File From")]


def test_a_directory_that_a_link_leads_off_the_card_keeps_its_mode_and_owner(shipped, content):
    shipped.run("install", "-d", "-m", "0700", "-o", "nobody", "/var/precious", check=True)
    (content / "csv").symlink_to("/var/precious")
    put_in(shipped, content)
    assert shipped.run("stat", "-c", "%a %U", "/var/precious").stdout == "700 nobody\n"
    assert left_alone(shipped, "csv") == 1
    assert "Cannot apply sdcard layout" in messages(shipped, "WARN")


def test_a_watched_directory_that_a_link_leads_out_of_the_card_is_left_alone(shipped, content):
    shipped.write_file("/var/precious/archive/old", "0" * 20_000_000)
    (content / "logger").symlink_to("/var/precious")
    put_in(shipped, content)
    shipped.call(CARD_INTERFACE, "EnsureDirSize", "archive")
    assert shipped.exists("/var/precious/archive/old")
    assert f"{MOUNT_POINT}/logger/archive is not on the card" in messages(shipped, "ERROR")


def test_without_a_layout_nothing_outside_of_the_card_is_touched(make_board, program, content):
    [layout] = [text for text in snippets("xml") if "<sdcard" in text]
    board = make_board(program=program, media_config=layout)
    board.run("mkdir", "-p", JOBS, check=True)
    board.write_file("/var/precious/secrets/key", "secret", 0o600)
    board.write_file("/var/precious/archive/old", "0" * 20_000_000)
    before = board.run("sh", "-c", "find /var/precious -printf '%p %m %u %s\\n' | sort").stdout
    (content / DOUBLED).parent.mkdir(parents=True)
    (content / DOUBLED).symlink_to("/var/precious")
    (content / "logger").symlink_to(JOBS)
    (content / "export").symlink_to("/var/precious/secrets/key")
    (content / "LoggerFiles").write_text("#!/bin/sh\ntouch /run/board/taken-over\n")
    (content / "LoggerFiles").chmod(0o755)
    put_in(board, content)
    assert board.run("sh", "-c", "find /var/precious -printf '%p %m %u %s\\n' | sort").stdout == before
    assert board.run("ls", "-A", JOBS, check=True).stdout == ""
    assert not board.exists("/run/board/taken-over")


def restrict_mounts(board, setting=""):
    """Installs the product's files, with a setting of the administrator."""
    board.write_file(f"{JOBS}/00-restrict-card-mount", (PLATFORM / "restrict-card-mount").read_text(), 0o755)
    board.write_file("/etc/default/tavo-sdcard", setting + "\n")


def setuid_card(content):
    card = Card.formatted(content=content)
    card.edit_ext4("sif /id uid 0", "sif /id gid 0", "sif /id mode 0104755")
    return card


@pytest.mark.parametrize("setting, user", [("", "65534\n"), ("CARD_NOEXEC=yes", ""), ("RESTRICT_CARD_MOUNT=no", "0\n")])
def test_a_set_user_id_program_on_the_card_has_no_effect_by_default(
        shipped, content, setting, user):
    restrict_mounts(shipped, setting)
    (content / "id").write_bytes(shipped.run("cat", "/usr/bin/id", check=True, as_bytes=True).stdout)
    start_with_mounted_card(shipped, setuid_card(content))
    result = shipped.run("sh", "-c", f"{MOUNT_POINT}/id -u", user="nobody")
    assert result.stdout == user


def test_a_restricted_mount_differs_only_in_its_restrictions(shipped):
    restrict_mounts(shipped, "RESTRICT_CARD_MOUNT=no")
    start_with_mounted_card(shipped)
    before = card_options(shipped)
    eject(shipped)
    restrict_mounts(shipped)
    card = shipped.card
    shipped.pull()
    shipped.insert(card)
    expect_mounted(shipped)
    assert card_options(shipped) - {"errors=remount-ro"} == before | {"nosuid", "nodev"}


@pytest.mark.parametrize("setting, reaction", [("", "errors=remount-ro"), ("RESTRICT_CARD_MOUNT=no", "errors=panic")])
def test_a_card_that_requests_a_panic_is_ignored_by_default(shipped, setting, reaction):
    restrict_mounts(shipped, setting)
    card = Card.formatted()
    card.edit_ext4("set_super_value errors 3")
    start_with_mounted_card(shipped, card)
    assert on_errors(shipped) == reaction
    # The kernel may be that of this machine, so the test does nothing else with the card.
    eject(shipped)


# A local account

@pytest.mark.parametrize("script, call", [("tavo-create-sdcardFS.sh", [FORMAT_SCRIPT]),
                                          ("tavo-sdcard-hotplug", ["/usr/lib/udev/tavo-sdcard-hotplug", "format"])])
def test_a_local_account_can_neither_take_nor_misuse_the_scripts_locks(bare_board, script, call):
    [lock] = re.findall(r"^LOCK=(\S+)$", (PLATFORM / script).read_text(), re.M)
    assert bare_board.run("touch", lock, user="nobody").returncode != 0
    bare_board.write_file(call[0], (PLATFORM / script).read_text(), 0o755)
    bare_board.insert(Card.as_bought())
    bare_board.run(*call)
    assert bare_board.exists(lock)
    assert "Permission denied" in bare_board.run("flock", "--nonblock", lock, "true", user="nobody").stderr


def test_the_name_of_a_process_cannot_forge_a_record(shipped):
    start_with_mounted_card(shipped)
    shipped.run("install", "-d", "-o", "nobody", f"{MOUNT_POINT}/theirs", check=True)
    holder = shipped.start("/usr/bin/python3", "-I", "-S", "-c",
                           "import time\nopen('/proc/self/comm', 'w').write('a\\nFATAL forged')\n"
                           f"held = open('{MOUNT_POINT}/theirs/held', 'a')\nprint('open', flush=True)\ntime.sleep(1000)",
                           user="nobody")
    shipped.expect("the holder", lambda: "open" in holder.output)
    shipped.press_eject_button()
    shipped.expect_record("INFO", "sdcard", f"{holder.pid}: 'a FATAL forged'", within=10)
    shipped.release_eject_button()
    holder.stop()


# A peer on the bus

ASK_WITHOUT_END = f"""
from jeepney import DBusAddress, new_method_call
from jeepney.io.blocking import open_dbus_connection
bus = open_dbus_connection("SYSTEM")
address = DBusAddress({OBJECT_PATH!r}, {SERVICE_NAME!r}, {CARD_INTERFACE!r})
print("asks", flush=True)
while True:
    bus.send_and_get_reply(new_method_call(address, "getDirUsed", "s", ("csv",)))
"""


def test_peers_that_call_without_end_do_not_prevent_an_eject(shipped):
    start_with_mounted_card(shipped)
    Contents(shipped).change(*(("write", f"csv/{number}") for number in range(2000)))
    peers = [shipped.start("/usr/bin/python3", "-I", "-c", ASK_WITHOUT_END, user="nobody") for _ in range(3)]
    shipped.expect("all ask", lambda: all("asks" in peer.output for peer in peers))
    press_until_eject(shipped, PATIENT_SECONDS)
    expect_safe_to_take_out(shipped, PATIENT_SECONDS)
    assert all(peer.running for peer in peers)


def ask(board, identifier, user="nobody"):
    return board.run("dbus-send", "--system", "--print-reply", f"--dest={SERVICE_NAME}", OBJECT_PATH,
                     f"{CARD_INTERFACE}.GetDirPath", f"string:{identifier}", user=user)


FORGED = "x\n2026-01-01 00:00:00,000 FATAL sdcard forged"


def test_an_identifier_with_line_breaks_makes_one_record_look_like_two(make_board, program):
    board = make_board(program=program, track_config=(PLATFORM / "tavo-sdcard.trackconfig.xml").read_text())
    board.start_service()
    assert "InvalidArgs" in ask(board, FORGED).stderr
    lines = board.read_file("/var/log/tavo-sdcard.log").splitlines()
    assert [line for line in lines if line.startswith("2026-01-01 00:00:00,000 FATAL sdcard forged")]


def test_a_layout_that_escapes_keeps_one_record_one_line(make_board, program):
    [escaping] = [text for text in snippets("xml") if "<layout" in text]
    shipped = (PLATFORM / "tavo-sdcard.trackconfig.xml").read_text()
    configuration = re.sub(r" *<layout.*?</layout>\n", lambda _: escaping, shipped, count=1, flags=re.S)
    assert configuration != shipped
    board = make_board(program=program, track_config=configuration)
    board.start_service()
    assert "InvalidArgs" in ask(board, FORGED).stderr
    records = [json.loads(line) for line in board.read_file("/var/log/tavo-sdcard.log").splitlines()]
    assert any("forged" in record["message"] and record["level"] == "ERROR" for record in records)
    assert not any(record["level"] == "FATAL" for record in records)


def test_records_that_a_peer_causes_do_not_fill_the_file_system(make_board, program):
    board = make_board(program=program, track_config=(PLATFORM / "tavo-sdcard.trackconfig.xml").read_text())
    board.start_service()
    for _ in range(60):
        assert "InvalidArgs" in ask(board, "x" * 100_000).stderr
    files = board.run("sh", "-c", "stat -c %s /var/log/tavo-sdcard.log*", check=True).stdout.split()
    assert len(files) == 4
    assert sum(map(int, files)) < 4 * (512 * 1024 + 200_000)


def test_a_device_may_refuse_queries_to_all_but_a_group(shipped):
    [policy] = [text.replace("sdcard-users", "games") for text in snippets("xml") if "<busconfig>" in text]
    start_with_mounted_card(shipped)
    shipped.write_file("/etc/dbus-1/system.d/tavo-sdcard-local.conf", policy)
    shipped.run("dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                "org.freedesktop.DBus.ReloadConfig", check=True)
    assert "AccessDenied" in ask(shipped, "csv").stderr
    assert ask(shipped, "csv", user="games").returncode == 0
    assert ask(shipped, "csv", user="root").returncode == 0
