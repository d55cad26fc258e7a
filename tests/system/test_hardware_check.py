"""The look at the card before the service is on the bus: a card is there, but not its partition's device node."""

import pytest

from board import CARD_DEVICE, PARTITION_DEVICE, Card, State, Transition
from board.names import FORMAT_SCRIPT
from steps import expect_mounted, messages, seconds_since_format, signal_names

pytestmark = pytest.mark.installed

# A place for device nodes in which a node can be missing that the device manager makes in /dev.
NODES = "/run/nodes"
CONFIGURATION = f'<sdcard devicepath="{NODES}/mmcblk0p1"/>'


@pytest.fixture
def board(make_board, program):
    """A board whose service knows the card by names of which the partition's is missing."""
    board = make_board(program=program, media_config=CONFIGURATION)
    board.run("mkdir", NODES, check=True)
    board.run("ln", "-s", CARD_DEVICE, f"{NODES}/mmcblk0", check=True)
    return board


def looked_at(board):
    """What the service says from the beginning of the check on."""
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


def test_a_card_with_one_linux_partition_is_not_formatted(board):
    board.replace_tool(FORMAT_SCRIPT)
    board.insert(Card.formatted())
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board) == ["SD Card is available but not initialized, check it...",
                                "SD Card Linux Ext4 format is ok"]
    assert board.tool_calls("tavo-create-sdcardFS.sh") == []


def test_a_card_without_a_partition_is_left_alone(board):
    board.replace_tool(FORMAT_SCRIPT)
    board.insert(Card.blank())
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board) == ["SD Card is available but not initialized, check it...",
                                f"FDisk: Unable to get device path '{NODES}/mmcblk0p1'"]
    assert board.tool_calls("tavo-create-sdcardFS.sh") == []


@pytest.mark.parametrize("make", [Card.as_bought, Card.two_partitions])
def test_a_foreign_card_is_formatted_and_mounted(board, make):
    board.replace_tool(FORMAT_SCRIPT, f'"$ORIGINAL"; status=$?; ln -s {PARTITION_DEVICE} {NODES}; exit $status')
    board.insert(make())
    # Making the partition anew has events of its own, which the hot-plug rule would tell of.
    with board.unannounced():
        board.start_service()
        expect_mounted(board)
    assert looked_at(board)[:6] == [
        "SD Card is available but not initialized, check it...", "New SD Card detected",
        f"Executing '{FORMAT_SCRIPT}'...", "Making an ext4 file system on /dev/mmcblk0 (64 MiB)",
        "SD Card Linux Ext4 format was new initialized", "SD Card is already present"]
    assert signal_names(board)[-1] == "CardMounted"


def test_a_card_that_the_format_script_finds_ready_is_ok(board):
    board.replace_tool(FORMAT_SCRIPT, "exit 0")
    board.insert(Card.as_bought())
    board.start_service()
    assert looked_at(board)[-2:] == [f"Executing '{FORMAT_SCRIPT}'...", "SD Card Linux Ext4 format is ok"]


@pytest.mark.parametrize("status", [1, 98, 100])
def test_a_failing_format_does_not_keep_the_service_from_starting(board, status):
    board.replace_tool(FORMAT_SCRIPT, f"exit {status}")
    board.insert(Card.as_bought())
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board)[-1] == f"Executing '{FORMAT_SCRIPT}'..."


def test_a_missing_format_script_does_not_keep_the_service_from_starting(board):
    board.remove_tool(FORMAT_SCRIPT)
    board.insert(Card.as_bought())
    board.start_service()
    board.expect_state(State.NO_CARD)
    assert looked_at(board)[-1] == "Starting command failed (exitstatus:0)"


def test_a_removal_that_follows_the_format_is_its_echo(board):
    board.replace_tool(FORMAT_SCRIPT, "exit 99")
    board.insert(Card.as_bought())
    for _ in range(5):
        signals = len(board.signals)
        board.start_service()
        board.bus.announce_removal()
        if is_soon := seconds_since_format(board) < 2.9:
            break
        # Too late for an echo, on a busy machine.
        assert board.stop_service() == 0
    assert is_soon
    board.expect_signal("CardRemoved", after=signals)
    board.expect_state_for(State.NO_CARD, 0.3)
    assert board.transition is Transition.NONE
    board.bus.announce_removal()
    board.expect_transition(Transition.CARD_REMOVED)
    assert messages(board, "ERROR") == []
