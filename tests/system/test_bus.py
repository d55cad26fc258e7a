"""The service on the system bus: its description, its properties, its methods and their error replies."""

import math
import xml.etree.ElementTree as ElementTree

import pytest

from board import CARD_INTERFACE, CONTROLLER_INTERFACE, MOUNT_POINT, BusError, Card, State, Transition
from contents import Contents
from steps import eject, messages, signal_names, start_with_mounted_card

pytestmark = pytest.mark.installed

INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs"
CARD_MEMBERS = [
    ("property", "State", "i", "read"),
    ("property", "Transition", "i", "read"),
    ("property", "MemState", "i", "read"),
    ("property", "MemLevel", "i", "read"),
    ("property", "MountPoint", "s", "read"),
    ("property", "IsMounted", "b", "read"),
    ("method", "RefreshMemState", ("state", "i", "out")),
    ("method", "GetDirPath", ("id", "s", "in"), ("path", "s", "out")),
    ("method", "GetDirSize", ("id", "s", "in"), ("size", "x", "out")),
    ("method", "getDirUsed", ("id", "s", "in"), ("size", "x", "out")),
    ("method", "EnsureDirSize", ("id", "s", "in")),
    ("signal", "CardInserted"),
    ("signal", "CardRemoved"),
    ("signal", "CardNotMountable"),
    ("signal", "CardCorrupt"),
    ("signal", "MemStateChanged", ("state", "i", None)),
    ("signal", "MemLevelChanged", ("level", "i", None)),
    ("signal", "CardMounted"),
    ("signal", "CardUnmounted"),
    ("signal", "EjectPressed"),
]
CONTROLLER_MEMBERS = [("method", "InsertCard"), ("method", "RemoveCard")]
CONFIGURATION = """
<sdcard>
  <dir size="40" capacitywatch="true">logger
    <dir size="25" capacitywatch="true">archive</dir>
  </dir>
  <dir size="30" capacitywatch="true">csv</dir>
  <dir size="20">export</dir>
  <symlink target="logger/archive">last</symlink>
</sdcard>
"""


@pytest.fixture
def board(make_board, program):
    """A board with a card that has watched and other directories and a link."""
    return make_board(program=program, media_config=CONFIGURATION)


def card_call(board, method, *arguments):
    return board.call(CARD_INTERFACE, method, *arguments)


def error_of(board, method, *arguments):
    with pytest.raises(BusError) as caught:
        card_call(board, method, *arguments)
    return caught.value.name, caught.value.message


def described_members(interface):
    """The members of an interface's description, in order."""
    members = []
    for member in interface:
        if member.tag == "annotation":
            continue
        if member.tag == "property":
            members.append(("property", member.get("name"), member.get("type"), member.get("access")))
        else:
            members.append((member.tag, member.get("name"),
                            *((argument.get("name"), argument.get("type"), argument.get("direction"))
                              for argument in member.findall("arg"))))
    return members


def test_the_description_lists_both_interfaces_with_all_members_in_their_order(board):
    board.start_service()
    interfaces = ElementTree.fromstring(board.introspect()).findall("interface")
    own = {interface.get("name"): described_members(interface) for interface in interfaces
           if not interface.get("name").startswith("org.freedesktop.")}
    assert list(own.items()) == [(CARD_INTERFACE, CARD_MEMBERS), (CONTROLLER_INTERFACE, CONTROLLER_MEMBERS)]


def test_the_description_says_that_properties_emit_no_change_signals(board):
    board.start_service()
    annotation = ElementTree.fromstring(board.introspect()).find(f"interface[@name='{CARD_INTERFACE}']/annotation")
    assert annotation.get("name") == "org.freedesktop.DBus.Property.EmitsChangedSignal"
    assert annotation.get("value") == "false"


def test_the_properties_without_a_card_are_these(board):
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert board.bus.properties() == {"State": 1, "Transition": 0, "MemState": 1, "MemLevel": 0,
                                      "MountPoint": MOUNT_POINT, "IsMounted": False}


def test_insertions_and_removals_are_announced_to_everyone(board):
    board.start_service()
    board.expect_signal("MemStateChanged")
    signals = len(board.signals)
    board.call(CONTROLLER_INTERFACE, "InsertCard")
    board.call(CONTROLLER_INTERFACE, "RemoveCard")
    board.expect_signal("CardRemoved")
    assert signal_names(board, signals) == ["CardInserted", "CardRemoved"]
    assert {signal.interface for signal in board.signals} == {CARD_INTERFACE}


def test_without_a_card_paths_are_known_and_sizes_are_0(board):
    board.start_service()
    paths = {"logger": "/logger", "archive": "/logger/archive", "csv": "/csv", "export": "/export", "last": "/last"}
    for name, path in paths.items():
        assert card_call(board, "GetDirPath", name) == MOUNT_POINT + path
    assert card_call(board, "GetDirSize", "logger") == 0
    assert card_call(board, "getDirUsed", "logger") == 0
    assert card_call(board, "getDirUsed", "") == 0


