"""The check of a card without the device node of its partition, before the service is on the bus."""

import pytest

from board import CARD_DEVICE, PARTITION_DEVICE, Card, State, Transition
from board.names import FORMAT_SCRIPT
from steps import expect_mounted, messages, seconds_since_format, signal_names

pytestmark = pytest.mark.installed

# A directory for device nodes in which a node can be missing; udev would make it in /dev.
NODES = "/run/nodes"
CONFIGURATION = f'<sdcard devicepath="{NODES}/mmcblk0p1"/>'


@pytest.fixture
def board(make_board, program):
    """A board on which the service does not find the device node of the card's partition."""
    board = make_board(program=program, media_config=CONFIGURATION)
    board.run("mkdir", NODES, check=True)
    board.run("ln", "-s", CARD_DEVICE, f"{NODES}/mmcblk0", check=True)
    return board


def looked_at(board):
    """The service's records since the beginning of the check."""
    said = [record.message for record in board.records]
    return said[said.index("Checking hardware...") + 1:]


def test_an_empty_slot_is_not_looked_at(board):
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board) == []


def test_a_card_with_its_partitions_device_node_is_not_looked_at(board):
    board.insert(Card.two_partitions())
    board.run("ln", "-s", PARTITION_DEVICE, f"{NODES}/mmcblk0p1", check=True)
    board.replace_tool(FORMAT_SCRIPT, "exit 1")
    board.start_service()
    board.expect_state(State.NOT_MOUNTABLE)
    assert looked_at(board)[0] == "SD Card is already present"


@pytest.mark.parametrize("make, record", [(Card.formatted, "SD Card Linux Ext4 format is ok"),
                                          (Card.blank, f"FDisk: Unable to get device path '{NODES}/mmcblk0p1'")])
def test_a_card_with_one_linux_partition_or_none_is_not_formatted(board, make, record):
    board.replace_tool(FORMAT_SCRIPT)
    board.insert(make())
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board) == ["SD Card is available but not initialized, check it...", record]
    assert board.tool_calls("tavo-create-sdcardFS.sh") == []


@pytest.mark.parametrize("make", [Card.as_bought, Card.two_partitions])
def test_a_foreign_card_is_formatted_and_mounted(board, make):
    board.replace_tool(FORMAT_SCRIPT, f'"$ORIGINAL"; status=$?; ln -s {PARTITION_DEVICE} {NODES}; exit $status')
    board.insert(make())
    # A new partition causes events. Without this the hot-plug rule would report them.
    with board.unannounced():
        board.start_service()
        expect_mounted(board)
    assert looked_at(board)[:6] == [
        "SD Card is available but not initialized, check it...", "New SD Card detected",
        f"Executing '{FORMAT_SCRIPT}'...", "Making an ext4 file system on /dev/mmcblk0 (64 MiB), which holds vfat",
        "SD Card Linux Ext4 format was new initialized", "SD Card is already present"]
    assert signal_names(board)[-1] == "CardMounted"


@pytest.mark.parametrize("status, records", [
    (0, ["SD Card Linux Ext4 format is ok"]), (1, []), (98, []), (100, []),
    (None, ["Starting command failed (exitstatus:0)"])])
def test_the_format_scripts_status_decides_what_is_logged(board, status, records):
    if status is None:
        board.remove_tool(FORMAT_SCRIPT)
    else:
        board.replace_tool(FORMAT_SCRIPT, f"exit {status}")
    board.insert(Card.as_bought())
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board)[2:] == [f"Executing '{FORMAT_SCRIPT}'...", *records]


def test_a_removal_that_follows_the_format_is_its_echo(board):
    board.replace_tool(FORMAT_SCRIPT, "exit 99")
    board.insert(Card.as_bought())
    for _ in range(5):
        signals = len(board.signals)
        board.start_service()
        board.bus.announce_removal()
        if is_soon := seconds_since_format(board) < 2.9:
            break
        # This may be too late for an echo on a busy machine.
        assert board.stop_service() == 0
    assert is_soon
    board.expect_signal("CardRemoved", after=signals)
    board.expect_state_for(State.NO_CARD, 0.3)
    assert board.transition is Transition.NONE
    board.bus.announce_removal()
    board.expect_transition(Transition.CARD_REMOVED)
    assert messages(board, "ERROR") == []
