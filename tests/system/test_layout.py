"""The card's layout: directories with owners and modes, links, and cards with other things in their place."""

import os

import pytest

from board import MOUNT_POINT, Card
from contents import Contents
from steps import eject, expect_mounted, messages, start_with_mounted_card, take_out

WARNING = "Cannot apply sdcard layout"
CONFIGURATION = """
<sdcard>
  <dir size="50" mode="0750" owner="daemon:adm">logs
    <dir size="20" mode="0711" owner="nobody">old</dir>
    <symlink target="old">last</symlink>
  </dir>
  <dir size="10">data</dir>
  <symlink target="/var/elsewhere">elsewhere</symlink>
  <symlink target="../sdcard/data">around</symlink>
</sdcard>
"""


@pytest.fixture
def board(make_board, program):
    """A board with a layout of nested directories, owners and links."""
    return make_board(program=program, media_config=CONFIGURATION)


@pytest.fixture
def content(tmp_path):
    """The content of the card before the service mounts it."""
    return tmp_path


def card_with(content):
    return Card.formatted(content=content)


def assert_laid_out(board):
    found = Contents(board).described()
    assert found["logs"] == ("directory", "750", "daemon", "adm")
    assert found["logs/old"] == ("directory", "711", "nobody", "root")
    assert found["data"] == ("directory", "755", "root", "root")
    assert found["logs/last"] == "old"
    assert found["elsewhere"] == "/var/elsewhere"
    assert found["around"] == "../sdcard/data"


def layout_records(board):
    return [(record.level, record.channel, record.source, record.message) for record in board.records
            if record.level != "INFO"]


def errors(*texts):
    return [("ERROR", "config", "config", text) for text in texts]


def warnings(*texts):
    return [("WARN", "config", "config", text) for text in texts]


FAILED = [("WARN", "St:Preparing", "StatePreparing", WARNING)]


def test_an_empty_card_is_laid_out_with_owners_modes_and_links(board):
    start_with_mounted_card(board)
    assert_laid_out(board)
    assert layout_records(board) == []
    assert Contents(board).names() == ["around", "data", "elsewhere", "logs", "lost+found"]


def mount_again(board, card):
    eject(board)
    take_out(board)
    board.insert(card)
    expect_mounted(board)


def test_a_card_laid_out_before_is_left_as_it_is(board):
    card = start_with_mounted_card(board)
    Contents(board).change(("write", "data/kept", 1), ("mkdir", "photos", 0o700), ("symlink", "/nowhere", "link"))
    before = {entry.path: entry for entry in Contents(board).entries(".")}
    mount_again(board, card)
    assert {entry.path: entry for entry in Contents(board).entries(".")} == before
    assert layout_records(board) == []


def test_a_mode_that_the_creation_mask_has_narrowed_is_corrected_the_next_time(make_board, program):
    board = make_board(program=program, media_config='<sdcard><dir size="1" mode="0777">open</dir></sdcard>')
    card = start_with_mounted_card(board)
    assert Contents(board).described()["open"][1] == "755"
    assert layout_records(board) == []
    mount_again(board, card)
    assert Contents(board).described()["open"][1] == "777"
    assert layout_records(board) == warnings(f"Correct directory mode '0777' for '{MOUNT_POINT}/open'")


def test_wrong_modes_and_owners_are_corrected(board, content):
    (content / "logs").mkdir(mode=0o700)
    (content / "logs/old").mkdir()
    (content / "data").mkdir()
    os.chmod(content / "logs/old", 0o711)
    os.chmod(content / "data", 0o2755)
    os.chown(content / "data", 0, 4)
    start_with_mounted_card(board, card_with(content))
    found = Contents(board).described()
    assert found["logs"] == ("directory", "750", "daemon", "adm")
    assert found["logs/old"] == ("directory", "711", "nobody", "root")
    # The service compares only the nine permission bits. A change of owner keeps a directory's other bits.
    assert found["data"] == ("directory", "2755", "root", "root")
    assert layout_records(board) == warnings(
        f"Correct directory mode '0750' for '{MOUNT_POINT}/logs'",
        f"Correct directory owner 'daemon:adm' for '{MOUNT_POINT}/logs'",
        f"Correct directory owner 'nobody' for '{MOUNT_POINT}/logs/old'",
        f"Correct directory owner '' for '{MOUNT_POINT}/data'")


