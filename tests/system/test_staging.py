"""cmake --install into a staging directory, as the makers of images and packages call it."""

import pytest

from staging import stage

pytestmark = pytest.mark.virtual

# What the program, the system and its parts look for in these places, whatever the prefix is.
FIXED = {
    "/etc/default/tavo-sdcard", "/etc/init.d/sdcardd", "/etc/logrotate.d/sdcardd",
    "/etc/tavo/tavo-sdcard.config.xml", "/etc/tavo/tavo-sdcard.config.xsd", "/etc/tavo/tavo-sdcard.trackconfig.xml",
    "/lib/systemd/system/sdcardd.service", "/lib/udev/rules.d/60-tavo-sdcard.rules", "/lib/udev/tavo-sdcard-hotplug",
    "/opt/tavo/bin/tavo-create-sdcardFS.sh",
}
BELOW_PREFIX = {
    "bin/sdcardctl", "sbin/sdcardd",
    "share/bash-completion/completions/sdcardctl",
    "share/dbus-1/interfaces/tavo.SDCard1.xml", "share/dbus-1/interfaces/tavo.SDCardController1.xml",
    "share/dbus-1/system.d/tavo.SDCard1.conf",
    "share/doc/sdcardd/examples/restrict-card-mount",
    "share/doc/sdcardd/examples/tavo-sdcard.trackconfig.console.xml",
    "share/doc/sdcardd/examples/tavo.SDCard1-group.conf.in",
    "share/man/man1/sdcardctl.1", "share/man/man5/tavo-sdcard.config.xml.5", "share/man/man8/sdcardd.8",
}
PROGRAMS = {
    "/usr/bin/sdcardctl", "/usr/sbin/sdcardd", "/usr/share/doc/sdcardd/examples/restrict-card-mount",
    "/etc/init.d/sdcardd", "/lib/udev/tavo-sdcard-hotplug", "/opt/tavo/bin/tavo-create-sdcardFS.sh",
}


@pytest.mark.parametrize("prefix", ["/usr", "/usr/local"])
def test_a_staged_installation_is_whole_and_nowhere_else(program, tmp_path, prefix):
    staged = stage(program, tmp_path, prefix)
    assert set(staged) == FIXED | {f"{prefix}/{name}" for name in BELOW_PREFIX}
    assert (tmp_path / "opt/tavo/share/tavo-sdcard/preparing").is_dir()


def test_programs_and_only_programs_are_executable(program, tmp_path):
    for place, path in stage(program, tmp_path, "/usr").items():
        assert path.stat().st_mode & 0o7777 == (0o755 if place in PROGRAMS else 0o644), place
