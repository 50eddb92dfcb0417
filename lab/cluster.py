"""A lab: N booted machines with corosync and the daemon, each in namespaces of its own, behind one
switch.

    with Lab(nodes=3) as lab:
        lab.start()
        master = lab.wait_master()
        lab.node(master).kill()
        lab.wait_master()

A lab lives and dies with the process that made it, however that ends, unless it was detached.
"""

import json
import os
import pathlib
import re
import subprocess

from . import agreement, corosync, diagnosis, paths
from .host import SWITCH, Host
from .network import address_of
from .node import START_LIMIT, Node
from .paths import DAEMON
from .processes import check_requirements
from .waiting import LabError, now, wait_until

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
BUILD = CHECKOUT / "build"
DEMO_BUILD = CHECKOUT / "build-demo"

MAX_NODES = 64
CLIENT_NUMBER = 200
RING_LIMIT = 40.0
RESET_LIMIT = 60.0


class Lab:
    """`nodes` is how many; `ids` maps a node's number to its corosync id where they differ.

    The nodes run what is in the directory `build`, or the `package` (the path of a .deb, with that
    of the keeper beside it); `token` is corosync's, in ms. Those in `keepers` (numbers) have the
    keeper, too; then corosync counts votes. `template` is the text of an example corosync.conf to
    use instead, with encryption and a second link.
    """

    def __init__(self, name="lab", nodes=3, build=BUILD, ids=None, token=1000, package=None,
                 keepers=(), template=None):
        if not re.fullmatch(r"[A-Za-z0-9_-]{1,40}", name):
            raise LabError(f"not a name for a lab: '{name}'")
        if not 1 <= nodes <= MAX_NODES:
            raise LabError(f"a lab has 1 to {MAX_NODES} nodes, not {nodes}")
        self.name = name
        self.mark = 0.0
        self.host = None
        self._stays = False
        self._token = token
        self._template = template
        self._source = os.path.abspath(package or build)
        self._facts = [
            {"number": number, "name": f"node{number}", "id": (ids or {}).get(number, number),
             "address": address_of(number),
             "image": "keeper" if number in keepers else "daemon"}
            for number in range(1, nodes + 1)
        ]
        self._nodes = {}

    @classmethod
    def attach(cls, name="lab"):
        """The lab of that name that another process has made. Raises LabError if none is up."""
        lab = cls(name)
        lab.host = Host.find(name)
        if lab.host is None:
            raise LabError(f"no lab '{name}' is up")
        lab._facts = json.loads((lab.host.directory / "nodes.json").read_text(encoding="utf-8"))
        lab._make_nodes()
        return lab

    # Life

    def up(self):
        """Boots the nodes and comes back when their corosyncs have formed one ring.

        As on any machine, the daemons start with the boot, when the ring is there.
        """
        check_requirements()
        self._check_source()
        if Host.find(self.name):
            raise LabError(f"the lab '{self.name}' is up already")
        self.host = Host.start(self.name)
        try:
            text = json.dumps(self._facts)
            (self.host.directory / "nodes.json").write_text(text, encoding="utf-8")
            for image in {facts["image"] for facts in self._facts}:
                self.host.make_image(image, self._source)
            self._make_nodes()
            since = now()
            for node in self.nodes:
                self._make_disk(node)
                node.power_on(wait=False)
            for node in self.nodes:
                node.wait_booted(since)
            self.wait_ring()
        except BaseException:
            self.down()
            raise
        self.mark = since
        return self

    def down(self):
        """Ends everything in the lab at once; it leaves nothing behind. Harmless if it is down."""
        if self.host:
            self.host.end()
            self.host = None
        self._nodes = {}

    def detach(self):
        """Lets the lab stay when the `with` or this process ends; `attach` finds it by its name."""
        self.host.stay()
        self._stays = True

    def __enter__(self):
        return self if self.host else self.up()

    def __exit__(self, *_):
        if not self._stays:
            self.down()

    def reset(self):
        """One ring of all nodes, and on each of them no daemon, settings, steps or devices."""
        for node in self.nodes:
            if self.host.cable(node.name) != [SWITCH, "up"]:
                node.heal()
        off = [node for node in self.nodes if not node.is_on()]
        since = now()
        for node in off:
            node.power_on(wait=False)
        for node in off:
            node.wait_booted(since)
        self._wait_all([(node, node.begin_reset()) for node in self.nodes], RESET_LIMIT)
        self.wait_ring()
        self.wait(lambda: agreement.group_is_empty(self.node(1)), 10.0, "the group is empty")
        self.mark = now()

    # The nodes

    @property
    def nodes(self):
        return [self._nodes[number] for number in sorted(self._nodes) if number != CLIENT_NUMBER]

    def node(self, number):
        if number not in self._nodes or number == CLIENT_NUMBER:
            raise LabError(f"the lab '{self.name}' has nodes 1 to {len(self.nodes)}, not {number}")
        return self._nodes[number]

    def client(self):
        """A machine on the nodes' network, without corosync and daemon; made at the first call."""
        client = self._nodes.get(CLIENT_NUMBER)
        if client is None:
            facts = {"id": 0, "name": "client", "address": address_of(CLIENT_NUMBER),
                     "image": self.nodes[-1].image}
            client = self._nodes[CLIENT_NUMBER] = Node(self, CLIENT_NUMBER, facts)
            # Another process that attached to this lab may have made it.
            if not (self.host.directory / client.name).exists():
                # A unit without a line cannot be started, nor can those that require it.
                self._make_disk(client, **{f"/etc/systemd/system/{paths.COROSYNC}": ""})
        if not client.is_on():
            client.power_on()
        return client

    def start(self, *arguments, numbers=None, drop_in=""):
        """Starts the daemon on all nodes (or on `numbers`) and waits until each is on its bus.

        `arguments` follow those of the unit. They, and `drop_in`, which is added to the unit, hold
        until the next reset.
        """
        nodes = self._pick(numbers)
        command = ["systemctl", "start", DAEMON]
        if arguments or drop_in:
            for node in nodes:
                node.write_drop_in(drop_in, arguments)
            command = ["sh", "-c", f"systemctl daemon-reload && systemctl start {DAEMON}"]
        self._wait_all([(node, node.popen(command)) for node in nodes], START_LIMIT)

    # The network

    def cut(self, *numbers):
        for node in self._pick(numbers):
            node.cut()

    def partition(self, *groups):
        """Splits the network: the nodes of a group (numbers) reach one another, and nobody else."""
        for index, group in enumerate(groups):
            for node in self._pick(group):
                self.host.set_cable(node.name, f"side{index}" if index else SWITCH, "up")

    def heal(self, *numbers):
        """Repairs the cables of these nodes, or all, and ends a partition for them."""
        for node in self._pick(numbers or None):
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

    def _pick(self, numbers):
        return self.nodes if numbers is None else [self.node(number) for number in numbers]

    def _make_nodes(self):
        self._nodes = {facts["number"]: Node(self, facts["number"], facts) for facts in self._facts}

    def _check_source(self):
        if not os.path.exists(self._source):
            raise LabError(f"{self._source} is missing: build it first")
        if os.path.isdir(self._source):
            options = pathlib.Path(self._source, "meson-info/intro-buildoptions.json")
            known = json.loads(options.read_text(encoding="utf-8"))
            prefixes = [option["value"] for option in known if option["name"] == "prefix"]
            if prefixes != ["/usr"]:
                build = options.parents[1]
                raise LabError("the bus reads policies below /usr only; call: meson configure "
                               f"{build} -Dprefix=/usr && ninja -C {build}")

    def _make_disk(self, node, **more):
        """The node's disk, with what makes it another machine than those with the same image."""
        self.host.make_disk(node.name, node.image)
        self.host.set_cable(node.name, SWITCH, "up")
        nodes = [(facts["name"], facts["address"]) for facts in self._facts]
        hosts = [("localhost", "127.0.0.1"), *nodes]
        config = corosync.config_text(self.name, self._token, self._facts)
        if self._template:
            config = corosync.config_from(self._template, self._facts)
        for path, text in {
            "/etc/hostname": f"{node.name}\n",
            "/etc/hosts": "".join(f"{address} {name}\n" for name, address in hosts),
            "/etc/machine-id": f"{node.number:032x}\n",
            paths.COROSYNC_CONFIG: config,
            paths.COROSYNC_KEY: "k" * 256,
            **more,
        }.items():
            node.file(path).write_text(text, encoding="utf-8")

    def _wait_all(self, processes, limit):
        """Waits for the ends of (node, Popen); raises LabError if one fails."""
        deadline = now() + limit
        for node, process in processes:
            try:
                process.wait(max(deadline - now(), 0.1))
            except subprocess.TimeoutExpired:
                process.kill()
            if process.returncode != 0:
                raise LabError(f"on {node}: status {process.returncode} from {process.args[-3:]}\n"
                               f"{node.last_lines()}")