def test_links_with_another_target_are_replaced_and_right_ones_stay(board, content):
    (content / "logs").mkdir()
    (content / "logs/last").symlink_to("older")
    (content / "elsewhere").symlink_to("/var/elsewher")
    (content / "around").symlink_to("../sdcard/data")
    card = card_with(content)
    start_with_mounted_card(board, card)
    assert_laid_out(board)
    assert not any("symlink" in message for message in messages(board))


def test_files_in_the_place_of_links_stay_and_are_reported(board, content):
    (content / "logs/last").mkdir(parents=True)
    (content / "elsewhere").write_text("mine")
    (content / "around").write_text("")
    start_with_mounted_card(board, card_with(content))
    contents = Contents(board)
    found = contents.described()
    assert found["logs/last"][0] == "directory"
    assert contents.texts("elsewhere") == ["mine"]
    assert found["around"][0] == "file"
    assert layout_records(board)[-4:] == errors(
        f"Cannot read target of existing symlink '{MOUNT_POINT}/logs/last' (Invalid argument)",
        f"Cannot read target of existing symlink '{MOUNT_POINT}/elsewhere' (Invalid argument)",
        f"Cannot read target of existing symlink '{MOUNT_POINT}/around' (Invalid argument)") + FAILED


def test_a_file_in_the_place_of_a_directory_gets_its_mode_and_owner_and_stays_a_file(board, content):
    (content / "logs").write_text("mine")
    os.chmod(content / "logs", 0o644)
    start_with_mounted_card(board, card_with(content))
    contents = Contents(board)
    found = contents.described()
    assert found["logs"] == ("file", "750", "daemon", "adm")
    assert contents.texts("logs") == ["mine"]
    assert found["data"][0] == "directory"
    assert layout_records(board) == warnings(
        f"Correct directory mode '0750' for '{MOUNT_POINT}/logs'",
        f"Correct directory owner 'daemon:adm' for '{MOUNT_POINT}/logs'") + errors(
        f"Can't create directory for '{MOUNT_POINT}/logs/old' (Not a directory)",
        f"Can't set directory owner for '{MOUNT_POINT}/logs/old' (Not a directory)",
        f"Cannot create symlink '{MOUNT_POINT}/logs/last' (Not a directory)") + FAILED


@pytest.mark.parametrize("target, why", [("nowhere", "No such file or directory"),
                                         ("data", "Too many levels of symbolic links")])
def test_a_link_that_leads_nowhere_in_the_place_of_a_directory_is_reported(board, content, target, why):
    (content / "data").symlink_to(target)
    start_with_mounted_card(board, card_with(content))
    assert Contents(board).described()["data"] == target
    assert layout_records(board) == errors(
        f"Can't create directory for '{MOUNT_POINT}/data' (File exists)",
        f"Can't set directory owner for '{MOUNT_POINT}/data' ({why})") + FAILED


def test_a_link_to_a_directory_in_the_place_of_a_directory_is_accepted_and_its_target_corrected(board, content):
    (content / "elsewhere-on-the-card").mkdir(mode=0o700)
    (content / "data").symlink_to("elsewhere-on-the-card")
    start_with_mounted_card(board, card_with(content))
    found = Contents(board).described()
    assert found["data"] == "elsewhere-on-the-card"
    assert found["elsewhere-on-the-card"] == ("directory", "755", "root", "root")
    assert layout_records(board) == warnings(f"Correct directory mode '' for '{MOUNT_POINT}/data'")


