"""The services of a node, and what its service manager does when the daemon ends."""

import os
import sys

from .journal import Stamper, write_line
from .waiting import now


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
        self._ending = False

    def start(self, arguments):
        if self._pid is not None:
            raise RuntimeError(f"{self._argv[0]} runs already, with pid {self._pid}")
        self._pid = self._spawn(self._argv + arguments, self._note_end)
        self._status = self._ended = None
        self._note(f"started, pid {self._pid}")
        return self._pid

    def signal(self, number):
        if self._pid is None:
            raise RuntimeError(f"{self._argv[0]} does not run")
        os.kill(self._pid, number)

    def take_output(self):
        """Takes in what the program has written so far."""
        if self._take_output:
            self._take_output()

    def state(self):
        """As node.Node.status documents it."""
        return {
            "pid": self._pid, "status": self._status, "ended": self._ended, "ends": self._ends,
            "ending": self._ending,
        }

    def _spawn(self, argv, on_end):
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
            pid = self._init.spawn(argv, self._environment, writer, writer, on_exit)
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
    def _spawn(self, argv, on_end):
        errors = sys.stderr.fileno()
        return self._init.spawn(argv, self._environment, self._journal, errors, on_end)

    def _note(self, text):
        pass  # The journal holds what the program writes, and nothing else.


class Daemon(Service):
    """The service that the node's service manager may look after, as its unit file says."""

    def __init__(self, *arguments):
        super().__init__(*arguments)
        self._after_end = []
        self._restart_after = None
        self._arguments = []

    def supervise(self, after_end, restart_after):
        """At the daemon's end run the commands `after_end`, one after another, and, unless it ended
        with status 0, start it again `restart_after` seconds later (None: leave it)."""
        self._after_end = after_end
        self._restart_after = restart_after

    def start(self, arguments):
        if self._ending:
            raise RuntimeError("the commands for the daemon's end are still running")
        self._arguments = arguments
        return super().start(arguments)

    def _finish(self):
        self._ending = True
        self._run_after_end(list(self._after_end))

    def _run_after_end(self, commands):
        if commands:
            try:
                self._spawn(commands[0], lambda status: self._command_ended(commands, status))
            except OSError as error:
                self._note(f"cannot run {commands[0]}: {error}")
                self._run_after_end(commands[1:])
            return
        self._ending = False
        super()._finish()
        if self._restart_after is not None and self._status != 0:
            self._init.after(self._restart_after, self._restart)

    def _command_ended(self, commands, status):
        self._note(f"ran {' '.join(commands[0])}, status {status}")
        self._run_after_end(commands[1:])

    def _restart(self):
        # In the meantime somebody may have started it, or called off the restarts.
        if self._pid is None and not self._ending and self._restart_after is not None:
            self.start(self._arguments)
