"""The expected result of enforcing a directory's share, computed independently of the service."""

import os
from collections.abc import Iterable

from board import CARD_INTERFACE, MOUNT_POINT, Board, Card, State
from contents import Contents, Entry
from steps import start_with_mounted_card

WATCHER = "StorageCapacityWatcher"
RUN_THREAD = "WorkerThread"
# Between two changes: longer than one step of the file system's clock.
PAUSE = ("sleep", 0.012)


def start_with_watched_card(board: Board, card: Card | None = None) -> Card:
    """Starts the service with a card and waits until the run after the mount has ended."""
    card = start_with_mounted_card(board, card)
    board.expect_signal("CardMounted")
    assert board.state is State.MOUNTED  # a reply means that the actions on the signal have begun
    board.expect("the end of the run", lambda: not _is_running(board))
    return card


def _is_running(board: Board) -> bool:
    """Whether a run's thread exists; a new one still has the program's name."""
    pid = board.service.pid
    names = board.run("sh", "-c", f"cd /proc/{pid}/task && grep '' */comm").stdout.split()
    return any(name.endswith(f":{RUN_THREAD}") or (name.endswith(":sdcardd") and name != f"{pid}/comm:sdcardd")
               for name in names)


def limit_of(contents: Contents, *percent: float) -> int:
    """The bytes of a share of a share ... of the whole card; shares in percent."""
    status = contents.file_system()
    share = 1.0
    for each in percent:
        share = share * 0.01 * each
    return int(status.f_blocks * status.f_frsize * share)


def enforce(board: Board, identifier: str) -> None:
    """Makes the service enforce a directory's share."""
    board.call(CARD_INTERFACE, "EnsureDirSize", identifier)


def assert_well_chosen(before: list[Entry], after: list[Entry], limit: int,
                       not_removable: Iterable[bytes] = ()) -> None:
    """Checks that the oldest files, no more than necessary, and the directories that became empty are gone.

    @p before and @p after are the entries of the watched directory; @p not_removable the paths of
    files that were chosen but could not be removed.
    """
    files = {entry.path: entry for entry in before if not entry.is_directory}
    used = sum(entry.size for entry in before)
    left = {entry.path for entry in after if not entry.is_directory}
    removed = files.keys() - left
    chosen = removed | set(not_removable)
    kept = files.keys() - chosen
    assert left <= files.keys()
    if limit >= used:
        assert chosen == set()
    else:
        used -= sum(files[path].size for path in chosen)
        newest_chosen = max(files[path].changed for path in chosen)
        if kept:
            assert used < limit, "too few were removed"
            assert newest_chosen <= min(files[path].changed for path in kept), "the oldest do not go first"
        # Of files with the same change time any may be the last.
        assert any(used + files[path].size >= limit for path in chosen
                   if files[path].changed == newest_chosen), "too many were removed"
    assert {entry.path for entry in after if entry.is_directory} == _directories_left(before, left, removed)


def _directories_left(before: list[Entry], left: set[bytes], removed: set[bytes]) -> set[bytes]:
    directories = {entry.path for entry in before if entry.is_directory}
    for path in removed:
        directory = os.path.dirname(path)
        while directory and not any(os.path.dirname(other) == directory
                                    for other in left | (directories - {directory})):
            directories.discard(directory)
            directory = os.path.dirname(directory)
    return directories


def card_path(name: str) -> str:
    """A path in the form of the log records."""
    return f"{MOUNT_POINT}/{name}"
