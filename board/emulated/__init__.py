"""The emulated board: a 32-bit ARM machine with a stock kernel."""

from .board import EmulatedBoard

__all__ = ["EmulatedBoard"]
