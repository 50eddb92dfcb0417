"""The first process of a lab. It holds the switch and starts the nodes; when it ends, all ends.

Being pid 1 of the namespace in which every process of the lab lives, its death, however it comes,
makes the kernel end them all, and with the last one the namespaces, mounts and interfaces go.

Arguments: a descriptor (pidfd) of the process that the lab belongs to. The lab ends with that
process unless it is told to stay ("detach").
"""

import contextlib
import json
import os
import signal
import subprocess
import sys

from .control import Listener, listener_pid
from .init import Init
from .machine import DESCRIPTION
from .network import Switch
from .waiting import LabError

# In the supervisor's mount namespace; others reach it through /proc/PID/root.
DIRECTORY = "/run/lab"

MACHINE = (
    *("unshare", "--mount", "--uts", "--ipc", "--pid", "--fork", "--kill-child", "--"),
    *(sys.executable, "-m", f"{__package__}.machine"),
)


class Supervisor:
    def __init__(self, owner):
        self._init = Init()
        self._owner = owner
        os.set_inheritable(owner, False)
        self._descriptions = {}
        self._running = {}
        subprocess.run(["mount", "-t", "proc", "proc", "/proc"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", "/run"], check=True)
        os.mkdir(DIRECTORY)
        self._switch = Switch()
        listener = Listener(f"{DIRECTORY}/control", self)
        self._init.watch(listener, listener.serve_one)
        self._init.watch(owner, lambda: sys.exit("the owner of the lab has ended"))

    def run(self):
        self._init.run()

    def do_detach(self):
        """The lab stays when its owner ends."""
        self._init.unwatch(self._owner)

    def do_note(self, facts):
        """Keeps what those who attach later must know."""
        with open(f"{DIRECTORY}/lab.json", "w", encoding="utf-8") as file:
            json.dump(facts, file)

    def do_power_on(self, name, description=None):
        """Starts a node; `description` as in machine.py, and "address", when it is a new one."""
        if description is not None:
            self._descriptions[name] = {**description, "directory": f"{DIRECTORY}/{name}"}
        if name in self._running:
            raise LabError(f"{name} is on already")
        description = self._descriptions[name]
        directory = description["directory"]
        os.makedirs(directory, exist_ok=True)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{directory}/control")
        with open(f"{directory}/{DESCRIPTION}", "w", encoding="utf-8") as file:
            json.dump(description, file)
        self._switch.plug_in(name, description["address"])
        argv = ["ip", "netns", "exec", name, *MACHINE, directory]
        output = os.open(f"{directory}/machine.log", os.O_WRONLY | os.O_CREAT | os.O_APPEND)
        try:
            self._running[name] = self._init.spawn(
                argv, dict(os.environ), output, output, lambda _status: self._note_off(name)
            )
        finally:
            os.close(output)

    def do_supervise(self, name, rules):
        """The node gets these rules of a service manager with its next power_on."""
        self._descriptions[name]["rules"] = rules

    def do_power_off(self, name):
        """Ends all processes of the node at once. It is off when "nodes" says so."""
        os.kill(listener_pid(f"{self._descriptions[name]['directory']}/control"), signal.SIGKILL)

    def do_nodes(self):
        """The state of each node: is it on, is its cable cut, what part of the network is it in."""
        return {
            name: {
                "on": name in self._running,
                "cut": name in self._switch.cut_cables,
                "side": self._switch.sides.get(name),
            }
            for name in self._descriptions
        }

    def do_cable(self, name, whole):
        self._switch.set_cable(name, whole)

    def do_assign(self, name, side):
        self._switch.assign(name, side)

    def do_restore_addresses(self, name):
        """Takes all addresses away that the node did not start with."""
        self._switch.restore_addresses(name, self._descriptions[name]["address"])

    def _note_off(self, name):
        del self._running[name]
        self._switch.unplug(name)


def main():
    # /proc still is that of the namespace above, and so says which pid this process has there.
    pid = int(os.readlink("/proc/self"))
    try:
        supervisor = Supervisor(owner=int(sys.argv[1]))
        reply = {"pid": pid}
    except Exception as error:  # pylint: disable=broad-except
        reply = {"error": f"{type(error).__name__}: {error}"}
    print(json.dumps(reply), flush=True)
    if "error" in reply:
        sys.exit(1)
    null = os.open(os.devnull, os.O_RDWR)
    log = os.open(f"{DIRECTORY}/supervisor.log", os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    for source, target in ((null, 0), (log, 1), (log, 2)):
        os.dup2(source, target)
    supervisor.run()


if __name__ == "__main__":
    main()
