"""What can go wrong on a node, and what an operator may ask at a bad moment."""

import random
import signal
import subprocess
import time

from ..examples import ADDRESS
from ..paths import COROSYNC, DAEMON, KEEPER, RUN_DIRECTORY
from ..waiting import LabError

# A step that comes and goes: it fails, hangs for a while deaf to SIGTERM, or leaves a child behind.
STEPS = {
    "a step fails": "#!/bin/sh\n[ $1 = stop ] || exit 3\n",
    "a step is slow and deaf": "#!/bin/sh\ntrap '' TERM\nsleep 3\n",
    "a step forks": "#!/bin/sh\n(setsid sleep 5 &)\n",
}
BAD_STEP = "40-bad.run"


class Faults:
    """Does them, and knows what is still broken."""

    def __init__(self, lab):
        self.lab = lab
        self.paused = set()  # (node, unit)
        self.off = set()
        self.lost_power = []  # (wall clock, node number)
        self.cut = set()
        keepers = any(node.image == "keeper" for node in lab.nodes)
        self._kinds = {
            "daemon restarted": self._unit("restart", DAEMON),
            "daemon stopped and started": self._stop_and_start,
            "daemon killed": self._kill(DAEMON),
            "corosync killed": self._kill(COROSYNC),
            "corosync restarted": self._unit("restart", COROSYNC),
            "bus killed": self._kill("dbus.service"),
            "journald killed": self._kill("systemd-journald.service"),
            "journald hangs": self._pause("systemd-journald.service"),
            "daemon hangs": self._pause(DAEMON),
            "corosync hangs": self._pause(COROSYNC),
            "all that hangs goes on": lambda _node: self.resume(),
            "power lost": self._power_off,
            "power back": lambda _node: self._power_on(),
            "reboot": lambda node: node.reboot(),
            "cable cut": lambda node: (node.cut(), self.cut.add(node)),
            "cable cut in one direction": lambda node: (node.deafen(), self.cut.add(node)),
            "cables repaired": lambda _node: self._heal(),
            "the bad step is gone": self.remove_step,
            "requests cross": self._requests,
            "requests cross right after a join": self._join_and_request,
        }
        self._kinds.update({name: self._step(text) for name, text in STEPS.items()})
        if keepers:  # Without one nobody would give the address back.
            self._kinds["address lost"] = lambda node: node.image == "keeper" and node.run(
                ["ip", "address", "delete", f"{ADDRESS}/32", "dev", "eth0"])
            self._kinds["keeper killed"] = self._kill(KEEPER)
            self._kinds["keeper hangs"] = self._pause(KEEPER)

    def do_one(self):
        """Does a random one to a random node; its name and the node's, or None if it cannot be."""
        node, name = random.choice(self.lab.nodes), random.choice(list(self._kinds))
        if not node.is_on() and name != "power back":
            return None
        try:
            self._kinds[name](node)
        except (LabError, OSError):
            return None  # There was nothing to kill, to stop or to delete.
        return name, node.name

    def resume(self):
        for node, unit in self.paused:
            if node.is_on():
                node.systemctl("kill", "--signal=CONT", unit, check=False)
        self.paused.clear()

    def repair(self):
        """Everything is as it was, and whatever gave up is started."""
        self.resume()
        self._power_on()
        self._heal()
        for node in self.lab.nodes:
            self.remove_step(node)
            node.systemctl("reset-failed", DAEMON, COROSYNC, check=False)
            node.systemctl("start", "--no-block", COROSYNC, DAEMON, check=False)
            if node.image == "keeper":
                node.duskvalectl("fit", check=False)

    def groups(self):
        """The nodes that are on, in sets of those that reach each other."""
        on = [node for node in self.lab.nodes if node not in self.off]
        together = [node for node in on if node not in self.cut]
        return [group for group in ([together] + [[n] for n in on if n in self.cut]) if group]

    @staticmethod
    def _unit(verb, unit):
        return lambda node: node.systemctl(verb, "--no-block", unit)

    @staticmethod
    def _kill(unit):
        return lambda node: node.signal(signal.SIGKILL, unit)

    def _pause(self, unit):
        return lambda node: (node.signal(signal.SIGSTOP, unit), self.paused.add((node, unit)))

    @staticmethod
    def _stop_and_start(node):
        node.systemctl("stop", "--no-block", DAEMON)
        node.systemctl("start", "--no-block", DAEMON)

    def _power_off(self, node):
        if len(self.off) + 1 < len(self.lab.nodes):
            self.paused = {(other, unit) for other, unit in self.paused if other != node}
            node.power_off()
            self.lost_power.append((time.time(), node.number))
            self.off.add(node)

    def _power_on(self):
        while self.off:
            self.off.pop().power_on()

    def _heal(self):
        self.lab.heal()
        self.cut.clear()

    @staticmethod
    def _step(text):
        return lambda node: node.write_step(BAD_STEP, text)

    @staticmethod
    def remove_step(node):
        node.file(f"{RUN_DIRECTORY}/{BAD_STEP}").unlink(missing_ok=True)

    def _join_and_request(self, node):
        node.systemctl("restart", DAEMON)
        self._requests(node)

    def _requests(self, _node):
        """From all nodes at once, as operators do who do not talk to each other."""
        for node in self.lab.nodes:
            if node.is_on():
                node.popen(["duskvalectl", *random.choice((
                    ("take-over",), ("give-back",), ("prefer", "on"), ("prefer", "off"),
                    ("freeze", "chaos"), ("unfreeze",), ("send", "hello"),
                ))], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
