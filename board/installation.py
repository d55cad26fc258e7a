"""The files of the product on any board."""

from pathlib import Path

from .log_records import TRACKING_CONFIGURATION_TEXT
from .names import (BUS_POLICY, FORMAT_SCRIPT, MEDIA_CONFIGURATION, RUN_LEVEL_FILE, TRACKING_CONFIGURATION)

PLATFORM = Path(__file__).resolve().parent.parent / "platform"
RUN_LEVEL_PROGRAM = "/usr/sbin/runlevel"
RUN_LEVEL_TOOL = f"#!/bin/sh\nexec cat {RUN_LEVEL_FILE}\n"


def file(text: str, mode: int = 0o644) -> dict:
    """A file to install: its text and its permissions."""
    return {"text": text, "mode": mode}


def product_files() -> dict[str, dict]:
    """The files that are the same on every board, path to file."""
    return {
        BUS_POLICY: file((PLATFORM / "tavo.SDCard1.conf").read_text()),
        FORMAT_SCRIPT: file((PLATFORM / "tavo-create-sdcardFS.sh").read_text(), 0o755),
        "/usr/sbin/lsof": {"link": "/usr/bin/lsof"},
        RUN_LEVEL_PROGRAM: file(RUN_LEVEL_TOOL, 0o755),
    }


def configuration_files(media_config: str | None = None,
                        track_config: str | None = TRACKING_CONFIGURATION_TEXT) -> dict[str, dict]:
    """The files that a test may choose, path to file.

    The configurations are texts. By default they are the media configuration of platform/, and a tracking
    configuration that writes log records where the board reads them; None for the latter installs none.
    """
    if media_config is None:
        media_config = (PLATFORM / "tavo-sdcard.config.xml").read_text()
    installed = {MEDIA_CONFIGURATION: file(media_config), RUN_LEVEL_FILE: file("N 5\n")}
    if track_config is not None:
        installed[TRACKING_CONFIGURATION] = file(track_config)
    return installed
