"""What happens to the cluster, and what a client and the kernels see of it."""

import contextlib
import math
import signal
import sys
import time
from typing import Callable, NamedTuple

from lab.cluster import CHECKOUT
from lab.corosync import views
from lab.examples import ADDRESS
from lab.holders import Watch, has_address, overlap
from lab.paths import COROSYNC
from lab.record import Record
from lab.waiting import Overdue, now

from .mastership import ELECTION_PERIOD
from .peers import LIMIT, SERVICE

ANSWERS = 100
SETTLED_S = 1.0


class Run(NamedTuple):
    """Seconds: the longest time without an answer (inf: it did not end), with the address on two
    nodes, and what corosync alone took, with an election (None: it has no part in it)."""

    silent: float
    twice: float
    limit: float | None


class Client:
    """A process that asks at the address, on a machine of its own."""

    def __init__(self, lab):
        self._lab = lab
        self._record = Record()
        self._process = lab.client().popen(
            [sys.executable, "-B", "-m", "bench.probe", "ask", ADDRESS],
            env={"PYTHONPATH": str(CHECKOUT)}, stdout=self._record.file)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()
        self._record.close()

    def wait_served(self, since, other_than=None, limit=LIMIT):
        def served():
            answers = self._record.lines(since)
            return sum(not line.text.endswith(f" {other_than}") for line in answers) >= ANSWERS

        self._lab.wait(served, limit, "the client is served")

    def longest_silence(self, since, until):
        times = [since, *(line.time for line in self._record.lines(since)), until]
        return max(later - earlier for earlier, later in zip(times, times[1:]))


def stop(_lab, peer, old):
    peer.stop(old)


def move(lab, peer, old):
    peer.move(lab, old, next_to(lab, old))


def kill_daemon(_lab, peer, old):
    old.signal(signal.SIGKILL, peer.unit)


def kill_service(_lab, _peer, old):
    old.signal(signal.SIGKILL, SERVICE)


def kill_corosync(_lab, _peer, old):
    old.signal(signal.SIGKILL, COROSYNC)


def power_off(_lab, _peer, old):
    old.power_off()


def cut(_lab, _peer, old):
    old.cut()


def heal(_lab, _peer, old):
    old.heal()


def restart_slave(lab, peer, old):
    next_to(lab, old).systemctl("restart", peer.unit, limit=LIMIT)


def all_off(lab):
    for node in lab.nodes:
        node.power_off()


def all_on(lab, _peer, _old):
    since = now()
    for node in lab.nodes:
        node.power_on(wait=False)
    for node in lab.nodes:
        node.wait_booted(since)


def next_to(lab, node):
    return lab.node(node.number % len(lab.nodes) + 1)


def round_trip(_lab, _since, _old, bare):
    return bare.round_trip


def death(_lab, _since, _old, bare):
    return bare.death + ELECTION_PERIOD


def ring_of(lab, since, nodes, ids):
    """Until all nodes have a new ring: of these ids, or any."""
    def times():
        found = [next((at for at, members in views(node.journal.entries(since, COROSYNC))
                       if ids in (None, members)), None) for node in nodes]
        return None not in found and found

    return max(lab.wait(times, LIMIT, f"{nodes} have a new ring")) - since + ELECTION_PERIOD


def loss(lab, since, old, _bare):
    return ring_of(lab, since, [node for node in lab.nodes if node is not old], None)


def gain(lab, since, _old, _bare):
    return ring_of(lab, since, lab.nodes, {node.id for node in lab.nodes})


class Row(NamedTuple):
    """`limit` has the seconds that it takes with corosync alone, and an election."""

    name: str
    act: Callable
    limit: Callable | None
    moves: bool = False      # to the answers of another node, in every case
    watch_s: float = 3.0     # for as long after the answers are back
    before: Callable | None = None
    after: str | None = None  # the row whose end is the beginning of this one


ROWS = {
    "move": Row("planned move", move, round_trip, moves=True, watch_s=1.0),
    "stop": Row("the unit is stopped", stop, death, moves=True, watch_s=1.0),
    "daemon": Row("the daemon is killed", kill_daemon, death),
    "service": Row("the service is killed", kill_service, None, watch_s=1.0),
    "corosync": Row("corosync is killed", kill_corosync, loss),
    "power": Row("power-off", power_off, loss, moves=True, watch_s=1.0),
    "cut": Row("the cable is cut", cut, loss, moves=True),
    "repair": Row("the cable is repaired", heal, gain, after="cut"),
    "slave": Row("a slave is restarted", restart_slave, None),
    "boot": Row("boot of all nodes", all_on, gain, before=all_off),
}


def ready(lab, peer):
    """Everything runs again, and one node has the address. Returns that."""
    since = now()
    off = [node for node in lab.nodes if not node.is_on()]
    for node in off:
        node.power_on(wait=False)
    for node in off:
        node.wait_booted(since)
    lab.heal()
    peer.revive(lab)
    lab.wait(lambda: len(holders(lab.nodes)) == 1, LIMIT, "one node has the address", pause=0.1)
    time.sleep(SETTLED_S)
    return lab.node(holders(lab.nodes).pop())


def holders(nodes):
    return {node.number for node in nodes if has_address(node)}


def measure(lab, peer, row, old, bare):
    """One repetition, from a cluster whose address is (or was, for a row that follows) on `old`."""
    if row.before:
        row.before(lab)
    with contextlib.ExitStack() as stack:
        client = stack.enter_context(Client(lab))
        if not row.before:
            client.wait_served(0.0)
            watch, first, wall = _begin(stack, lab)
        since = now()
        row.act(lab, peer, old)
        if row.before:  # Only what is on can be watched.
            watch, first, wall = _begin(stack, lab)
        limit = row.limit(lab, since, old, bare) if row.limit else None
        served = True
        try:
            client.wait_served(now(), old if row.moves else None)
        except Overdue:
            served = False
        time.sleep(row.watch_s)
        silent = client.longest_silence(since, now()) if served else math.inf
        twice, _ = overlap(first, watch.changes(), wall, time.time())
    return Run(silent, twice, limit)


def _begin(stack, lab):
    watch = stack.enter_context(Watch([node for node in lab.nodes if node.is_on()]))
    return watch, holders(lab.nodes), time.time()
