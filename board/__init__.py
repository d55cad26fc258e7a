"""Boards to run the SD card service on, with one interface for every kind of board."""

from .board import Board, Unexpected
from .bus import BusError, Signal
from .card import Card, Partition
from .leds import LedPattern
from .log_records import LogRecord
from .names import (CARD_DEVICE, CARD_INTERFACE, CONTROLLER_INTERFACE, MOUNT_POINT, PARTITION_DEVICE, State,
                    Transition)
from .process import Process
from .virtual_board import VirtualBoard

__all__ = ["Board", "BusError", "CARD_DEVICE", "CARD_INTERFACE", "CONTROLLER_INTERFACE", "Card", "LedPattern",
           "LogRecord", "MOUNT_POINT", "PARTITION_DEVICE", "Partition", "Process", "Signal", "State", "Transition",
           "Unexpected", "VirtualBoard"]
