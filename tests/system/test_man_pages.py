"""The man pages tell what there is: options, files, bus members, elements and attributes."""

import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from conftest import ROOT
from staging import stage

pytestmark = pytest.mark.virtual  # about files of the tree; no board is needed

PAGES = ROOT / "docs" / "man"
SERVICE_PAGE = PAGES / "sdcardd.8.scd"
CONFIGURATION_PAGE = PAGES / "tavo-sdcard.config.xml.5.scd"


def test_the_service_page_tells_every_option_file_and_member(program, tmp_path):
    page = SERVICE_PAGE.read_text().replace("\\", "")
    shown = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    options = re.findall(r"--[a-z-]+", shown)
    assert {"--track", "--config", "--help", "--version"} <= set(options)

    files = [path for path in stage(program, tmp_path, "/usr") if not re.match(r"/usr/(s?bin|share/man)/", path)]
    assert len(files) > 12

    members = [f"*{member.get('name')}*" for file in sorted((ROOT / "source/bus").glob("*.xml"))
               for member in ElementTree.parse(file).iter() if member.tag in ("method", "signal", "property")]
    assert len(members) >= 22
    assert [word for word in options + files + members if word not in page] == []


def test_the_configuration_page_tells_every_element_and_attribute():
    page = CONFIGURATION_PAGE.read_text()
    schema = ElementTree.parse(ROOT / "platform" / "tavo-sdcard.config.xsd")
    space = "{http://www.w3.org/2001/XMLSchema}"
    elements = [f"## The element {element.get('name')}" for element in schema.iter(space + "element")]
    attributes = [attribute for attribute in schema.iter(space + "attribute")]
    assert len(elements) >= 3 and len(attributes) >= 7
    assert [heading for heading in elements if heading not in page] == []
    for attribute in attributes:
        entry = re.search(rf"^\*{attribute.get('name')}\*=(.*?)\n\n?(?=\S)", page, re.DOTALL | re.MULTILINE)
        assert entry, attribute.get("name")
        text = " ".join(entry[1].replace("_", "").split())
        default = attribute.get("default")
        assert f"Default: {default}." in text if default else "Required." in text, attribute.get("name")


def test_the_example_of_the_configuration_page_has_no_problems(program, tmp_path):
    example = tmp_path / "example.xml"
    example.write_text(re.search(r"^```\n(.*?)^```$", CONFIGURATION_PAGE.read_text(), re.DOTALL | re.MULTILINE)[1])
    client = program.parents[1] / "sdcardctl" / "sdcardctl"
    result = subprocess.run([client, "check-config", "--strict", example], capture_output=True, text=True)
    assert result.returncode == 0, result.stdout
