"""cmake --install into a staging directory, as a build of an image or a package calls it."""

import os
import re
import subprocess

import pytest

from conftest import ROOT
from staging import stage

pytestmark = pytest.mark.virtual  # checks files of the tree; no board is needed

# Files that the program, the system and other parts expect at these paths, with any prefix.
FIXED = {
    "/etc/default/tavo-sdcard", "/etc/init.d/sdcardd", "/etc/logrotate.d/sdcardd",
    "/etc/tavo/tavo-sdcard.config.xml", "/etc/tavo/tavo-sdcard.config.xsd", "/etc/tavo/tavo-sdcard.trackconfig.xml",
    "/lib/systemd/system/sdcardd.service", "/lib/udev/rules.d/60-tavo-sdcard.rules", "/lib/udev/tavo-sdcard-hotplug",
    "/opt/tavo/bin/tavo-create-sdcardFS.sh", "/opt/tavo/share/tavo-sdcard/preparing/00-restrict-card-mount",
}
BELOW_PREFIX = {
    "bin/sdcardctl", "libexec/sdcardd/sdcardd-start", "sbin/sdcardd",
    "share/bash-completion/completions/sdcardctl", "share/fish/vendor_completions.d/sdcardctl.fish",
    "share/zsh/site-functions/_sdcardctl",
    "share/dbus-1/interfaces/tavo.SDCard1.xml", "share/dbus-1/interfaces/tavo.SDCardController1.xml",
    "share/doc/sdcardd/integrating.md", "share/doc/sdcardd/operating.md",
    "share/doc/sdcardd/examples/tavo-sdcard.trackconfig.console.xml",
    "share/doc/sdcardd/examples/tavo.SDCard1-group.conf.in",
    "share/man/man1/sdcardctl.1", "share/man/man5/tavo-sdcard.config.xml.5", "share/man/man8/sdcardd.8",
}
# The stock bus reads policies only from these directories.
BUS_POLICIES = {"/usr": "/usr/share/dbus-1/system.d/tavo.SDCard1.conf",
                "/usr/local": "/etc/dbus-1/system.d/tavo.SDCard1.conf",
                "/opt/sdcardd": "/etc/dbus-1/system.d/tavo.SDCard1.conf"}
PROGRAMS = {
    "/usr/bin/sdcardctl", "/usr/libexec/sdcardd/sdcardd-start", "/usr/sbin/sdcardd", "/etc/init.d/sdcardd", "/lib/udev/tavo-sdcard-hotplug",
    "/opt/tavo/bin/tavo-create-sdcardFS.sh", "/opt/tavo/share/tavo-sdcard/preparing/00-restrict-card-mount",
}


@pytest.mark.parametrize("prefix", BUS_POLICIES)
def test_an_installation_has_these_files_programs_and_places(program, tmp_path, prefix):
    staged = stage(program, tmp_path, prefix)
    assert set(staged) == FIXED | {BUS_POLICIES[prefix]} | {f"{prefix}/{name}" for name in BELOW_PREFIX}
    programs = {place for place in staged if place.replace(prefix, "/usr", 1) in PROGRAMS}
    assert {place: path.stat().st_mode & 0o7777 for place, path in staged.items()} == {
        place: 0o755 if place in programs else 0o644 for place in staged}
    starter = f"{prefix}/libexec/sdcardd/sdcardd-start"
    configured = "".join(staged[place].read_text() for place in (
        "/lib/systemd/system/sdcardd.service", "/etc/init.d/sdcardd", starter))
    assert re.findall(r"^(?:ExecStart|DAEMON|CLIENT)=(\S+)", configured, re.M) == [
        starter, f"{prefix}/sbin/sdcardd", f"{prefix}/sbin/sdcardd", f"{prefix}/bin/sdcardctl"]
    assert [line for line in configured.splitlines() if re.search(r"@\w+@", line)] == []


def test_an_installer_may_choose_a_group_a_place_for_the_policy_and_the_link_to_lsof(tmp_path):
    build, target = tmp_path / "build", tmp_path / "target"
    subprocess.run(["cmake", "-G", "Ninja", "-S", ROOT, "-B", build, "-DBUILD_TESTING=OFF", "-DSDCARDD_LSOF_LINK=ON",
                    "-DSDCARDD_CONTROL_GROUP=adm", "-DSDCARDD_BUS_POLICY_DIR=/usr/lib/policies"],
                   check=True, capture_output=True)
    # The rest needs a build; see the test above.
    install = ["cmake", "-DCMAKE_INSTALL_PREFIX=/usr", "-P", build / "platform/install.cmake"]
    subprocess.run(install, check=True, capture_output=True, env=os.environ | {"DESTDIR": str(target)})
    policies = target / "usr/lib/policies"
    assert {path.name for path in policies.iterdir()} == {"tavo.SDCard1.conf", "tavo.SDCard1-group.conf"}
    assert '<policy group="adm">' in (policies / "tavo.SDCard1-group.conf").read_text()
    lsof = target / "usr/sbin/lsof"
    assert os.readlink(lsof) == "../bin/lsof"
    lsof.unlink()
    lsof.write_text("another program")
    subprocess.run(install, check=True, capture_output=True, env=os.environ | {"DESTDIR": str(target)})
    assert not lsof.is_symlink()
