"""Mount points that the configuration spells differently from the mount table."""

import signal

import pytest

from board import MOUNT_POINT, State
from steps import eject, start_with_mounted_card, take_out

pytestmark = pytest.mark.installed


@pytest.mark.parametrize("spelling", ["/media/sdcard/", "//media//sdcard", "/media/./other/../sdcard"])
def test_a_card_is_unmounted_however_the_path_is_spelled(make_board, program, spelling):
    board = make_board(program=program, media_config=f'<sdcard mountpoint="{spelling}"/>')
    start_with_mounted_card(board)
    assert board.mounts() != []
    eject(board)
    take_out(board)


def test_a_card_behind_a_linked_mount_point_keeps_its_files(make_board, program):
    board = make_board(program=program, media_config='<sdcard mountpoint="/run/media/sdcard"/>')
    board.run("ln", "-s", "/media", "/run/media", check=True)
    card = start_with_mounted_card(board)
    board.write_file(f"{MOUNT_POINT}/kept", "kept\n")
    board.service.send_signal()
    board.expect_service_end(0, within=10)
    # The service does not find the linked path in the mount table, so the card stays mounted.
    assert board.mounts() != []
    board.start_service()
    board.expect_record("ERROR", "St:Mounting", "Mount failed: Device or resource busy")
    board.expect_state(State.CORRUPTED)
    assert board.read_file(f"{MOUNT_POINT}/kept") == "kept\n"
    board.run("umount", MOUNT_POINT, check=True)
    assert "kept" in card.list_files()
    board.service.stop(signal.SIGKILL)  # no other way out of this state
