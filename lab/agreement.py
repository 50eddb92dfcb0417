"""What the daemons of several nodes say together."""

from .bus import Unanswered
from .paths import DAEMON
from .waiting import now

GROUP = "duskvale"
_NEWS = {"NotifyNewMaster", "NotifyFrozenMaster", "NotifyJoined", "NotifyLeft"}


def master_of(node):
    """The node id that the node's daemon names as master (0: none), or None if it has no answer."""
    try:
        return node.get("MasterNodeId", limit=1.0) & 0xFFFFFFFF  # signed on the bus
    except Unanswered:
        return None


def settled_master(nodes, quiet):
    """The number of the node that all of `nodes` name as master, or None while they do not agree.

    Asked for is the state after all elections: each sees as many members as there are nodes, runs
    no steps, and had no news for `quiet` seconds. A log line is news as well: an election whose
    messages corosync refuses, as it does while the ring is changing, goes on without a signal.
    """
    since = now() - quiet
    named = set()
    for node in nodes:
        try:
            properties = node.bus.get_all(limit=1.0)
        except Unanswered:
            return None
        if properties["NodeCount"] != len(nodes) or properties["InTransition"]:
            return None
        if any(signal.name in _NEWS for signal in node.signals_since(since)):
            return None
        if any(not entry.text.startswith("DBG(") for entry in node.journal.entries(since, DAEMON)):
            return None
        named.add(properties["MasterNodeId"] & 0xFFFFFFFF)
    if len(named) != 1:
        return None
    return next((node.number for node in nodes if node.id in named), None)


def group_is_empty(node):
    """True if no daemon is a member of the group, as the node's corosync sees it."""
    return GROUP not in node.run(["corosync-cpgtool"], limit=10.0).stdout
