"""The virtual board as something to look at and play with in a terminal."""
