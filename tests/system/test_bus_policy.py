"""The shipped bus policy on a real bus: all permissions in one table."""

import json
import xml.etree.ElementTree as ElementTree

import pytest

from board import CARD_INTERFACE, CONTROLLER_INTERFACE, Board
from board.names import OBJECT_PATH, SERVICE_NAME
from conftest import ROOT

pytestmark = pytest.mark.installed

PROPERTIES = "org.freedesktop.DBus.Properties"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
PEER = "org.freedesktop.DBus.Peer"
POLICY_DIRECTORY = "/usr/share/dbus-1/system.d"

EVERYONE = ("root", "games", "nobody")
ROOT_ONLY = ("root",)

# The calls of a client (interface, member, signature, arguments), and who may make them.
CALLS = {
    "read State": ((PROPERTIES, "Get", "ss", [CARD_INTERFACE, "State"]), EVERYONE),
    "read Transition": ((PROPERTIES, "Get", "ss", [CARD_INTERFACE, "Transition"]), EVERYONE),
    "read MemState": ((PROPERTIES, "Get", "ss", [CARD_INTERFACE, "MemState"]), EVERYONE),
    "read MemLevel": ((PROPERTIES, "Get", "ss", [CARD_INTERFACE, "MemLevel"]), EVERYONE),
    "read MountPoint": ((PROPERTIES, "Get", "ss", [CARD_INTERFACE, "MountPoint"]), EVERYONE),
    "read IsMounted": ((PROPERTIES, "Get", "ss", [CARD_INTERFACE, "IsMounted"]), EVERYONE),
    "read all": ((PROPERTIES, "GetAll", "s", [CARD_INTERFACE]), EVERYONE),
    "write State": ((PROPERTIES, "Set", "ssv", [CARD_INTERFACE, "State", ["i", 3]]), ROOT_ONLY),
    "write Transition": ((PROPERTIES, "Set", "ssv", [CARD_INTERFACE, "Transition", ["i", 3]]), ROOT_ONLY),
    "write MemState": ((PROPERTIES, "Set", "ssv", [CARD_INTERFACE, "MemState", ["i", 3]]), ROOT_ONLY),
    "write MemLevel": ((PROPERTIES, "Set", "ssv", [CARD_INTERFACE, "MemLevel", ["i", 3]]), ROOT_ONLY),
    "write MountPoint": ((PROPERTIES, "Set", "ssv", [CARD_INTERFACE, "MountPoint", ["s", "/etc"]]), ROOT_ONLY),
    "write IsMounted": ((PROPERTIES, "Set", "ssv", [CARD_INTERFACE, "IsMounted", ["b", True]]), ROOT_ONLY),
    "call RefreshMemState": ((CARD_INTERFACE, "RefreshMemState", None, []), EVERYONE),
    "call GetDirPath": ((CARD_INTERFACE, "GetDirPath", "s", ["csv"]), EVERYONE),
    "call GetDirSize": ((CARD_INTERFACE, "GetDirSize", "s", ["csv"]), EVERYONE),
    "call getDirUsed": ((CARD_INTERFACE, "getDirUsed", "s", ["csv"]), EVERYONE),
    "call EnsureDirSize": ((CARD_INTERFACE, "EnsureDirSize", "s", ["csv"]), ROOT_ONLY),
    "call InsertCard": ((CONTROLLER_INTERFACE, "InsertCard", None, []), ROOT_ONLY),
    "call RemoveCard": ((CONTROLLER_INTERFACE, "RemoveCard", None, []), ROOT_ONLY),
    "introspect": ((INTROSPECTABLE, "Introspect", None, []), EVERYONE),
    "ping": ((PEER, "Ping", None, []), EVERYONE),
    # Without an interface the bus looks up a member in all of them.
    "call EnsureDirSize of no interface": ((None, "EnsureDirSize", "s", ["csv"]), ROOT_ONLY),
    "call InsertCard of no interface": ((None, "InsertCard", None, []), ROOT_ONLY),
    "call RemoveCard of no interface": ((None, "RemoveCard", None, []), ROOT_ONLY),
}

PROBE = f"""
import json, sys
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call
from jeepney.bus_messages import message_bus
from jeepney.io.blocking import open_dbus_connection
bus = open_dbus_connection("SYSTEM")
def ask(message):
    reply = bus.send_and_get_reply(message, timeout=60)
    if reply.header.message_type is MessageType.error:
        return reply.header.fields[HeaderFields.error_name]
    return "done"
def tupled(value):
    return tuple(tupled(part) for part in value) if isinstance(value, list) else value
outcomes = {{}}
for name, (interface, member, signature, arguments) in json.load(sys.stdin).items():
    address = DBusAddress({OBJECT_PATH!r}, {SERVICE_NAME!r}, interface)
    outcomes[name] = ask(new_method_call(address, member, signature, tupled(arguments)))
outcomes["own the name"] = ask(message_bus.RequestName({SERVICE_NAME!r}))
print(json.dumps(outcomes))
"""

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"