@pytest.mark.parametrize("method", ["GetDirPath", "GetDirSize", "getDirUsed"])
def test_an_unknown_directory_is_an_invalid_argument(board, method):
    board.start_service()
    for number, identifier in enumerate(["unknown", "/logger", "LOGGER", "logger ", "über"], 1):
        message = f"'id'-argument '{identifier}' does not specify a directory name"
        assert error_of(board, method, identifier) == (INVALID_ARGUMENTS, message)
        board.expect_record("ERROR", "SDCardImpl", f"GetDirPath(): reply '{message}'", source="SDCardImpl",
                            function="SDCardImpl::GetDirPath")
        assert len(messages(board, "ERROR")) == number


def test_an_empty_identifier_has_no_path_no_size_and_the_whole_cards_use(board):
    start_with_mounted_card(board)
    assert error_of(board, "GetDirPath", "") == (INVALID_ARGUMENTS,
                                                 "'id'-argument '' does not specify a directory name")
    assert card_call(board, "GetDirSize", "") == 0
    status = Contents(board).file_system()
    assert card_call(board, "getDirUsed", "") == (status.f_blocks - status.f_bfree) * status.f_frsize
    assert len(messages(board, "ERROR")) == 1


def test_the_size_of_a_directory_is_its_share_of_the_whole_card(board):
    start_with_mounted_card(board)
    status = Contents(board).file_system()
    total = status.f_blocks * status.f_frsize
    for name, share in {"logger": 0.4, "archive": 0.1, "csv": 0.3, "export": 0.2}.items():
        assert abs(card_call(board, "GetDirSize", name) - int(total * share)) <= 1, name
    assert card_call(board, "GetDirSize", "last") == 0
    eject(board)
    assert card_call(board, "GetDirSize", "logger") == 0


def test_enforcing_a_directory_that_is_not_watched_is_an_invalid_argument(board):
    start_with_mounted_card(board)
    for identifier in ("unknown", "export", "last", "Logger"):
        message = f"'id'-argument '{identifier}' does not specify a capacity watched directory"
        assert error_of(board, "EnsureDirSize", identifier) == (INVALID_ARGUMENTS, message)
        warning, error = board.records[-2:]
        assert (warning.level, warning.channel, warning.message) == (
            "WARN", "StorageCapacityWatcher", f"There is no watched directory for identifier '{identifier}'")
        assert (error.level, error.channel, error.source, error.message) == (
            "ERROR", "SDCardImpl", "SDCardImpl", f"EnsureDirSize(): reply '{message}'")


def test_enforcing_any_directory_without_a_card_is_done_at_once(board):
    board.start_service()
    for identifier in ("logger", "unknown", ""):
        assert card_call(board, "EnsureDirSize", identifier) is None
    assert messages(board, "WARN") + messages(board, "ERROR") == []


def test_the_memory_state_follows_the_used_share(board):
    start_with_mounted_card(board)
    contents = Contents(board)
    level_before = 1
    for percent, mem_state in ((19, 3), (39, 4), (59, 5), (79, 6), (97, 7)):
        signals = len(board.signals)
        status = contents.file_system()
        wanted = status.f_blocks * percent // 100 - (status.f_blocks - status.f_bfree)
        contents.fill(f"export/{percent}", wanted * status.f_frsize)
        status = contents.file_system()
        level = math.ceil((status.f_blocks - status.f_bfree) * 100 / status.f_blocks)
        assert board.property("MemLevel") == level_before
        for _ in range(2):
            assert card_call(board, "RefreshMemState") == mem_state
        assert board.property("MemState") == mem_state
        assert board.property("MemLevel") == level
        board.expect_signal("MemLevelChanged", level, after=signals)
        assert [(signal.name, *signal.arguments) for signal in board.signals[signals:]] == (
            [("MemStateChanged", mem_state)] if mem_state != 3 else []) + [("MemLevelChanged", level)]
        level_before = level


def test_a_full_card_has_level_100(board):
    # Large enough that the reserve of ext4 is less than one percent.
    start_with_mounted_card(board, Card.formatted(4096))
    board.run("sh", "-c", f"i=0; while fallocate -l 64M {MOUNT_POINT}/export/$i; do i=$((i + 1)); done\n"
                          f"while fallocate -l 1M {MOUNT_POINT}/export/$i; do i=$((i + 1)); done")
    assert card_call(board, "RefreshMemState") == 7
    assert board.property("MemLevel") == 100


def test_a_refresh_reports_a_missing_or_an_unusable_card(board):
    board.start_service()
    assert card_call(board, "RefreshMemState") == 1
    board.insert(Card.blank())
    board.expect_state(State.NOT_MOUNTABLE)
    assert board.property("MemState") == 1
    assert card_call(board, "RefreshMemState") == 2
    assert board.property("MemLevel") == 0
    assert board.transition is Transition.CARD_INSERTED
