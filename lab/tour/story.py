"""The acts of the tour: each does something to the cluster, and shows what came of it."""

import contextlib
import shlex
import subprocess
import sys

from ..cluster import CHECKOUT
from ..examples import ADDRESS
from ..paths import DAEMON
from ..waiting import LabError, now
from . import picture, timeline
from .outages import Client, longest_silence
from .services import install

SETTLED_ANSWERS = 20
ANSWER_LIMIT = 10.0
REFUSED = 3  # by duskvalectl


class Story:
    def __init__(self, lab, paper):
        self._lab = lab
        self._paper = paper
        self._acts = []
        self._pictured = []
        self._act = None
        lab.reset()
        for node in lab.nodes:
            install(node)
        self._client = Client(lab.client(), sys.executable, CHECKOUT)
        lab.wait(self._client.is_asking, ANSWER_LIMIT, "the client asks")

    def run(self):
        self._election()
        self._move()
        self._restart_a_slave()
        self._kill()
        self._kill_the_service()
        self._freeze()
        self._device()
        self._reboot()
        self._cut()
        self._heal()
        self._why()
        self._paper.title("In short")
        self._paper.table(("WHAT HAPPENED", "MASTER", "CLIENT WITHOUT AN ANSWER"), self._acts)

    def picture(self):
        """The text of an SVG, which shows what the client saw."""
        return picture.draw(self._pictured)

    # The acts

    def _election(self):
        with self._shown("Election", "The daemon is started on three nodes. They elect a master, "
                         f"which starts the web server and takes the address {ADDRESS}."):
            self._lab.start()
            self._lab.wait_master()

    def _move(self):
        target, other = self._slaves()
        with self._shown("A planned move", f"An operator on {other} makes {target} the master."):
            self._operate(other, "move", target.name, "--wait")
            self._lab.wait_master()

    def _restart_a_slave(self):
        node = self._slaves()[0]
        with self._shown("A slave is restarted", "Each join is an election, a tie that the order "
                         "of messages would decide. The keepers keep the master where it is."):
            node.systemctl("restart", DAEMON)
            self._lab.wait_master()

    def _kill(self):
        node = self._master()
        with self._shown("The master's daemon is killed", f"SIGKILL on {node}. Its unit stops the "
                         "services, which would run on beside those of the next master, and starts "
                         "the daemon again. The others elect."):
            node.kill()
            node.wait_log("INFO: Registered on dbus", since=self._act.start)
            self._lab.wait_master()

    def _kill_the_service(self):
        node = self._master()
        with self._shown("The service is killed", f"SIGKILL to the web server on {node}. A watch "
                         "program notices, and the keeper has the steps run again."):
            node.run(["sh", "-c", "kill -KILL $(cat /run/tour-web.pid)"])
            self._lab.wait(lambda: any(change.answer is None
                                       for change in self._client.changes(self._act.start)),
                           ANSWER_LIMIT, "the client has no answer")

    def _freeze(self):
        master, other = self._master(), self._slaves()[0]
        with self._shown("Freeze", f"Mastership is frozen to {master}; a take-over is refused. "
                         "Lifting the freeze is an election, which moves nothing."):
            self._operate(master, "freeze", "repairs in rack 2", "--wait")
            other.wait_signal("NotifyFrozenMaster", master.id, since=self._act.start)
            self._operate(other, "take-over", "--wait", status=REFUSED)
            self._operate(master, "unfreeze", "--wait")
            self._lab.wait_master()

    def _device(self):
        node = self._slaves()[0]
        with self._shown("A device is plugged in", f"On {node}, where udev would report it; all "
                         "nodes learn of it."):
            path = node.add_device("crate7", location="rack 2, bay 7", hardware_id="LC-7")
            self._operate(node, "hotplug", "add", path)
            for other in self._lab.nodes:
                other.wait_signal("NotifyLumacrateHotplug", node.id, since=self._act.start)

    def _reboot(self):
        node = self._master()
        with self._shown("The master's node is rebooted", "Its keeper hands the role over before "
                         "the daemon stops. When the node is back, it leaves the role alone."):
            node.reboot()
            self._lab.wait_ring()
            self._lab.wait_master()

    def _cut(self):
        master = self._master()
        rest = self._slaves()
        with self._shown("The master's cable is cut", f"{master} loses quorum: its keeper ends the "
                         "daemon, and its unit stops the services. The others elect."):
            master.cut()
            self._lab.wait_ring([node.number for node in rest])
            self._lab.wait_ring([master.number])
            self._lab.wait_master(agreed_on=[node.number for node in rest])

    def _heal(self):
        with self._shown("The cable is repaired", "The daemon starts again when its node has "
                         "quorum. The master stays where it is."):
            self._lab.heal()
            self._lab.wait_ring()
            self._lab.wait_master(limit=60)

    def _why(self):
        node = self._master()
        self._paper.title(f"{len(self._acts) + 1}. Who is master, and why?")
        self._paper.prose(f"An operator on {node} asks.")
        for command in "status", "check", "why":
            output = node.duskvalectl(command).stdout.rstrip()
            self._paper.text(f"$ duskvalectl {command}\n{output}\n")

    def _operate(self, node, *arguments, status=0):
        """An operator's command on the node: what it says is shown, and how it must end."""
        self._act.did(str(node), f"$ duskvalectl {shlex.join(arguments)}")
        with node.popen(["duskvalectl", *arguments], stdout=subprocess.PIPE,
                        stderr=subprocess.STDOUT) as process:
            for line in process.stdout:
                self._act.did(str(node), line.rstrip())
        if process.returncode != status:
            said = "\n".join(deed.text for deed in self._act.deeds)
            raise LabError(f"on {node} duskvalectl ended with {process.returncode}:\n{said}")

    # Showing an act

    @contextlib.contextmanager
    def _shown(self, title, text):
        number = len(self._acts) + 1
        self._paper.title(f"{number}. {title}")
        self._paper.prose(text)
        self._act = Act(now())
        yield
        self._wait_answered()
        self._show(title)

    def _wait_answered(self):
        since = now()
        self._lab.wait(lambda: self._client.answered(since) >= SETTLED_ANSWERS, ANSWER_LIMIT,
                       "the client gets answers")

    def _show(self, title):
        start, end = self._act.start, now()
        changes = self._client.changes(start)
        seen = [timeline.Event(change.time, "client", _seen(change)) for change in changes]
        events = [*timeline.collect(self._lab, start), *self._act.deeds, *seen]
        for event in sorted(events):
            self._paper.event((event.time - start) * 1000, event.who, event.text)
        silence = longest_silence(changes, end)
        silent = f"{silence * 1000:.0f} ms" if silence else "never"
        masters = sorted({f"node{n}" for n in self._lab.masters().values() if n})
        self._acts.append((title, ", ".join(masters), silent))
        self._pictured.append((title, start, end, changes,
                               f"no answer for {silent}" if silence else "always answered"))

    def _master(self):
        return self._lab.node(self._lab.wait_master())

    def _slaves(self):
        master = self._master()
        return [node for node in self._lab.nodes if node is not master]


class Act:
    """When the act began, and what was done in it that no node reports."""

    def __init__(self, start):
        self.start = start
        self.deeds = []

    def did(self, who, text):
        self.deeds.append(timeline.Event(now(), who, text))


def _seen(change):
    return f"answered by {change.answer}" if change.answer else "no answer"
