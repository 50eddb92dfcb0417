"""The first process of a node: builds the node's file tree, runs its services, stamps their output.

Started by the supervisor with one argument, the directory for the node's journals and its control
socket. The node's description is in there, as JSON:
  hostname
  corosync_config  text of corosync.conf, or null for a node without services
  bus_policy       path of a bus policy file, or null
  daemon           command line of the daemon
  environment      variables of the services
"""

import json
import os
import resource
import socket
import sys

from .control import Listener
from .filesystem import prepare_node
from .init import Init
from .journal import Stamper, write_line
from .waiting import now

DESCRIPTION = "description.json"

BUS = ("dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog")
COROSYNC = ("corosync", "-f")
RECORDER = (sys.executable, "-m", f"{__package__}.recorder")


class Service:
    """A program of the node that may be started again and again; its output goes to one journal.

    With `stamp` each line gets its time here, and starts and ends are noted as "lab: ..." lines;
    without it the program writes stamped lines itself.
    """

    def __init__(self, init, argv, environment, journal, stamp=True):
        self._init = init
        self._argv = list(argv)
        self._environment = dict(environment)
        self._journal = os.open(journal, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
        self._stamp = stamp
        self.pid = None
        self.status = None
        self.ended = None

    def start(self, arguments):
        if self.pid is not None:
            raise RuntimeError(f"{self._argv[0]} runs already, with pid {self.pid}")
        argv = self._argv + arguments
        if self._stamp:
            self.pid = self._start_stamped(argv)
            self._note(f"started, pid {self.pid}")
        else:
            errors = sys.stderr.fileno()
            self.pid = self._init.spawn(
                argv, self._environment, self._journal, errors, self._ended
            )
        self.status = self.ended = None
        return self.pid

    def signal(self, number):
        if self.pid is None:
            raise RuntimeError(f"{self._argv[0]} does not run")
        os.kill(self.pid, number)

    def _start_stamped(self, argv):
        reader, writer = os.pipe()
        stamper = Stamper(reader, self._journal)

        def take_output():
            if not stamper.closed and not stamper.move():
                self._init.unwatch(stamper)
                stamper.close()

        def on_exit(status):
            take_output()  # What it wrote last comes before the note of its end.
            self._ended(status)

        try:
            pid = self._init.spawn(argv, self._environment, writer, writer, on_exit)
        except OSError:
            stamper.close()
            raise
        finally:
            os.close(writer)
        self._init.watch(stamper, take_output)
        return pid

    def _ended(self, status):
        self.pid, self.status, self.ended = None, status, now()
        if self._stamp:
            self._note(f"ended, status {status}")

    def _note(self, text):
        write_line(self._journal, now(), f"lab: {text}".encode())


class Machine:
    def __init__(self, directory):
        self._init = Init()
        with open(f"{directory}/{DESCRIPTION}", encoding="utf-8") as file:
            description = json.load(file)
        # Made before the node's own /run hides the directory.
        self._listener = Listener(f"{directory}/control", self)
        self._services = {}
        if description["corosync_config"] is not None:
            self._services = self._make_services(directory, description)
        socket.sethostname(description["hostname"])
        prepare_node(
            f"{directory}/layers",
            description["corosync_config"] or "",
            description["bus_policy"],
        )

    def _make_services(self, directory, description):
        def make(name, argv, environment=description["environment"], **options):
            return Service(self._init, argv, environment, f"{directory}/{name}.log", **options)

        return {
            "bus": make("bus", BUS),
            # Part of the lab, and so with the environment of the lab's own processes.
            "recorder": make("signals", RECORDER, os.environ, stamp=False),
            "corosync": make("corosync", COROSYNC),
            "daemon": make("daemon", description["daemon"]),
        }

    def run(self):
        for name in ("bus", "recorder", "corosync"):
            if name in self._services:
                self.do_start(name)
        self._init.watch(self._listener, self._listener.serve_one)
        self._init.run()

    def do_start(self, service, arguments=()):
        return self._services[service].start(list(arguments))

    def do_signal(self, service, number):
        self._services[service].signal(number)

    def do_status(self):
        return {
            name: {"pid": service.pid, "status": service.status, "ended": service.ended}
            for name, service in self._services.items()
        }


def main():
    # An aborting daemon is part of what is tried here; core files would pile up on the machine.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    os.chdir("/")
    Machine(sys.argv[1]).run()


if __name__ == "__main__":
    main()
