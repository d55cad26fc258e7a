"""A board in a terminal, to look at and to play with."""
