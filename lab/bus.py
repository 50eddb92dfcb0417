"""The daemon's object on a node's system bus, used from outside the node."""

from gi.repository import Gio, GLib

from .paths import BUS_SOCKET
from .waiting import LabError

NAME = "com.norvel.DuskvaleCorosync"
PATH = "/com/norvel/DuskvaleCorosync"

_SIGNATURES = {
    "SendMessage": "(s)",
    "SetFreeze": "(bs)",
    "LumacrateHotplug": "(bsss)",
}
_FLAGS = (
    Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
)


class Unanswered(LabError):
    """No daemon on that bus, no bus, or an error from the daemon."""


class Bus:
    def __init__(self, root):
        """`root()` gives the path of the node's root directory, as seen from here."""
        self._root = root
        self._connection = None

    def call(self, method, *arguments, limit=5.0):
        """Calls one of the daemon's methods and returns its only result, or None."""
        parameters = GLib.Variant(_SIGNATURES.get(method, "()"), arguments)
        result = self._ask(NAME, PATH, NAME, method, parameters, limit)
        return result[0] if result else None

    def get(self, name, limit=5.0):
        parameters = GLib.Variant("(ss)", (NAME, name))
        return self._properties("Get", parameters, limit)[0]

    def get_all(self, limit=5.0):
        """All properties of the daemon as a dict."""
        return self._properties("GetAll", GLib.Variant("(s)", (NAME,)), limit)[0]

    def set(self, name, value, limit=5.0):
        """`value` is a bool, an int or a str."""
        kind = {bool: "b", int: "i", str: "s"}[type(value)]
        parameters = GLib.Variant("(ssv)", (NAME, name, GLib.Variant(kind, value)))
        self._properties("Set", parameters, limit)

    def has_daemon(self, limit=5.0):
        """True once a daemon has its name on the bus."""
        bus = "org.freedesktop.DBus"
        parameters = GLib.Variant("(s)", (NAME,))
        return self._ask(bus, "/org/freedesktop/DBus", bus, "NameHasOwner", parameters, limit)[0]

    def _properties(self, method, parameters, limit):
        return self._ask(
            NAME, PATH, "org.freedesktop.DBus.Properties", method, parameters, limit
        )

    def _ask(self, name, path, interface, method, parameters, limit):
        if self._connection is None or self._connection.is_closed():
            self._connection = self._connect()
        try:
            return self._connection.call_sync(
                name, path, interface, method, parameters, None,
                Gio.DBusCallFlags.NO_AUTO_START, int(limit * 1000), None,
            ).unpack()
        except GLib.Error as error:
            raise Unanswered(f"{method}: {error.message}") from error

    def _connect(self):
        address = f"unix:path={self._root()}{BUS_SOCKET}"
        try:
            return Gio.DBusConnection.new_for_address_sync(address, _FLAGS)
        except GLib.Error as error:
            raise Unanswered(f"no bus: {error.message}") from error
