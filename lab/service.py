"""A service of a node: a program that is started, watched and asked for its state."""

import contextlib
import os
import socket
import sys

from .journal import Stamper, write_line
from .waiting import LabError, now


class Service:
    """A program of the node that may be started again and again; its output goes to one journal.

    Each line gets its time here, and starts and ends are noted as lines "lab: ...". A program that
    writes stamped lines itself is a StampingService.
    """

    def __init__(self, init, argv, environment, journal):
        self._init = init
        self._argv = list(argv)
        self._environment = dict(environment)
        self._journal = os.open(journal, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
        self._take_output = None
        self._pid = None
        self._status = None
        self._ended = None
        self._ends = 0

    def start(self, arguments):
        if self._pid is not None:
            raise LabError(f"{self._argv[0]} runs already, with pid {self._pid}")
        self._pid = self._spawn(self._argv + arguments, self._note_end)
        self._status = self._ended = None
        self._note(f"started, pid {self._pid}")

    def is_ready(self):
        """Whether others that need it may be started."""
        return self._pid is not None

    def signal(self, number):
        if self._pid is None:
            raise LabError(f"{self._argv[0]} does not run")
        os.kill(self._pid, number)

    def take_output(self):
        """Takes in what the program has written so far."""
        if self._take_output:
            self._take_output()

    def state(self):
        """As node.Node.status documents it."""
        return {
            "pid": self._pid, "status": self._status, "ended": self._ended, "ends": self._ends,
        }

    def _spawn(self, argv, on_end, variables=()):
        reader, writer = os.pipe()
        stamper = Stamper(reader, self._journal)

        def take_output():
            if not stamper.closed and not stamper.move():
                self._init.unwatch(stamper)
                stamper.close()

        def on_exit(status):
            take_output()  # What it wrote last comes before the note of its end.
            on_end(status)

        try:
            environment = {**self._environment, **dict(variables)}
            pid = self._init.spawn(argv, environment, writer, writer, on_exit)
        except OSError:
            stamper.close()
            raise
        finally:
            os.close(writer)
        self._init.watch(stamper, take_output)
        self._take_output = take_output
        return pid

    def _note_end(self, status):
        self._pid, self._status, self._ended = None, status, now()
        self._note(f"ended, status {status}")
        self._finish()

    def _finish(self):
        self._ends += 1

    def _note(self, text):
        write_line(self._journal, now(), f"lab: {text}".encode())


class StampingService(Service):
    def _spawn(self, argv, on_end, variables=()):
        errors = sys.stderr.fileno()
        return self._init.spawn(argv, self._environment, self._journal, errors, on_end)

    def _note(self, text):
        pass  # The journal holds what the program writes, and nothing else.


class NotifyingService(Service):
    """Says itself when it is ready, as to systemd: sd_notify(3)."""

    def __init__(self, init, argv, environment, journal):
        name = f"lab-{argv[0]}"  # Abstract, so in the node's network namespace and no other.
        super().__init__(init, argv, {**environment, "NOTIFY_SOCKET": f"@{name}"}, journal)
        self._ready = False
        self._notices = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._notices.bind(f"\0{name}")
        self._notices.setblocking(False)
        init.watch(self._notices, self._take_notices)

    def start(self, arguments):
        self._take_notices()  # of the one before
        self._ready = False
        super().start(arguments)

    def is_ready(self):
        return super().is_ready() and self._ready

    def _take_notices(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                self._ready = b"READY=1" in self._notices.recv(4096).split(b"\n") or self._ready
