"""A lab: N real corosync nodes on this machine, each in namespaces of its own, behind one switch.

    with Lab(nodes=3) as lab:
        lab.start()
        master = lab.wait_master()
        lab.node(master).kill()
        lab.wait_master(agreed_on=[...])

A lab lives and dies with the process that made it, however that ends, unless it was detached.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

from . import agreement, corosync, diagnosis, state
from .control import ask
from .filesystem import PACKAGED_DAEMON
from .network import MAIN, address_of
from .node import Node
from .processes import Process, check_requirements, environment
from .supervisor import DIRECTORY as SUPERVISOR_DIRECTORY
from .waiting import LabError, now, wait_until

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
DAEMON_PATH = CHECKOUT / "build/src/daemon/duskvale-corosync-bridge"
DEMO_DAEMON_PATH = CHECKOUT / "build-demo/src/daemon/duskvale-corosync-bridge"
POLICY_PATH = CHECKOUT / "data/com.norvel.DuskvaleCorosync.conf"

MAX_NODES = 64
CLIENT_NUMBER = 200
RING_LIMIT = 40.0

_HOLDER = ("unshare", "--mount", "--pid", "--net", "--fork", "--kill-child", "--")


class Lab:
    """`nodes` is how many; `ids` maps a node's number to its corosync id where they differ.

    `daemon` is the path of the daemon (or a command line as a list), `policy` that of its bus
    policy; `token` is corosync's, in ms; `variables` are added to the environment of the services.
    `package` is the path of a .deb: on the first `packaged` nodes that is installed, and all of the
    product that they run or read comes from it.
    """

    def __init__(self, name="lab", nodes=3, daemon=None, policy=None, ids=None, token=1000,
                 variables=None, package=None, packaged=2):
        if not re.fullmatch(r"[A-Za-z0-9_-]{1,40}", name):
            raise LabError(f"not a name for a lab: '{name}'")
        if not 1 <= nodes <= MAX_NODES:
            raise LabError(f"a lab has 1 to {MAX_NODES} nodes, not {nodes}")
        if package and not os.path.isfile(package):
            raise LabError(f"no such package: {package}")
        if not isinstance(daemon, list):
            daemon = [os.path.abspath(daemon or DAEMON_PATH)]
        self.name = name
        self.mark = 0.0
        self._facts = {
            "daemon": daemon,
            "policy": os.path.abspath(policy or POLICY_PATH),
            "token": token,
            "variables": dict(variables or {}),
            "nodes": [
                {"name": f"node{number}", "id": (ids or {}).get(number, number),
                 "address": address_of(number),
                 "package": os.path.abspath(package) if package and number <= packaged else None}
                for number in range(1, nodes + 1)
            ],
        }
        self._process = None
        self._holder = None
        self._stays = False
        self._nodes = {}

    @classmethod
    def attach(cls, name="lab"):
        """The lab of that name that another process has detached. Raises LabError if none is up."""
        process = state.find(name)
        if process is None:
            raise LabError(f"no lab '{name}' is up")
        lab = cls(name)
        lab._process = process
        lab._facts = json.loads(pathlib.Path(lab.directory, "lab.json").read_text(encoding="utf-8"))
        lab._make_nodes()
        return lab

    # Life

    def up(self):
        """Starts the nodes and comes back when their corosyncs have formed one ring."""
        check_requirements()
        self._start_supervisor()
        try:
            self.ask("note", facts=self._facts)
            since = now()
            for facts in self._facts["nodes"]:
                self.ask("power_on", name=facts["name"], description=self._description(facts))
            self._make_nodes()
            for node in self.nodes:
                node.wait_booted(since)
            self.wait_ring()
        except BaseException:
            self.down()
            raise
        self.mark = now()
        return self

    def down(self):
        """Ends everything in the lab at once; it leaves nothing behind. Harmless if it is down."""
        if self._process:
            self._process.end()
            self._process.close()
            self._process = None
        if self._holder:
            self._holder.wait()
            self._holder = None
        self._nodes = {}

    def detach(self):
        """Lets the lab stay when the `with` or this process ends; `attach` finds it by its name."""
        state.save(self.name, self._process)
        self.ask("detach")
        self._stays = True

    def __enter__(self):
        return self.up()

    def __exit__(self, *_):
        if not self._stays:
            self.down()

    def reset(self):
        """As after `up`: one ring of all nodes, no daemon, no settings, no steps, no devices."""
        self.heal()
        for node in self.nodes:
            node.restore()
        self.wait_ring()
        self.wait(lambda: agreement.group_is_empty(self.node(1)), 10.0, "the group is empty")
        self.mark = now()

    # The nodes

    @property
    def has_daemon(self):
        """False while there is no such executable; corosync and the bus work all the same."""
        packaged = all(node["package"] for node in self._facts["nodes"])
        return packaged or shutil.which(self._facts["daemon"][0]) is not None

    @property
    def ctl(self):
        """The path of duskvalectl where no package brings it: it is built beside the daemon, or else installed."""
        built = pathlib.Path(self._facts["daemon"][-1]).parent.parent.parent / "ctl/duskvalectl"
        return str(built) if built.exists() else "duskvalectl"

    @property
    def nodes(self):
        return [self._nodes[number] for number in sorted(self._nodes) if number != CLIENT_NUMBER]

    def node(self, number):
        if number not in self._nodes or number == CLIENT_NUMBER:
            raise LabError(f"the lab '{self.name}' has nodes 1 to {len(self.nodes)}, not {number}")
        return self._nodes[number]

    def client(self):
        """A machine on the nodes' network with no services; made at the first call."""
        facts = {"name": "client", "id": 0, "address": address_of(CLIENT_NUMBER)}
        if CLIENT_NUMBER not in self._nodes:
            self._nodes[CLIENT_NUMBER] = Node(self, CLIENT_NUMBER, facts)
        client = self._nodes[CLIENT_NUMBER]
        if not self.node_states().get(client.name, {}).get("on"):
            since = now()
            description = self._description(facts, services=False)
            self.ask("power_on", name=client.name, description=description)
            client.wait_booted(since)
        return client

    def start(self, *arguments, numbers=None):
        """Starts the daemon on all nodes (or those of `numbers`); comes back when all answer."""
        nodes = self._pick(numbers)
        for node in nodes:
            node.start(*arguments, wait=False)
        for node in nodes:
            node.wait_registered()

    def supervise(self, rules=None):
        for node in self.nodes:
            node.supervise(rules)

    # The network

    def cut(self, *numbers):
        for node in self._pick(numbers):
            node.cut()

    def partition(self, *groups):
        """Splits the network: the nodes of a group (numbers) reach one another, and nobody else."""
        for index, group in enumerate(groups):
            for node in self._pick(group):
                self.ask("assign", name=node.name, side=f"side{index}" if index else MAIN)

    def heal(self, *numbers):
        """Mends the cables of these nodes, or all, and ends a partition for them."""
        states = self.node_states()
        for node in self._pick(numbers or None):
            if states[node.name]["on"]:
                node.heal()

    # Waiting

    def wait(self, condition, limit, what="the condition", pause=0.01):
        return wait_until(condition, limit, what, pause, self.diagnosis)

    def wait_ring(self, numbers=None, limit=RING_LIMIT):
        """Waits until these nodes (or all) are in a ring of just themselves, by their own view."""
        nodes = self._pick(numbers)
        ids = {node.id for node in nodes}
        what = f"corosync has one ring of {nodes}"
        self.wait(lambda: all(node.ring() == ids for node in nodes), limit, what)

    def masters(self):
        """The master's id by each node's daemon (0: none; None: no answer), by node number."""
        return {node.number: agreement.master_of(node) for node in self.nodes}

    def wait_master(self, agreed_on=None, limit=20.0, quiet=0.8):
        """Waits until these nodes, or all, agree on a master, and returns its number.

        They agree when each names the same member, sees as many members as there are in the list,
        runs no steps, and has had no news for `quiet` seconds (an election takes 0.5 s).
        """
        nodes = self._pick(agreed_on)
        what = f"{nodes} agree on a master"
        # Each look asks all daemons over their buses; they have other things to do.
        return self.wait(lambda: agreement.settled_master(nodes, quiet), limit, what, pause=0.03)

    def diagnosis(self):
        """What one wants to see after a failure: the state and the last lines of each node."""
        return diagnosis.text(self)

    # Within the library

    @property
    def directory(self):
        """Where the lab keeps its journals; only while it is up."""
        if self._process is None:
            raise LabError(f"the lab '{self.name}' is not up")
        return f"/proc/{self._process.pid}/root{SUPERVISOR_DIRECTORY}"

    def ask(self, operation, **arguments):
        """Asks the supervisor; the operations are the methods do_* in supervisor.py."""
        if self._process is None or self._process.ended():
            raise LabError(f"the lab '{self.name}' is not up")
        return ask(f"{self.directory}/control", operation, **arguments)

    def node_states(self):
        return self.ask("nodes")

    def _pick(self, numbers):
        return self.nodes if numbers is None else [self.node(number) for number in numbers]

    def _make_nodes(self):
        facts = enumerate(self._facts["nodes"], start=1)
        self._nodes = {number: Node(self, number, node) for number, node in facts}

    def _start_supervisor(self):
        owner = os.pidfd_open(os.getpid())
        try:
            holder = subprocess.Popen(
                [*_HOLDER, sys.executable, "-m", "lab.supervisor", str(owner)],
                env=environment({"PYTHONPATH": str(CHECKOUT), "PYTHONDONTWRITEBYTECODE": "1"}),
                cwd="/",
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                pass_fds=[owner],
                start_new_session=True,  # Ctrl-C is for the caller, who decides what becomes of it.
            )
        finally:
            os.close(owner)
        with holder.stdout, holder.stderr:
            line = holder.stdout.readline()
            if not line:
                line = json.dumps({"error": holder.stderr.read().decode()})
        reply = json.loads(line)
        if "error" in reply:
            holder.wait()
            raise LabError(f"the lab '{self.name}' did not start: {reply['error']}")
        self._process = Process(reply["pid"])
        self._holder = holder

    def _description(self, facts, services=True):
        config = None
        if services:
            nodes = [(node["id"], node["name"], node["address"]) for node in self._facts["nodes"]]
            config = corosync.config_text(self.name, self._facts["token"], nodes)
        package = facts.get("package")
        daemon = [PACKAGED_DAEMON] if package else self._facts["daemon"]
        policy = self._facts["policy"]
        brings_policy = services and not package and os.path.exists(policy)
        return {
            "hostname": facts["name"],
            "address": facts["address"],
            "corosync_config": config,
            "bus_policy": policy if brings_policy else None,
            "package": package,
            "daemon": [*daemon, "-f"],
            "environment": environment(self._facts["variables"]),
            "rules": None,
        }
