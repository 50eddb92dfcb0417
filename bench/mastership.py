"""How long it takes to have a new master: times from the daemons' own log lines and signals.

Times are those of the nodes' journals, which share a clock.
"""

import sys

from lab.node import NO_RESTART
from lab.waiting import now

ELECTION_PERIOD = 0.5  # seconds for which the daemons collect proposals, by their protocol


_KILL = "import os, sys, time; print(time.monotonic()); os.kill(int(sys.argv[1]), 9)"


def _kill(node):
    """Kills the node's daemon; returns the time just before. (Its systemd notes the end later.)"""
    return float(node.run([sys.executable, "-c", _KILL, node.pid()]).stdout)


def _started(lab, drop_in=""):
    lab.reset()
    lab.start(drop_in=drop_in)
    lab.wait_master()


def _applied(nodes, master, since):
    """When the last of the nodes had logged that it applied `master`."""
    pattern = rf"^INFO: (MASTER: \(|SLAVE: \(master )nodeid = {master.id} "
    return max(node.wait_log(pattern, since=since).time for node in nodes)


def daemon_deaths(lab, runs):
    """The master's daemon is killed, and stays down. Seconds until the survivors have applied a new
    master: from the first report of the leave, and from the death."""
    _started(lab, NO_RESTART)
    from_report, from_death = [], []
    for _ in range(runs):
        dead = lab.node(lab.wait_master())
        survivors = [node for node in lab.nodes if node is not dead]
        killed = _kill(dead)
        master = lab.node(lab.wait_master(agreed_on=[node.number for node in survivors]))
        # Both by their signals: the way to the journal is the same for each.
        reported = min(
            node.wait_signal("NotifyLeft", dead.id, since=killed).time for node in survivors)
        announced = max(
            node.wait_signal("NotifyNewMaster", master.id, since=reported).time
            for node in survivors)
        from_report.append(announced - reported)
        from_death.append(_applied(survivors, master, killed) - killed)
        dead.start()
    return from_report, from_death


def daemon_restarts(lab, runs):
    """The master's daemon is killed, and its unit starts it again. Seconds from the death until the
    first of its peers that becomes master has applied that."""
    times = []
    for _ in range(runs):
        _started(lab)
        dead = lab.node(lab.wait_master())
        killed = _kill(dead)
        lab.wait_master()
        times.append(min(
            line.time
            for node in lab.nodes
            for line in [node.journal.find("^INFO: MASTER: ", killed)]
            if line
        ) - killed)
    return times


def node_deaths(lab, runs):
    """The master's node loses its power. Seconds until the survivors have applied a new master, and
    until corosync had reported the loss."""
    applied, reported = [], []
    for _ in range(runs):
        _started(lab)
        dead = lab.node(lab.wait_master())
        survivors = [node for node in lab.nodes if node is not dead]
        lost = now()
        dead.power_off()
        master = lab.node(lab.wait_master(agreed_on=[node.number for node in survivors]))
        reported.append(max(
            node.wait_signal("NotifyLeft", dead.id, since=lost).time for node in survivors) - lost)
        applied.append(_applied(survivors, master, lost) - lost)
    return applied, reported


def take_overs(lab, runs):
    """A slave is asked to take over. Seconds from the call until all three have applied it."""
    _started(lab)
    times = []
    for _ in range(runs):
        node = lab.node(lab.wait_master() % len(lab.nodes) + 1)
        called = now()
        node.call("TakeOver")
        times.append(_applied(lab.nodes, node, called) - called)
    return times
