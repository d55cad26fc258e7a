"""The keys, with their actions and conditions."""

import signal
from collections.abc import Callable
from dataclasses import dataclass
from typing import Protocol

from .hands import BLANK_CARD, DAMAGED_CARD, OWN_CARD, TWO_PARTITIONS_CARD, CardKind, Hands
from .model import NORMAL_RUN_LEVEL, REBOOT_RUN_LEVEL, Model


class Panel(Protocol):
    """The part of the panel that a key acts on."""

    model: Model
    hands: Hands

    def open_shell(self) -> None:
        """Shows a shell on the board until it ends."""

    def quit(self) -> None:
        """Ends the panel."""


@dataclass(frozen=True)
class Key:
    """A key: its label, its action, and the reason why it has no effect now (empty when it has one)."""

    key: str
    label: Callable[[Model], str]
    act: Callable[[Panel], None]
    refusal: Callable[[Model], str] = lambda model: ""
    name: str = ""

    @property
    def shown(self) -> str:
        """The key's name on a keyboard."""
        return self.name or self.key


def _always(label: str) -> Callable[[Model], str]:
    return lambda model: label


def _slot_is_taken(model: Model) -> str:
    return "There is a card in the slot: pull it first (p)." if model.card or model.slot_busy else ""


def _slot_is_empty(model: Model) -> str:
    return "" if model.card else "There is no card to pull: put one in (i)."


def _not_mounted(model: Model) -> str:
    return "" if model.mounted else "No card is mounted."


def _insertion(kind: CardKind) -> Callable[[Panel], None]:
    return lambda panel: panel.hands.insert(kind)


def _push(panel: Panel) -> None:
    if panel.model.button.pressed:
        panel.hands.release_button()
    else:
        panel.hands.press_button()


def _hold_or_close(panel: Panel) -> None:
    if panel.model.holder is None:
        panel.hands.hold_file()
    else:
        panel.hands.close_file()


def _write_or_stop(panel: Panel) -> None:
    if panel.model.writing:
        panel.hands.stop_writing()
    else:
        panel.hands.write_until_it_overflows(panel.model.chosen_directory.identifier)


def _end_or_start(panel: Panel) -> None:
    if not panel.model.service_runs:
        panel.hands.start_service()
    else:
        panel.hands.end_service(signal.SIGKILL if panel.model.term_sent else signal.SIGTERM)


def _end_or_start_label(model: Model) -> str:
    if not model.service_runs:
        return "start service"
    return "SIGKILL" if model.term_sent else "SIGTERM"


def _set_other_run_level(panel: Panel) -> None:
    panel.hands.set_run_level(_other_run_level(panel.model))


def _other_run_level(model: Model) -> int:
    return NORMAL_RUN_LEVEL if model.run_level == REBOOT_RUN_LEVEL else REBOOT_RUN_LEVEL


def _run_level_label(model: Model) -> str:
    return "run level: normal" if model.run_level == REBOOT_RUN_LEVEL else "run level: reboot"


# In the order of the screen, one line each: a title and its keys.
KEYS: list[tuple[str, list[Key]]] = [
    ("Put in", [
        Key("i", _always("your card"), _insertion(OWN_CARD), _slot_is_taken),
        Key("n", _always("a blank one"), _insertion(BLANK_CARD), _slot_is_taken),
        Key("d", _always("a damaged one"), _insertion(DAMAGED_CARD), _slot_is_taken),
        Key("2", _always("two partitions"), _insertion(TWO_PARTITIONS_CARD), _slot_is_taken),
    ]),
    ("Card", [
        Key("p", _always("pull it"), lambda panel: panel.hands.pull(), _slot_is_empty),
        Key("b", lambda model: "let the button go" if model.button.pressed else "hold the button", _push),
        Key("o", lambda model: "hold a file open" if model.holder is None else "close the held file", _hold_or_close,
            lambda model: "" if model.holder is not None else _not_mounted(model)),
    ]),
    ("Data", [
        Key("tab", _always("next directory"), lambda panel: panel.model.choose_next_directory(), name="Tab"),
        Key("w", lambda model: "stop writing" if model.writing else "write until it overflows", _write_or_stop,
            lambda model: "" if model.writing else _not_mounted(model)),
        Key("e", _always("EnsureDirSize"),
            lambda panel: panel.hands.ensure_size(panel.model.chosen_directory.identifier), _not_mounted),
    ]),
    ("System", [
        Key("t", _end_or_start_label, _end_or_start),
        Key("r", _run_level_label, _set_other_run_level),
        Key("s", _always("shell"), lambda panel: panel.open_shell()),
        # The list of events handles these; at its end it passes them on to here.
        Key("up", _always("log"), lambda panel: None, name="↑↓"),
        Key("q", _always("quit"), lambda panel: panel.quit()),
    ]),
]


def press(key: str, panel: Panel) -> bool:
    """Runs a key's action, or reports why it has no effect now; returns false for an unknown key."""
    for _, row in KEYS:
        for entry in row:
            if entry.key == key:
                refusal = entry.refusal(panel.model)
                if refusal:
                    panel.model.add_event("panel", refusal)
                else:
                    entry.act(panel)
                return True
    return False
