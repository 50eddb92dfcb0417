"""The first process of a node: builds the node's file tree, runs its services, stamps their output.

Started by the supervisor with one argument, the directory for the node's journals and its control
socket. The node's description is in there, as JSON:
  hostname
  corosync_config  text of corosync.conf, or null for a node without services
  bus_policy       path of a bus policy file, or null
  package          path of a .deb to install on the node, or null
  daemon           command line of the daemon
  environment      variables of the services
  rules            of the daemon's service manager, see daemon.py, or null
"""

import contextlib
import json
import os
import resource
import signal
import socket
import sys

from .control import Listener
from .daemon import Daemon
from .filesystem import prepare_node
from .init import Init
from .processes import children_of
from .service import NotifyingService, Service, StampingService

DESCRIPTION = "description.json"

BUS = ("dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog")
COROSYNC = ("corosync", "-f")
RECORDER = (sys.executable, "-m", f"{__package__}.recorder")


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
            description["package"],
        )

    def _make_services(self, directory, description):
        environment = description["environment"]
        # The recorder is part of the lab, and so has the environment of the lab's own processes.
        made = (
            ("bus", Service, BUS, environment, "bus"),
            ("recorder", StampingService, RECORDER, os.environ, "signals"),
            ("corosync", NotifyingService, COROSYNC, environment, "corosync"),
        )
        services = {
            name: kind(self._init, argv, variables, f"{directory}/{journal}.log")
            for name, kind, argv, variables, journal in made
        }
        services["daemon"] = Daemon(
            self._init, description["daemon"], environment, f"{directory}/daemon.log", self._strays,
            dict(services),
        )
        services["daemon"].supervise(description["rules"])
        return services

    def run(self):
        for name in ("bus", "recorder", "corosync"):
            if name in self._services:
                self.do_start(name)
        self._init.watch(self._listener, self._listener.serve_one)
        self._init.run()

    def do_start(self, service, arguments=()):
        self._services[service].start(list(arguments))

    def do_signal(self, service, number):
        self._services[service].signal(number)

    def do_stop(self):
        return self._services["daemon"].stop()

    def do_supervise(self, rules):
        self._services["daemon"].supervise(rules)

    def do_sweep(self):
        """Kills what steps have left running; returns how many processes that were."""
        strays = self._strays()
        for pid in strays:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        return len(strays)

    def do_take_output(self):
        """Comes back when all that the services have written so far is in their journals."""
        for service in self._services.values():
            service.take_output()

    def do_status(self):
        return {name: service.state() for name, service in self._services.items()}

    def _strays(self):
        """The processes that lost their parent and got this one, which the services have, too; and
        all below them, as they are in one cgroup under systemd."""
        kept = {service.state()["pid"] for service in self._services.values()}
        found = [pid for pid in children_of(os.getpid()) if pid not in kept]
        for pid in found:
            found += children_of(pid)
        return found


def main():
    # An aborting daemon is part of what is tried here; core files would pile up on the machine.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    os.chdir("/")
    Machine(sys.argv[1]).run()


if __name__ == "__main__":
    main()