def outcomes(board: Board, user: str) -> dict[str, str]:
    """The reply to each call by a user: "done" or the error's name."""
    calls = json.dumps({name: call for name, (call, _) in CALLS.items()})
    result = board.run("/usr/bin/python3", "-I", "-c", PROBE, input=calls, user=user, check=True)
    return json.loads(result.stdout)


def table_for(user: str) -> dict[str, bool]:
    return {name: user in users for name, (_, users) in CALLS.items()} | {"own the name": user == "root"}


def members(board: Board, kind: str) -> list[str]:
    """The methods, properties or signals of both interfaces of the running service."""
    interfaces = [interface for interface in ElementTree.fromstring(board.introspect()).iter("interface")
                  if interface.get("name") in (CARD_INTERFACE, CONTROLLER_INTERFACE)]
    return [member.get("name") for interface in interfaces for member in interface.iter(kind)]


def test_the_table_names_every_method_and_property(board):
    board.start_service()
    names = [f"call {name}" for name in members(board, "method")]
    names += [f"{verb} {name}" for name in members(board, "property") for verb in ("read", "write")]
    assert [name for name in names if name not in CALLS] == []


@pytest.mark.parametrize("user", EVERYONE)
def test_everyone_may_read_and_query_and_only_root_may_change(board, user):
    board.start_service()
    table = table_for(user)
    for name, outcome in outcomes(board, user).items():
        if not table[name]:
            assert outcome == ACCESS_DENIED, name
        elif name.startswith("write "):
            # The bus allows root to write; the service refuses.
            assert outcome not in ("done", ACCESS_DENIED), name
        else:
            assert outcome == "done", name
    announced = [signal.name for signal in board.signals if signal.name.startswith("Card")]
    assert (announced != []) == (user == "root")
    assert board.property("MountPoint") == "/media/sdcard"


def test_everyone_receives_every_signal(board):
    board.start_service()
    names = members(board, "signal")
    assert board.stop_service() == 0
    listener = board.start("dbus-monitor", "--system", "--profile", f"type=signal,path={OBJECT_PATH}", user="nobody")
    board.expect("the listener is on the bus", lambda: "NameAcquired" in listener.output)
    for name in names:
        board.run("dbus-send", "--system", "--type=signal", OBJECT_PATH, f"{CARD_INTERFACE}.{name}", check=True)
    board.expect("all signals", lambda: all(f"\t{name}" in listener.output for name in names))


def test_a_signal_of_a_local_account_does_not_come_from_the_services_name(board):
    board.start_service()
    owner = board.run("dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus", "/",
                      "org.freedesktop.DBus.GetNameOwner", f"string:{SERVICE_NAME}", check=True).stdout.strip()
    listener = board.start("dbus-monitor", "--system", "--profile", f"type=signal,sender={SERVICE_NAME}")
    board.expect("the listener is on the bus", lambda: "NameAcquired" in listener.output)
    forge = ["dbus-send", "--system", "--type=signal", OBJECT_PATH, f"{CARD_INTERFACE}.CardRemoved"]
    board.run(*forge, user="nobody", check=True)
    board.expect_signal("CardRemoved")  # a listener that does not check the sender accepts it
    board.bus.announce_removal()
    board.expect("the service's own", lambda: "CardRemoved" in listener.output)
    senders = {line.split("\t")[3] for line in listener.output.splitlines() if "CardRemoved" in line}
    assert senders == {owner}


def test_a_group_that_the_installer_chooses_may_change_the_card(board):
    text = (ROOT / "platform" / "tavo.SDCard1-group.conf.in").read_text().replace("@SDCARDD_CONTROL_GROUP@", "games")
    board.write_file(f"{POLICY_DIRECTORY}/tavo.SDCard1-group.conf", text)
    board.run("dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
              "org.freedesktop.DBus.ReloadConfig", check=True)
    board.start_service()
    changes = {"call EnsureDirSize", "call InsertCard", "call RemoveCard"}
    of_member, of_other = outcomes(board, "games"), outcomes(board, "nobody")
    assert {name for name in changes if of_member[name] != ACCESS_DENIED} == changes
    assert of_member["own the name"] == ACCESS_DENIED
    assert {name for name in changes if of_other[name] != ACCESS_DENIED} == set()
