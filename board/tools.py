"""Scripts that replace programs on a board and record their calls."""

import os
import shlex

from .names import TOOL_CALLS_FILE

ORIGINALS = "/usr/lib/board-originals"
RECORD_CALL = """#!/bin/sh
ORIGINAL={original}
printf '%s\\0' "$(($# + 1))" {name} "$@" >>{calls}
"""


def original_of(path: str) -> str:
    """The path of the original of the replaced program at @p path."""
    return f"{ORIGINALS}/{os.path.basename(path)}"


def recording_script(path: str, body: str) -> str:
    """A script that records its call and then runs @p body (sh; "$ORIGINAL" is the real program)."""
    return RECORD_CALL.format(original=shlex.quote(original_of(path)), name=shlex.quote(os.path.basename(path)),
                              calls=TOOL_CALLS_FILE) + body + "\n"


def parse_calls(data: str, name: str) -> list[list[str]]:
    """The arguments of each call of the tool @p name; @p data is the file with the calls of all tools."""
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
