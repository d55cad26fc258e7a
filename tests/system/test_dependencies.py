"""The list of dependencies in docs/dependencies.md, compared with what is really used."""

import re
import subprocess

import pytest

from conftest import ROOT

pytestmark = pytest.mark.virtual  # no board is needed

NAMES_IN_TEXT = re.compile(r"[a-z0-9][a-z0-9+.-]+")

# What relations name: the bus, pkg-config, debhelper's version, an init, the init functions of old.
STANDS_FOR = {"default-dbus-system-bus": "dbus", "dbus-system-bus": "dbus", "pkgconf": "pkg-config",
              "debhelper-compat": "debhelper", "systemd-sysv": "systemd", "lsb-base": "sysvinit-utils"}
DEPENDED_ON, RECOMMENDED, TO_BUILD, TO_TEST = (
    "## On the device", "The package recommends these", "## To build and to package", "## To test")


def table(*beginnings: str) -> set[str]:
    """The packages in the tables after the paragraphs or headings that begin so; in all tables without any."""
    parts = re.split(r"\n\n(?=## |The package recommends)", (ROOT / "docs/dependencies.md").read_text())
    chosen = [part for part in parts if part.startswith(beginnings or "")]
    assert len(chosen) == (len(beginnings) or len(parts))
    names: set[str] = set()
    for line in "\n".join(chosen).splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if len(cells) == 3 and NAMES_IN_TEXT.fullmatch(cells[0].split(",")[0].split(" or ")[0]):
            names |= set(re.split(r", | or ", cells[0]))
    return names


def packages_of_dev() -> list[str]:
    """Everything that ./dev installs."""
    text = (ROOT / "dev").read_text()
    arrays = re.findall(r"^(?:\w+_)?packages=\(([^)]*)\)", text, re.M)
    return " ".join([*arrays, *re.findall(r"packages\+=\(([a-z][^)$]*)\)", text)]).split()


def test_every_package_that_dev_installs_is_listed():
    packages = packages_of_dev()
    assert len(packages) > 30
    assert [name for name in packages if name not in table()] == []


def asked_for(relation: str) -> set[str]:
    """All that a relation of the package names, alternatives as well."""
    found = re.search(rf"^{relation}:\n((?: .*\n)+)", (ROOT / "debian/control").read_text(), re.M)[1]
    names = {choice.split()[0] for choice in re.split(r"[,|]", found) if choice.strip()}
    return {STANDS_FOR.get(name, name) for name in names if not name.startswith("$")}


def is_essential(package: str) -> bool:
    return subprocess.run(["dpkg-query", "--show", "--showformat=${Essential}", package], check=True,
                          capture_output=True, text=True).stdout == "yes"


def test_the_package_asks_for_what_is_listed_for_the_device_and_for_nothing_else():
    assert asked_for("Recommends") == table(RECOMMENDED)
    listed = {name for name in table(DEPENDED_ON) if not name.startswith("lib")}
    left_out = listed - asked_for("Depends")
    assert asked_for("Depends") | left_out == listed
    assert [name for name in left_out if not is_essential(name)] == []


def test_what_is_listed_for_building_and_testing_is_asked_for():
    assert asked_for("Build-Depends") <= table(TO_BUILD)
    wanted = asked_for("Build-Depends") | set(packages_of_dev())
    assert [name for name in table(TO_BUILD, TO_TEST) if name not in wanted] == []


@pytest.mark.package
def test_the_libraries_that_the_package_depends_on_are_those_listed(package):
    depends = subprocess.run(["dpkg-deb", "--field", str(package), "Depends"], check=True, capture_output=True,
                             text=True).stdout
    libraries = set(re.findall(r"\blib[a-z0-9+.-]+", depends))
    assert len(libraries) >= 7
    assert libraries == {name for name in table(DEPENDED_ON) if name.startswith("lib")}
