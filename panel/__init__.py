"""A board in a terminal, to watch and to operate."""
