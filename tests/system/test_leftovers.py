"""The check at the end of every test: a board reports what is left on it."""

from board import MOUNT_POINT, PARTITION_DEVICE, Card


def test_an_open_board_reports_what_is_left_on_it(bare_board):
    bare_board.insert(Card.formatted())
    assert bare_board.leftovers() == []
    bare_board.run("sh", "-c", f"mkdir {MOUNT_POINT} && mount {PARTITION_DEVICE} {MOUNT_POINT}", check=True)
    # The fork still is setsid for a moment.
    bare_board.run("sh", "-c", "setsid --fork sleep 1000; until pgrep -fx 'sleep 1000'; do sleep 0.05; done",
                   check=True)
    process, mount, directory = bare_board.leftovers()
    assert process.startswith("process ") and process.endswith(": sleep 1000")
    assert mount.startswith(f"mount: {PARTITION_DEVICE} {MOUNT_POINT} ext4 ")
    assert directory == f"directory: {MOUNT_POINT}"
