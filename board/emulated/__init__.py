"""The emulated board: a 32-bit ARM machine with a stock kernel."""

from .board import EmulatedBoard
from .emulator import EmulatorError
from .link import BoardGone

__all__ = ["BoardGone", "EmulatedBoard", "EmulatorError"]
