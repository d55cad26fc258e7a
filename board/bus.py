"""A connection to a board's system bus: calls, properties and a record of all signals."""

import time
from collections.abc import Callable
from concurrent.futures import TimeoutError as ReplyTimeout
from dataclasses import dataclass

from jeepney import DBusAddress, HeaderFields, MatchRule, Message, MessageType, message_bus, new_method_call
from jeepney.io.common import RouterClosed
from jeepney.io.threading import DBusRouter, open_dbus_connection

from .names import CARD_INTERFACE, CONTROLLER_INTERFACE, OBJECT_PATH, SERVICE_NAME

CALL_SECONDS = 30
PROPERTIES = "org.freedesktop.DBus.Properties"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"


class BusError(Exception):
    """An error reply: its D-Bus name and its message."""

    def __init__(self, name: str, message: str) -> None:
        super().__init__(f"{name}: {message}")
        self.name = name
        self.message = message


@dataclass(frozen=True)
class Signal:
    """A signal from the bus."""

    time: float  # of time.monotonic()
    interface: str
    name: str
    arguments: tuple


class SignalRecord:
    """Keeps all signals in order; serves as the queue of a jeepney filter."""

    def __init__(self, on_signal: Callable[[], None]) -> None:
        self.signals: list[Signal] = []
        self._on_signal = on_signal

    def put_nowait(self, message: Message) -> None:
        """Called by the receiving thread for each signal."""
        fields = message.header.fields
        self.signals.append(Signal(time.monotonic(), fields[HeaderFields.interface],
                                   fields[HeaderFields.member], tuple(message.body)))
        self._on_signal()


class BusClient:
    """A connection to the bus at a socket. Calls raise BusError for an error reply and TimeoutError without a reply."""

    def __init__(self, socket_path: str, on_signal: Callable[[], None]) -> None:
        self._connection = open_dbus_connection(f"unix:path={socket_path}", auth_timeout=10)
        self._router = DBusRouter(self._connection)
        self._closed = False
        self._record = SignalRecord(on_signal)
        rule = MatchRule(type="signal", path=OBJECT_PATH)
        self._router.filter(rule, queue=self._record)
        self._ask(message_bus.AddMatch(rule), CALL_SECONDS)

    def close(self) -> None:
        """Closes the connection; closing twice does nothing."""
        if not self._closed:
            self._closed = True
            self._router.close()
            self._connection.close()

    @property
    def signals(self) -> list[Signal]:
        """All signals of the service so far."""
        return list(self._record.signals)

    def has_service(self) -> bool:
        """Whether the service's name has an owner."""
        return self._ask(message_bus.NameHasOwner(SERVICE_NAME), CALL_SECONDS)[0]

    def call(self, interface: str, method: str, *arguments: str | int | bool,
             within: float = CALL_SECONDS) -> object:
        """Calls a method of the service; returns None, its result, or a tuple of its results."""
        signature = "".join({str: "s", int: "i", bool: "b"}[type(argument)] for argument in arguments)
        address = DBusAddress(OBJECT_PATH, SERVICE_NAME, interface)
        result = self._ask(new_method_call(address, method, signature or None, arguments), within)
        return None if not result else result[0] if len(result) == 1 else result

    def property(self, name: str, interface: str = CARD_INTERFACE) -> object:
        """The value of a property."""
        return self.call(PROPERTIES, "Get", interface, name)[1]

    def properties(self, interface: str = CARD_INTERFACE) -> dict[str, object]:
        """All properties of an interface."""
        return {name: value for name, (_, value) in self.call(PROPERTIES, "GetAll", interface).items()}

    def introspect(self) -> str:
        """The service object's introspection data."""
        return self.call(INTROSPECTABLE, "Introspect")

    def announce_insertion(self) -> None:
        """Notifies the service that a card was inserted."""
        self.call(CONTROLLER_INTERFACE, "InsertCard")

    def announce_removal(self) -> None:
        """Notifies the service that the card was removed."""
        self.call(CONTROLLER_INTERFACE, "RemoveCard")

    def _ask(self, message: Message, within: float) -> tuple:
        try:
            reply = self._router.send_and_get_reply(message, timeout=within)
        except ReplyTimeout as problem:
            raise TimeoutError(f"no reply within {within} s") from problem
        except RouterClosed as problem:
            raise BusError("closed", "the board's bus is gone") from problem
        if reply.header.message_type is MessageType.error:
            raise BusError(reply.header.fields[HeaderFields.error_name],
                           reply.body[0] if reply.body else "")
        return reply.body
