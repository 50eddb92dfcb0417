"""Writes every signal of the daemon on this node's bus to standard output, one stamped line each.

The text of a line is JSON: {"signal": name, "arguments": [...]}. The line whose signal is
"recording" says that from then on nothing is missed. Ends when the bus ends.
"""

import json
import sys

from gi.repository import Gio, GLib

from .bus import NAME
from .filesystem import BUS_SOCKET
from .journal import write_line
from .waiting import now, wait_until

START_LIMIT = 30.0


def record(name, arguments):
    text = json.dumps({"signal": name, "arguments": arguments})
    write_line(sys.stdout.fileno(), now(), text.encode())


def connect():
    flags = (
        Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    )
    try:
        return Gio.DBusConnection.new_for_address_sync(f"unix:path={BUS_SOCKET}", flags)
    except GLib.Error:
        return None  # The bus daemon is still starting.


def main():
    connection = wait_until(connect, START_LIMIT, "a connection to the system bus")
    loop = GLib.MainLoop()

    def on_signal(_connection, _sender, _path, _interface, name, arguments):
        record(name, arguments.unpack())

    connection.signal_subscribe(
        None, NAME, None, None, None, Gio.DBusSignalFlags.NONE, on_signal
    )
    connection.connect("closed", lambda *_: loop.quit())
    # The bus handles requests in order: its answer to this one means that it has the match rule.
    connection.call_sync(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
        None, None, Gio.DBusCallFlags.NONE, -1, None,
    )
    record("recording", [])
    loop.run()


if __name__ == "__main__":
    main()
