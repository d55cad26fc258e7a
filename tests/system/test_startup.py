"""Start-up: the command line, the search for files, and every failure."""

import re
import time

import pytest

from board import State
from board.log_records import TRACKING_CONFIGURATION_TEXT, parse_records
from board.names import BUS_POLICY, LOG_FILE, MEDIA_CONFIGURATION, TRACKING_CONFIGURATION

pytestmark = pytest.mark.installed

TRACKING_NAME = "tavo-sdcard.trackconfig.xml"
NO_BUS = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"}
STARTING = re.compile(r"Starting \(Version 2\.9\.851 by yocto, Build "
                      r"(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\d \d{4} \d\d:\d\d:\d\d\)")
TERMINATING = "Terminating sdcardd with exit code "


def assert_fails(board, errors, *options, **arguments):
    """Checks that the service ends at once with status 1 and exactly this text on standard error."""
    service = board.start_service(*options, **arguments)
    assert service.wait() == 1
    assert (service.output, service.errors) == ("", errors)


@pytest.mark.parametrize("option", ["--version", "-v"])
def test_the_version_is_printed(board, option):
    service = board.start_service(option)
    assert service.wait() == 0
    assert (service.output, service.errors) == ("sdcardd 2.9.851 by yocto\n", "")
    assert board.records == []


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_the_help_names_the_purpose_and_all_options(board, option):
    service = board.start_service(option)
    assert service.wait() == 0
    assert service.errors == ""
    lines = service.output.splitlines()
    assert lines[1] == "Service to mount/unmount SD Card and handle events."
    described = [tuple(re.split(r"\s{2,}", line.strip())) for line in lines if line.startswith("  -")]
    assert [names for names, _ in described if "Qt" not in _] == [
        "-h, --help", "-v, --version", "--track <filename>", "--config <filename>"]
    assert ("--track <filename>", "track configuration file") in described
    assert ("--config <filename>", "media configuration file") in described


def test_an_unknown_option_ends_the_service_with_status_1(board):
    assert_fails(board, "sdcardd: Unknown option 'eject'.\n", "--eject")


def test_a_tracking_file_that_is_named_but_missing_is_not_replaced_by_the_default_one(board):
    assert_fails(board, "Specified configuration file not found: /nowhere/track.xml\n",
                 "--track", "/nowhere/track.xml")
    assert board.records == []


def test_every_search_directory_is_named_once_when_no_tracking_file_exists(make_board, program):
    board = make_board(program=program, track_config=None)
    assert_fails(board, "Configuration file not found: tavo-sdcard.trackconfig.xml\n"
                        "Add it to one of these directories:\n"
                        "  /etc/tavo\n"
                        "  /opt/tavo/share/tavo-core/defaults\n"
                        "  /usr/sbin\n"
                        "  /root/.config\n"
                        "  /etc/xdg\n"
                        "or specify file with command line argument: track\n",
                 environment={"HOME": "/root", "XDG_CONFIG_DIRS": "/etc/tavo:/etc/xdg:/usr/sbin"})


def test_the_tracking_file_of_the_first_search_directory_is_used(make_board, program):
    directories = ["/etc/tavo", "/opt/tavo/share/tavo-core/defaults", "/usr/sbin", "/root/.config", "/etc/xdg"]
    board = make_board(program=program, track_config=None)
    for number, directory in enumerate(directories):
        board.write_file(f"{directory}/{TRACKING_NAME}",
                         TRACKING_CONFIGURATION_TEXT.replace(LOG_FILE, f"{LOG_FILE}-{number}"))
    for number, directory in enumerate(directories):
        board.start_service("--config", "/nowhere", environment={"HOME": "/root"}).wait()
        assert [record.message for record in parse_records(board.read_file(f"{LOG_FILE}-{number}"))][-1:] == [
            TERMINATING + "1"], directory
        board.remove_file(f"{directory}/{TRACKING_NAME}")


def test_files_that_options_name_are_used_in_place_of_the_default_ones(board):
    other = LOG_FILE + "-other"
    board.write_file("/etc/track.xml", TRACKING_CONFIGURATION_TEXT.replace(LOG_FILE, other))
    board.write_file("/etc/media.xml", '<sdcard mountpoint="/media/other"/>')
    board.start_service("--track", "/etc/track.xml", "--config", "/etc/media.xml")
    assert board.property("MountPoint") == "/media/other"
    assert board.stop_service() == 0
    assert board.records == []
    assert parse_records(board.read_file(other))[-1].message == TERMINATING + "0"


def test_an_unusable_tracking_file_leaves_the_service_running_with_its_records_on_standard_error(make_board, program):
    board = make_board(program=program, track_config="<log4j:configuration")
    service = board.start_service()
    board.expect_state(State.NO_CARD)
    assert board.stop_service() == 0
    assert "Checking hardware..." in service.errors
    assert (f"Cannot use tracking configuration '{TRACKING_CONFIGURATION}'; log records go to standard error\n"
            in service.errors)


def test_a_run_begins_and_ends_with_a_record(board):
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert board.stop_service() == 0
    records = board.records
    assert STARTING.fullmatch(records[0].message)
    # There is no record of the udev logger, because this device has none.
    assert [record.message for record in records[1:]] == [
        "Configuration successfully parsed", "Checking hardware...", TERMINATING + "0"]
    assert board.service.errors == ""
    assert [(record.level, record.channel, record.source) for record in (records[0], records[-1])] == [
        ("INFO", "sdcard", "main")] * 2