def test_immutable_directories_and_links_are_reported_and_the_rest_is_laid_out(board):
    card = Card.formatted()
    board.insert(card)
    board.run("mount", "-t", "ext4", "/dev/mmcblk0p1", "/mnt", check=True)
    board.run("sh", "-c", "mkdir -m 700 /mnt/logs && mkdir /mnt/logs/old && ln -s x /mnt/logs/last && "
                          "chattr +i /mnt/logs && umount /mnt", check=True)
    board.start_service()
    expect_mounted(board)
    daemon = f"{MOUNT_POINT}/logs"
    assert layout_records(board)[:2] == errors(
        f"Can't set directory mode '0750' for '{daemon}' (Operation not permitted)",
        f"Can't set directory owner 'daemon:adm' for '{daemon}' (Operation not permitted)")
    assert layout_records(board)[-2:] == errors(
        f"Cannot unlink existing symlink '{daemon}/last' (Operation not permitted)") + FAILED
    found = Contents(board).described()
    assert found["logs/last"] == "x"
    assert found["data"][0] == "directory"
    assert found["around"] == "../sdcard/data"
    board.run("chattr", "-i", daemon, check=True)


def test_the_layout_goes_to_the_configured_mount_point(make_board, program):
    board = make_board(program=program, media_config='<sdcard mountpoint="/media/card/two">'
                                                     '<dir size="5">deep<dir size="5">er</dir></dir></sdcard>')
    board.insert(Card.formatted())
    board.start_service()
    expect_mounted(board)
    assert board.run("find", "/media/card/two/deep").stdout == "/media/card/two/deep\n/media/card/two/deep/er\n"
    assert board.call("tavo.SDCard1", "GetDirPath", "er") == "/media/card/two/deep/er"
    assert board.stop_service() == 0
    assert not board.exists("/media/card/two")


def left_alone(*paths):
    return errors(*(f"Leaving '{MOUNT_POINT}/{path}' alone: it is not on the card" for path in paths))


def test_what_a_link_leads_to_off_the_card_is_left_alone(board, content):
    board.run("mkdir", "-p", "-m", "0700", "/var/precious/old", check=True)
    board.run("ln", "-s", "precious", "/var/precious/last", check=True)
    before = board.run("find", "/var/precious", "-printf", "%p %m %U %l %C@\\n", check=True).stdout
    (content / "logs").symlink_to("/var/precious")
    start_with_mounted_card(board, card_with(content))
    assert board.run("find", "/var/precious", "-printf", "%p %m %U %l %C@\\n", check=True).stdout == before
    found = Contents(board).described()
    assert found["logs"] == "/var/precious"
    assert found["data"][0] == "directory"
    assert found["around"] == "../sdcard/data"
    assert layout_records(board) == left_alone("logs", "logs/old", "logs/last") + FAILED


def test_a_name_that_leads_off_the_card_is_used_as_it_is_given_and_left_alone(make_board, program):
    board = make_board(program=program, media_config='<sdcard><dir size="5">../beside</dir></sdcard>')
    start_with_mounted_card(board)
    assert board.call("tavo.SDCard1", "GetDirPath", "../beside") == f"{MOUNT_POINT}/../beside"
    assert not board.exists("/media/beside")
    assert layout_records(board) == left_alone("../beside") + FAILED


@pytest.mark.parametrize("locale", ["C", "C.UTF-8"])
def test_paths_on_the_card_are_utf8_in_every_locale(make_board, program, content, locale):
    (content / "PindleLogger.db").write_text("database")
    (content / "csv/media/kärtchen/csv/2024").mkdir(parents=True)
    (content / "csv/media/kärtchen/csv/2024/größe").write_text("1")
    board = make_board(program=program, media_config='<sdcard mountpoint="/media/kärtchen"><dir size="5">logger</dir>'
                                                     '<dir size="5">csv</dir><dir size="5">größe</dir></sdcard>')
    board.insert(card_with(content))
    board.start_service(environment={"LC_ALL": locale})
    expect_mounted(board)
    # The text of an element is Latin-1, the value of "mountpoint" UTF-8.
    latin1 = "größe".encode().decode("latin-1")
    found = board.run("find", "/media", "-mindepth", "2", as_bytes=True, check=True).stdout.decode().splitlines()
    assert {path.removeprefix("/media/kärtchen/") for path in found} - {"lost+found"} == {
        "csv", "csv/größe", "logger", "logger/PindleLogger.db", latin1}
    assert layout_records(board) == []
    assert board.call("tavo.SDCard1", "GetDirPath", latin1) == f"/media/kärtchen/{latin1}"
