"""Requests to the processes of a lab: one JSON line there, one JSON line back, on a unix socket."""

import json
import os
import socket
import struct

from .waiting import LabError

REQUEST_LIMIT = 10.0


class Listener:
    """The serving side. The operation "x" is the method `do_x` of `target`; its result is JSON."""

    def __init__(self, path, target):
        self._target = target
        self._socket = socket.socket(socket.AF_UNIX)
        if os.path.exists(path):
            os.unlink(path)
        self._socket.bind(path)
        self._socket.listen(16)

    def fileno(self):
        return self._socket.fileno()

    def serve_one(self):
        connection, _ = self._socket.accept()
        with connection:
            connection.settimeout(1)
            try:
                with connection.makefile("rwb") as stream:
                    stream.write(json.dumps(self._answer(stream.readline())).encode() + b"\n")
            except OSError:
                return  # The one who asked has gone; nobody is left to tell.

    def _answer(self, line):
        try:
            request = json.loads(line)
            method = getattr(self._target, "do_" + request.pop("operation"))
            return {"result": method(**request)}
        except LabError as error:
            return {"error": str(error)}
        except Exception as error:  # pylint: disable=broad-except
            # The other side raises it: this process must live on, it holds the node together.
            return {"error": f"{type(error).__name__}: {error}"}


def ask(path, operation, limit=REQUEST_LIMIT, **arguments):
    """Sends a request to the listener at `path` and returns its result. Raises LabError."""
    try:
        with _connect(path, limit) as connection, connection.makefile("rwb") as stream:
            stream.write(json.dumps({"operation": operation, **arguments}).encode() + b"\n")
            stream.flush()
            line = stream.readline()
        reply = json.loads(line)
    except (OSError, ValueError) as error:
        raise LabError(f"no answer to '{operation}' from {path}: {error}") from error
    if "error" in reply:
        raise LabError(f"{operation}: {reply['error']}")
    return reply["result"]


def listener_pid(path):
    """The process id, as seen from here, of the process that listens at `path`. Raises LabError."""
    try:
        with _connect(path) as connection:
            credentials = connection.getsockopt(
                socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i")
            )
    except OSError as error:
        raise LabError(f"nobody listens at {path}: {error}") from error
    return struct.unpack("3i", credentials)[0]


def _connect(path, limit=REQUEST_LIMIT):
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(limit)
    try:
        connection.connect(path)
    except OSError:
        connection.close()
        raise
    return connection