def test_a_media_configuration_that_is_named_but_missing_ends_the_service_before_it_looks_for_the_bus(board):
    assert_fails(board, "Abort. Media configuration file '/nowhere/config.xml' not found\n",
                 "--config", "/nowhere/config.xml", environment=NO_BUS)
    starting, ending = board.records
    assert STARTING.fullmatch(starting.message)
    assert (ending.level, ending.channel, ending.message) == ("INFO", "sdcard", TERMINATING + "1")


@pytest.mark.parametrize("text, complaint", [
    ("<sdcard><dir>logs</dir></sdcard>",
     "Parsing errror: Attribute 'size' of node 'dir' not found in file '/etc/tavo/tavo-sdcard.config.xml'"),
    ("<sdcard><folder/></sdcard>",
     "Parsing errror: Unsupported node 'folder' found in file '/etc/tavo/tavo-sdcard.config.xml'"),
])
def test_a_faulty_media_configuration_ends_the_service(make_board, program, text, complaint):
    board = make_board(program=program, media_config=text)
    assert_fails(board, "")
    assert [(record.level, record.channel, record.source, record.message) for record in board.records[1:]] == [
        ("ERROR", "config", "config", complaint),
        ("ERROR", "config", "config", "Could not parse child nodes in file '/etc/tavo/tavo-sdcard.config.xml'"),
        ("ERROR", "sdcard", "main", "Could not setup configuration handler"),
        ("INFO", "sdcard", "main", TERMINATING + "1")]


@pytest.mark.parametrize("text", [None, "", "<sdcard>", "<other/>"], ids=["missing", "empty", "unclosed", "other root"])
def test_a_media_configuration_that_cannot_be_parsed_ends_the_service(board, text):
    if text is None:
        board.remove_file(MEDIA_CONFIGURATION)
    else:
        board.write_file(MEDIA_CONFIGURATION, text)
    assert_fails(board, "")
    complaint, *rest = board.records[1:]
    assert (complaint.level, complaint.channel) == ("ERROR", "config")
    assert re.fullmatch(r"Could not parse file : /etc/tavo/tavo-sdcard\.config\.xml \S.*", complaint.message)
    assert [(record.level, record.channel, record.source, record.message) for record in rest] == [
        ("ERROR", "sdcard", "main", "Could not setup configuration handler"),
        ("INFO", "sdcard", "main", TERMINATING + "1")]


def test_a_missing_bus_ends_the_service(board):
    assert_fails(board, "", environment=NO_BUS)
    assert [(record.level, record.channel, record.source, record.message) for record in board.records[-2:]] == [
        ("FATAL", "sdcard", "main", "Cannot connect to the D-Bus system bus"),
        ("INFO", "sdcard", "main", TERMINATING + "1")]


def test_a_second_service_ends_and_leaves_the_first_one_alone(board):
    board.start_service()
    board.expect_state(State.NO_CARD)
    before = len(board.records)
    second = board.start("/usr/sbin/sdcardd")
    assert second.wait() == 1
    assert (second.output, second.errors) == ("", "")
    records = board.records[before:]
    assert [(record.level, record.channel) for record in records[-3:]] == [
        ("ERROR", "sdcard"), ("ERROR", "sdcard"), ("INFO", "sdcard")]
    # The bus does not report a taken name as an error.
    assert [record.message for record in records[-3:]] == [
        "Connect to dbus failed", "Could not start D-Bus service: ", TERMINATING + "1"]
    assert board.state is State.NO_CARD
    assert board.stop_service() == 0


def test_a_bus_that_refuses_the_name_ends_the_service_with_the_reason(board):
    board.remove_file(BUS_POLICY)
    board.run("dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
              "org.freedesktop.DBus.ReloadConfig", check=True)
    assert_fails(board, "")
    refused, failed, ending = board.records[-3:]
    assert (refused.message, ending.message) == ("Connect to dbus failed", TERMINATING + "1")
    assert (failed.level, failed.channel, failed.source) == ("ERROR", "sdcard", "main")
    assert re.fullmatch(r'Could not start D-Bus service: Connection ":1\.\d+" is not allowed to own the service '
                        r'"tavo\.SDCard1" due to security policies in the configuration file', failed.message)


def test_the_bus_knows_the_name_only_while_the_service_runs(board):
    assert not board.bus.has_service()
    board.start_service()
    assert board.bus.has_service()
    board.stop_service()
    # The bus may detect the end later than this test.
    board.expect("the name has no owner", lambda: not board.bus.has_service())


def test_the_udev_logger_resumes_before_the_configuration_is_looked_for(board):
    # The kernel's own /proc has no such file, so the service gets its own. It is a pipe, which blocks the service until
    # somebody reads.
    switch = "/run/device/tavo-logger/suspendudev"
    board.run("sh", "-c", f"mkdir -p {switch.rpartition('/')[0]} && mkfifo {switch}", check=True)
    service = board.start("unshare", "--mount", "sh", "-c",
                          "mount --bind /run/device /proc && exec /usr/sbin/sdcardd --config /nowhere")
    board.expect("the service has begun", lambda: len(board.records) == 1)
    time.sleep(0.5)
    assert (service.running, service.errors, len(board.records)) == (True, "", 1)
    assert board.run("cat", switch).stdout == "0"
    assert service.wait() == 1
    assert service.errors == "Abort. Media configuration file '/nowhere' not found\n"
