"""The list of dependencies in README.md, compared with what is really used."""

import re
import subprocess

import pytest

from conftest import ROOT

# An init is recommended only: a device has one.
NAMES_IN_TEXT = re.compile(r"[a-z0-9][a-z0-9+.-]+")


def table() -> dict[str, str]:
    """The version that the list gives for each package."""
    versions: dict[str, str] = {}
    for line in (ROOT / "README.md").read_text().split("## Dependencies")[1].splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if len(cells) == 4 and NAMES_IN_TEXT.fullmatch(cells[0].split(",")[0].split(" or ")[0]):
            names, numbers = re.split(r", | or ", cells[0]), cells[1].split(", ")
            assert len(numbers) in (1, len(names)), line
            versions |= dict(zip(names, numbers * len(names) if len(numbers) == 1 else numbers))
    return versions


def packages_of_dev() -> list[str]:
    """Everything that ./dev installs."""
    text = (ROOT / "dev").read_text()
    arrays = re.findall(r"^(?:\w+_)?packages=\(([^)]*)\)", text, re.M)
    return " ".join([*arrays, *re.findall(r"packages\+=\(([a-z][^)$]*)\)", text)]).split()


def test_every_package_that_dev_installs_is_listed():
    packages = packages_of_dev()
    assert len(packages) > 30
    assert [name for name in packages if name not in table()] == []


def test_every_package_that_the_package_asks_for_is_listed():
    control = (ROOT / "debian/control").read_text()
    relations = re.findall(r"^(?:Build-Depends|Depends|Recommends):\n((?: .*\n)+)", control, re.M)
    assert len(relations) == 3
    first_choices = [re.split(r"[ |(]", line.strip().rstrip(","))[0] for line in "".join(relations).splitlines()]
    # Names that stand for others: of the bus, of pkg-config, of debhelper's version, of the first init.
    stands_for = {"default-dbus-system-bus": "dbus", "pkgconf": "pkg-config", "debhelper-compat": "debhelper",
                  "systemd-sysv": "systemd"}
    asked_for = [stands_for.get(name, name) for name in first_choices if not name.startswith("$")]
    assert [name for name in asked_for if name not in table()] == []


def test_the_versions_are_those_of_this_release():
    listed = table()
    installed = subprocess.run(["dpkg-query", "--show", "--showformat=${Package} ${source:Upstream-Version} "
                                "${db:Status-Status}\n", *listed], capture_output=True, text=True).stdout
    versions = {name: re.split(r"\+(?:dfsg|deb)|\+20", version)[0] for name, version, status in
                (line.split() for line in installed.splitlines() if len(line.split()) == 3) if status == "installed"}
    assert len(versions) > 20
    # Updates within the release change what follows the first number; the packages of compilers have
    # versions of their own.
    assert {name: version for name, version in versions.items()
            if listed[name].split(".")[0] != version.split(".")[0] and not name.startswith(("g++", "clang-"))} == {}


@pytest.mark.package
def test_every_library_that_the_package_depends_on_is_listed(package):
    depends = subprocess.run(["dpkg-deb", "--field", str(package), "Depends"], check=True, capture_output=True,
                             text=True).stdout
    libraries = [name for name in re.findall(r"\blib[a-z0-9+.-]+", depends)]
    assert len(libraries) >= 7
    assert [name for name in libraries if name not in table()] == []
