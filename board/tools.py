"""Replaced tools: scripts in the place of programs on a board, which record how they are called."""

import os
import shlex

from .names import TOOL_CALLS_FILE

ORIGINALS = "/usr/lib/board-originals"
RECORD_CALL = """#!/bin/sh
ORIGINAL={original}
printf '%s\\0' "$(($# + 1))" {name} "$@" >>{calls}
"""


def original_of(path: str) -> str:
    """Where the program that stood at @p path is kept while it is replaced."""
    return f"{ORIGINALS}/{os.path.basename(path)}"


def recording_script(path: str, body: str) -> str:
    """The script that records its call and then does @p body (sh; the real one is "$ORIGINAL")."""
    return RECORD_CALL.format(original=shlex.quote(original_of(path)), name=shlex.quote(os.path.basename(path)),
                              calls=TOOL_CALLS_FILE) + body + "\n"


def parse_calls(data: str, name: str) -> list[list[str]]:
    """The arguments of each call of the tool @p name, out of the file of all calls."""
    fields = data.split("\0")
    calls = []
    position = 0
    while position + 1 < len(fields):
        count = int(fields[position])
        called, *arguments = fields[position + 1:position + 1 + count]
        if called == name:
            calls.append(arguments)
        position += 1 + count
    return calls
